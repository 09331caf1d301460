#include <dlfcn.h>

#include <atomic>
#include <string>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

using orv_test::has;
using orv::Context;
using orv::EventManager;
using orv::Message;
using orv::SpeechSDKModuleLoader;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;

const std::string kModuleDir = ORV_TEST_MODULE_DIR;

std::string failure(const std::string& name) {
  return "Module loader not registered for module " + name +
         " make sure you have linked required libraries!";
}

// True when the library is loaded in the process (without loading it).
bool is_loaded(const std::string& file) {
  void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

class Listener : public EventManager {
 public:
  explicit Listener(orv_weak_ptr<Context>& context) : EventManager(context) {}
  void send(orv_shared_ptr<Message>& message) override {
    if (message->m_name == orv::ORV_CALLBACK_EVENT_MANAGER_VERSION && message->m_params) {
      version = message->m_params->at(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING).valueString();
      got_reply = true;
    }
  }
  std::string version;
  std::atomic<bool> got_reply{false};
};

class ModuleLoader : public ::testing::Test {
 protected:
  void SetUp() override { orv::set_log_level(orv::LOG_DEBUG); }
  void TearDown() override { orv::set_log_level(0); }
  orv_shared_ptr<EventManager> load(const std::string& name, std::string& error) {
    return SpeechSDKModuleLoader::loadModule(name, orv_weak_ptr<Context>(),
                                             orv_weak_ptr<EventManager>(), error);
  }
};

int inline_loads = 0;
orv_shared_ptr<EventManager> inline_first(orv_weak_ptr<Context>, orv_weak_ptr<EventManager>) {
  return orv_shared_ptr<EventManager>();
}
orv_shared_ptr<EventManager> inline_second(orv_weak_ptr<Context> context,
                                           orv_weak_ptr<EventManager>) {
  ++inline_loads;
  orv_shared_ptr<EventManager> listener(new Listener(context));
  return listener;
}

TEST_F(ModuleLoader, RegisteredModuleIsFoundWithoutOpeningALibrary) {
  SpeechSDKModuleLoader::setDynLibBasePath(kModuleDir);
  orv_test::StderrCapture capture;
  SpeechSDKModuleLoader::registerLoadFunction(inline_first, "Inline");
  SpeechSDKModuleLoader::registerLoadFunction(inline_second, "Inline");  // the second one wins
  std::string error = "untouched";
  orv_shared_ptr<EventManager> module = load("Inline", error);
  std::string log = capture.text();
  EXPECT_NE(module.getPTR(), nullptr);
  EXPECT_EQ(inline_loads, 1);
  EXPECT_EQ(error, "untouched");
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:83]REGISTERING LOADER FOR MODULE Inline\n")) << log;
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:66][MODULE_LOAD] try to get module Inline\n")) << log;
  EXPECT_FALSE(has(log, "try load")) << log;
}

TEST_F(ModuleLoader, MissingLibraryGivesTheFailureText) {
  SpeechSDKModuleLoader::setDynLibBasePath("/a/b");  // no trailing slash: plain concatenation
  orv_test::StderrCapture capture;
  std::string error;
  orv_shared_ptr<EventManager> module = load("X", error);
  std::string log = capture.text();
  EXPECT_EQ(module.getPTR(), nullptr);
  EXPECT_EQ(error, "Module loader not registered for module X make sure you have linked required "
                   "libraries!");
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:20][MODULE_LOAD] try load: X\n")) << log;
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:32][MODULE_LOAD] libName: "
                       "/a/blibVeltoSpeechX.so, prepare function: VeltoSpeechX_INIT\n"))
      << log;
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:53][MODULE_LOAD] no lib handle\n")) << log;
}

