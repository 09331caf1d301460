// Contexts, event managers and messages, and the module loader with real
// module libraries (the Echo sample and two broken ones the build makes).
#include <dlfcn.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv;
using namespace orv::Memory;
using namespace orv_test;

// What the managers see, in delivery order; "block" holds its delivery at
// the gate.
struct Journal {
  std::mutex mutex;
  std::vector<std::string> seen;
  std::atomic<int> inside{0}, most{0}, dead_received{0};
  orv_test::Blocker gate;
  size_t size() {
    std::lock_guard<std::mutex> lock(mutex);
    return seen.size();
  }
};

class Recorder : public EventManager {
 public:
  Recorder(orv_weak_ptr<Context> context, std::string name, Journal* journal)
      : EventManager(context), name_(std::move(name)), journal_(journal) {}
  ~Recorder() override { alive_ = false; }
  void send(orv_shared_ptr<Message>& message) override {
    if (!alive_) ++journal_->dead_received;
    int now = ++journal_->inside;
    for (int seen = journal_->most; now > seen && !journal_->most.compare_exchange_weak(seen, now);) {
    }
    if (message->m_name == "block") journal_->gate.body()();
    {
      std::lock_guard<std::mutex> lock(journal_->mutex);
      journal_->seen.push_back(name_ + ":" + message->m_name);
    }
    --journal_->inside;
  }

 private:
  std::string name_;
  Journal* journal_;
  std::atomic<bool> alive_{true};
};

orv_shared_ptr<EventManager> manager(orv_shared_ptr<Context>& context, const std::string& name, Journal* j) {
  orv_shared_ptr<EventManager> m(new Recorder(orv_weak_ptr<Context>(context), name, j));
  m->m_self = m;
  return m;
}

orv_shared_ptr<Message> post(orv_shared_ptr<EventManager>& from, orv_weak_ptr<EventManager> to,
                             const std::string& name, unsigned char priority = 0) {
  orv_shared_ptr<Message> m(new Message());
  m->m_name = name;
  from->post(to, m, priority);
  return m;
}

// Posts from several threads to several managers of one context: one
// delivery at a time, each poster's in its order, priorities ignored.
TEST(Context, DeliveriesAreSerialAndInPostingOrder) {
  Journal journal;
  orv_shared_ptr<Context> context = Context::newContext();
  std::vector<orv_shared_ptr<EventManager>> managers;
  for (int i = 0; i < 3; ++i) managers.push_back(manager(context, "m" + std::to_string(i), &journal));
  std::vector<std::thread> posters;
  for (int p = 0; p < 4; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < 300; ++i) {
        post(managers[p % 3], managers[i % 3], std::to_string(p) + "." + std::to_string(i),
             static_cast<unsigned char>(i % 7));
      }
    });
  }
  for (auto& t : posters) t.join();
  ASSERT_TRUE(wait_until([&] { return journal.size() == 1200; }));
  EXPECT_EQ(journal.most, 1);
  EXPECT_EQ(context->m_postedCount.load(), 1200);
  std::vector<int> next(4, 0);
  for (const std::string& d : journal.seen) {
    int poster = d[3] - '0', index = std::stoi(d.substr(5));
    EXPECT_EQ(index, next[poster]++) << d;
    EXPECT_EQ(d[1] - '0', index % 3) << d;
  }
}

