// A module library as modules are built: its prepare function registers the
// load function, which creates the module's event manager in the given
// context. It answers the version command to the listener it was given.
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;

class TestEchoManager : public orv::EventManager {
 public:
  TestEchoManager(orv_weak_ptr<orv::Context>& context, orv_weak_ptr<orv::EventManager>& listener)
      : orv::EventManager(context), m_listener(listener) {}

  void send(orv_shared_ptr<orv::Message>& message) override {
    if (message->m_name != orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION) return;
    orv_shared_ptr<orv::Message> reply(new orv::Message());
    reply->m_name = orv::ORV_CALLBACK_EVENT_MANAGER_VERSION;
    reply->m_params = orv_shared_ptr<orv::ParamMap>(new orv::ParamMap());
    reply->m_params->emplace(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING,
                             std::string("test-echo 1.0"));
    post(m_listener, reply, 0);
  }

  orv_weak_ptr<orv::EventManager> m_listener;
};

orv_shared_ptr<orv::EventManager> load(orv_weak_ptr<orv::Context> context,
                                       orv_weak_ptr<orv::EventManager> listener) {
  orv_shared_ptr<orv::EventManager> manager(new TestEchoManager(context, listener));
  manager->m_self = manager;
  return manager;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void VeltoSpeechTestEcho_INIT() {
  orv::SpeechSDKModuleLoader::registerLoadFunction(load, "TestEcho");
}