TEST_F(ModuleLoader, LoadsAModuleLibraryThatAnswers) {
  SpeechSDKModuleLoader::setDynLibBasePath(kModuleDir);
  orv_shared_ptr<Context> context = Context::newContext();
  orv_weak_ptr<Context> weak_context(context);
  orv_shared_ptr<EventManager> listener(new Listener(weak_context));
  listener->m_self = listener;

  orv_test::StderrCapture capture;
  std::string error;
  orv_shared_ptr<EventManager> echo = SpeechSDKModuleLoader::loadModule(
      "TestEcho", weak_context, orv_weak_ptr<EventManager>(listener), error);
  std::string log = capture.text();
  ASSERT_NE(echo.getPTR(), nullptr) << error;
  EXPECT_EQ(error, "");
  EXPECT_TRUE(is_loaded(kModuleDir + "libVeltoSpeechTestEcho.so"));
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:38][MODULE_LOAD] got lib handle\n")) << log;
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:41][MODULE_LOAD] got prepare function\n")) << log;
  EXPECT_TRUE(has(log, "REGISTERING LOADER FOR MODULE TestEcho"));

  orv_shared_ptr<Message> ask(new Message());
  ask->m_name = orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION;
  orv_weak_ptr<EventManager> to(echo);
  listener->post(to, ask, 0);
  Listener* l = static_cast<Listener*>(listener.getPTR());
  ASSERT_TRUE(orv_test::wait_until([&] { return l->got_reply.load(); }));
  EXPECT_EQ(l->version, "test-echo 1.0");

  // Registered now: a second load opens nothing.
  orv_test::StderrCapture again;
  orv_shared_ptr<EventManager> second = load("TestEcho", error);
  EXPECT_NE(second.getPTR(), nullptr);
  EXPECT_EQ(again.text().find("try load"), std::string::npos);
  context->release_instance();
}

TEST_F(ModuleLoader, LibraryWithoutPrepareFunctionIsClosed) {
  SpeechSDKModuleLoader::setDynLibBasePath(kModuleDir);
  orv_test::StderrCapture capture;
  std::string error;
  EXPECT_EQ(load("TestNoPrepare", error).getPTR(), nullptr);
  std::string log = capture.text();
  EXPECT_EQ(error, failure("TestNoPrepare"));
  EXPECT_TRUE(has(log, "[orv_Dynamic_Module_Loader.cpp:47][MODULE_LOAD] no prepare function\n")) << log;
  EXPECT_FALSE(is_loaded(kModuleDir + "libVeltoSpeechTestNoPrepare.so"));
}

TEST_F(ModuleLoader, PrepareUnderAnotherNameFailsAndReloadClosesTheEarlierHandle) {
  SpeechSDKModuleLoader::setDynLibBasePath(kModuleDir);
  const std::string file = kModuleDir + "libVeltoSpeechTestMisnamed.so";
  std::string error;
  EXPECT_EQ(load("TestMisnamed", error).getPTR(), nullptr);
  EXPECT_EQ(error, failure("TestMisnamed"));
  EXPECT_TRUE(is_loaded(file));  // kept open although the lookup failed
  EXPECT_EQ(SpeechSDKModuleLoader::m_registeredLoaders.count("SomeOtherName"), 1u);

  // Loading the name again closes the earlier handle first, so the library
  // is loaded afresh and its prepare count starts over.
  error.clear();
  EXPECT_EQ(load("TestMisnamed", error).getPTR(), nullptr);
  EXPECT_EQ(error, failure("TestMisnamed"));
  void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr);
  auto count = reinterpret_cast<int (*)()>(dlsym(handle, "orv_test_prepare_count"));
  ASSERT_NE(count, nullptr);
  EXPECT_EQ(count(), 1);
  dlclose(handle);
}

TEST_F(ModuleLoader, EmptyNameAndEmptyLoadResult) {
  SpeechSDKModuleLoader::setDynLibBasePath(kModuleDir);
  std::string error;
  EXPECT_EQ(load("", error).getPTR(), nullptr);
  EXPECT_EQ(error, failure(""));
  SpeechSDKModuleLoader::registerLoadFunction(inline_first, "Empty");
  error = "untouched";
  EXPECT_EQ(load("Empty", error).getPTR(), nullptr);  // passed through as it is
  EXPECT_EQ(error, "untouched");
}

}  // namespace