// While the context's queue is held: an own-queue manager is served beside
// it, a receiver dropped meanwhile gets nothing, queued deliveries keep the
// context alive, and posting to a receiver already gone keeps nothing.
TEST(Context, OwnQueuesDroppedReceiversAndLifetimes) {
  Journal journal;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_weak_ptr<Context> watch(context);
  orv_shared_ptr<EventManager> blocker = manager(context, "b", &journal);
  orv_shared_ptr<EventManager> own = manager(context, "own", &journal);
  own->m_useOwnQueue = 1;
  orv_shared_ptr<EventManager> doomed = manager(context, "doomed", &journal);
  orv_weak_ptr<EventManager> doomed_ref(doomed);
  post(blocker, blocker, "block");
  ASSERT_TRUE(journal.gate.started());
  post(blocker, own, "direct");
  EXPECT_TRUE(wait_until([&] { return journal.size() == 1; }));
  post(blocker, doomed, "too late");
  doomed.releaseManagedPointer();  // the queued delivery holds it only weakly
  post(blocker, blocker, "last");
  EXPECT_EQ(post(blocker, doomed_ref, "nobody")._control->_strong_count, 1u);
  context.releaseManagedPointer();
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<Context>(watch)));
  journal.gate.gate.open();
  ASSERT_TRUE(wait_until([&] { return journal.size() == 3; }));
  EXPECT_EQ(journal.seen, (std::vector<std::string>{"own:direct", "b:block", "b:last"}));
  EXPECT_EQ(journal.dead_received, 0);
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<Context>(watch); }));
  // Its context gone, a manager drops what it posts through it.
  EXPECT_EQ(post(blocker, blocker, "lost")._control->_strong_count, 1u);

  // An own-queue manager without a self reference cannot be kept alive: dropped.
  orv_shared_ptr<Context> other = Context::newContext();
  orv_shared_ptr<EventManager> sender = manager(other, "s", &journal);
  orv_shared_ptr<EventManager> selfless(new Recorder(orv_weak_ptr<Context>(other), "selfless", &journal));
  selfless->m_useOwnQueue = 1;
  EXPECT_EQ(post(sender, selfless, "x")._control->_strong_count, 1u);
}

TEST(Context, AReleasedContextWaitsForTheRunningDeliveryAndTakesNoMore) {
  Journal journal;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> a = manager(context, "a", &journal);
  post(a, a, "block");
  ASSERT_TRUE(journal.gate.started());
  post(a, a, "pending");
  orv::set_log_level(orv::LOG_DEBUG);
  orv_test::StderrCapture capture;
  std::atomic<bool> released{false};
  std::thread releaser([&] { context->release_instance(), released = true; });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(released);
  journal.gate.gate.open();
  releaser.join();
  std::string log = capture.text();
  orv::set_log_level(0);
  EXPECT_TRUE(has(log, "[orv_Context.cpp:91][Context::release_instance] cancel ctxQueue\n")) << log;
  EXPECT_EQ(post(a, a, "late")._control->_strong_count, 1u);  // refused: no task holds it
  EXPECT_EQ(journal.seen, (std::vector<std::string>{"a:block"}));
}

const std::string kModules = ORV_TEST_MODULE_DIR;

std::string failure(const std::string& name) {
  return "Module loader not registered for module " + name + " make sure you have linked required libraries!";
}
bool is_loaded(const std::string& file) {
  void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

class Listener : public EventManager {
 public:
  explicit Listener(orv_weak_ptr<Context> context) : EventManager(context) {}
  void send(orv_shared_ptr<Message>& message) override {
    if (message->m_name != orv::ORV_CALLBACK_EVENT_MANAGER_VERSION) return;
    std::lock_guard<std::mutex> lock(mutex);
    version = message->m_params->at(orv::ORV_PARAM_KEY_EVENT_MANAGER_VERSION_STRING).valueString();
  }
  std::string got() {
    std::lock_guard<std::mutex> lock(mutex);
    return version;
  }
  std::mutex mutex;
  std::string version;
};

orv_shared_ptr<EventManager> load(const std::string& name, std::string& error,
                                  orv_shared_ptr<Context> context = orv_shared_ptr<Context>(),
                                  orv_shared_ptr<EventManager> listener = orv_shared_ptr<EventManager>()) {
  return SpeechSDKModuleLoader::loadModule(name, orv_weak_ptr<Context>(context),
                                           orv_weak_ptr<EventManager>(listener), error);
}

int inline_loads = 0;
orv_shared_ptr<EventManager> inline_module(orv_weak_ptr<Context> context, orv_weak_ptr<EventManager>) {
  ++inline_loads;
  return orv_shared_ptr<EventManager>(new Listener(context));
}
orv_shared_ptr<EventManager> empty_module(orv_weak_ptr<Context>, orv_weak_ptr<EventManager>) {
  return orv_shared_ptr<EventManager>();
}

TEST(ModuleLoader, RegisteredLoadFunctionsAndMissingLibraries) {
  orv::set_log_level(orv::LOG_DEBUG);
  SpeechSDKModuleLoader::setDynLibBasePath("/a/b");  // no trailing slash: plain concatenation
  orv_test::StderrCapture capture;
  SpeechSDKModuleLoader::registerLoadFunction(empty_module, "Inline");
  SpeechSDKModuleLoader::registerLoadFunction(inline_module, "Inline");  // the second one wins
  SpeechSDKModuleLoader::registerLoadFunction(empty_module, "Empty");
  std::string error = "untouched";
  EXPECT_TRUE(static_cast<bool>(load("Inline", error)));
  EXPECT_FALSE(load("Empty", error));  // an empty result is passed through
  EXPECT_EQ(error, "untouched");
  EXPECT_EQ(inline_loads, 1);
  EXPECT_FALSE(load("X", error));
  EXPECT_EQ(error, failure("X"));
  EXPECT_FALSE(load("", error));
  EXPECT_EQ(error, failure(""));
  std::string log = capture.text();
  orv::set_log_level(0);
  for (const char* line : {"[orv_Dynamic_Module_Loader.cpp:83]REGISTERING LOADER FOR MODULE Inline\n",
                           "[orv_Dynamic_Module_Loader.cpp:66][MODULE_LOAD] try to get module Inline\n",
                           "[orv_Dynamic_Module_Loader.cpp:20][MODULE_LOAD] try load: X\n",
                           "[orv_Dynamic_Module_Loader.cpp:32][MODULE_LOAD] libName: /a/blibVeltoSpeechX.so, "
                           "prepare function: VeltoSpeechX_INIT\n",
                           "[orv_Dynamic_Module_Loader.cpp:53][MODULE_LOAD] no lib handle\n"}) {
    EXPECT_TRUE(has(log, line)) << line << log;
  }
  EXPECT_FALSE(has(log, "try load: Inline")) << log;
}

TEST(ModuleLoader, LoadsAModuleLibraryThatAnswersAndRefusesBrokenOnes) {
  SpeechSDKModuleLoader::setDynLibBasePath(kModules);
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> listener(new Listener(orv_weak_ptr<Context>(context)));
  listener->m_self = listener;
  orv::set_log_level(orv::LOG_DEBUG);
  orv_test::StderrCapture capture;
  std::string error;
  orv_shared_ptr<EventManager> echo = load("Echo", error, context, listener);
  ASSERT_TRUE(static_cast<bool>(echo)) << error;
  EXPECT_TRUE(is_loaded(kModules + "libVeltoSpeechEcho.so"));
  EXPECT_FALSE(load("TestNoPrepare", error));
  EXPECT_EQ(error, failure("TestNoPrepare"));
  EXPECT_FALSE(is_loaded(kModules + "libVeltoSpeechTestNoPrepare.so"));  // closed again
  std::string log = capture.text();
  orv::set_log_level(0);
  for (const char* line : {"[orv_Dynamic_Module_Loader.cpp:38][MODULE_LOAD] got lib handle\n",
                           "[orv_Dynamic_Module_Loader.cpp:41][MODULE_LOAD] got prepare function\n",
                           "[orv_Dynamic_Module_Loader.cpp:47][MODULE_LOAD] no prepare function\n"}) {
    EXPECT_TRUE(has(log, line)) << line << log;
  }
  post(listener, echo, orv::ORV_COMMAND_GET_EVENT_MANAGER_VERSION);
  Listener* l = static_cast<Listener*>(listener.getPTR());
  EXPECT_TRUE(wait_until([&] { return l->got() == "echo 1.0.0"; })) << l->got();
  echo->release_instance();
  context->release_instance();

  // A prepare function registering another name fails; loading the name
  // again closes the earlier handle first, so the library starts afresh.
  const std::string misnamed = kModules + "libVeltoSpeechTestMisnamed.so";
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(load("TestMisnamed", error));
    EXPECT_EQ(error, failure("TestMisnamed"));
    EXPECT_TRUE(is_loaded(misnamed));  // kept open although the lookup failed
  }
  EXPECT_EQ(SpeechSDKModuleLoader::m_registeredLoaders.count("SomeOtherName"), 1u);
  void* handle = dlopen(misnamed.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  auto prepared = reinterpret_cast<int (*)()>(dlsym(handle, "orv_test_prepare_count"));
  EXPECT_EQ(prepared(), 1);
  dlclose(handle);
}

}  // namespace
