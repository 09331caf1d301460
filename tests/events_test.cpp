// Contexts, event managers and messages, and the module loader with real
// module libraries (the Echo sample and two broken ones the build makes). The
// demo and pipeline tests run the happy paths end to end.
#include <dlfcn.h>

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

// Records "manager:message" in delivery order; "block" holds its delivery.
struct Journal : std::mutex {
  std::vector<std::string> seen;
  Blocker gate;
  std::atomic<int> inside{0}, most{0};
};

struct Recorder : EventManager {
  Recorder(orv_weak_ptr<Context> context, std::string name, Journal* j) : EventManager(context), name_(name), j_(j) {}
  void send(orv_shared_ptr<Message>& message) override {
    int now = ++j_->inside;
    for (int seen = j_->most; now > seen && !j_->most.compare_exchange_weak(seen, now);) {
    }
    if (message->m_name == "block") j_->gate.body()();
    std::lock_guard<std::mutex> lock(*j_);
    j_->seen.push_back(name_ + ":" + message->m_name);
    --j_->inside;
  }
  std::string name_;
  Journal* j_;
};

orv_shared_ptr<EventManager> manager(orv_shared_ptr<Context>& context, const std::string& name, Journal* j) {
  orv_shared_ptr<EventManager> m(new Recorder(orv_weak_ptr<Context>(context), name, j));
  m->m_self = m;
  return m;
}

// Posts a message; true when something still holds it (a queued delivery).
bool post(orv_shared_ptr<EventManager>& from, orv_weak_ptr<EventManager> to, const std::string& name, int priority = 0) {
  orv_shared_ptr<Message> m(new Message());
  m->m_name = name;
  from->post(to, m, static_cast<unsigned char>(priority));
  return strong_count(m) > 1 || name == "block";
}

// Posts from four threads to three managers of one context: one delivery at
// a time, each poster's in its order, priorities ignored.
TEST(Context, DeliveriesAreSerialAndInPostingOrder) {
  Journal j;
  orv_shared_ptr<Context> context = Context::newContext();
  std::vector<orv_shared_ptr<EventManager>> m;
  for (int i = 0; i < 3; ++i) m.push_back(manager(context, std::to_string(i), &j));
  run_threads(4, [&](int p) {
    for (int i = 0; i < 300; ++i) post(m[p % 3], m[i % 3], std::to_string(p) + "." + std::to_string(i), i % 7);
  });
  ASSERT_TRUE(wait_until([&] { std::lock_guard<std::mutex> lock(j); return j.seen.size() == 1200; }));
  EXPECT_EQ(j.most, 1);
  EXPECT_EQ(context->m_postedCount.load(), 1200);
  std::vector<int> next(4, 0);
  for (const std::string& d : j.seen) {
    int poster = d[2] - '0', index = std::stoi(d.substr(4));
    EXPECT_EQ(index, next[poster]++) << d;
    EXPECT_EQ(d[0] - '0', index % 3) << d;
  }
}

// While the context's queue is held: an own-queue manager is served beside
// it; a receiver dropped meanwhile gets nothing; queued deliveries keep the
// context alive; posting to what is gone keeps nothing; a released context
// waits for its running delivery and takes nothing more.
TEST(Context, OwnQueuesDroppedReceiversLifetimesAndRelease) {
  Journal j;
  orv_shared_ptr<Context> context = Context::newContext(), other = Context::newContext();
  orv_weak_ptr<Context> watch(context);
  Journal j2;
  orv_shared_ptr<EventManager> b = manager(context, "b", &j), own = manager(context, "own", &j),
                               doomed = manager(context, "doomed", &j), o = manager(other, "o", &j2);
  own->m_useOwnQueue = 1;
  orv_weak_ptr<EventManager> doomed_ref(doomed);
  post(b, b, "block");
  ASSERT_TRUE(j.gate.started());
  post(b, own, "direct");
  EXPECT_TRUE(post(b, doomed, "too late") && post(b, b, "last"));
  EXPECT_TRUE(wait_until([&] { std::lock_guard<std::mutex> lock(j); return j.seen.size() == 1; }));
  doomed.releaseManagedPointer();  // the queued delivery holds it only weakly
  EXPECT_FALSE(post(b, doomed_ref, "nobody"));
  context.releaseManagedPointer();
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<Context>(watch)));
  j.gate.gate.open();
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<Context>(watch); }));
  EXPECT_EQ(j.seen, (std::vector<std::string>{"own:direct", "b:block", "b:last"}));
  EXPECT_FALSE(post(b, b, "lost"));  // its context gone

  Blocker* gate = &j2.gate;
  post(o, o, "block");
  ASSERT_TRUE(gate->started());
  set_log_level(LOG_DEBUG);
  StderrCapture capture;
  std::atomic<bool> released{false};
  std::thread releaser([&] { other->release_instance(), released = true; });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(released);
  gate->gate.open();
  releaser.join();
  EXPECT_TRUE(has(capture.text(), "[orv_Context.cpp:91][Context::release_instance] cancel ctxQueue\n"));
  set_log_level(0);
  EXPECT_FALSE(post(o, o, "late"));
}

std::string failure(const std::string& name) { return "Module loader not registered for module " + name + " make sure you have linked required libraries!"; }
bool is_loaded(const std::string& name) {
  void* handle = dlopen((ORV_TEST_MODULE_DIR "libVeltoSpeech" + name + ".so").c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}
std::string load(const std::string& name) {
  std::string error = "untouched";
  bool made = static_cast<bool>(SpeechSDKModuleLoader::loadModule(name, orv_weak_ptr<Context>(), orv_weak_ptr<EventManager>(), error));
  return (made ? "made " : "none ") + error;
}
int loads = 0;
orv_shared_ptr<EventManager> made(orv_weak_ptr<Context> c, orv_weak_ptr<EventManager>) {
  ++loads;
  return orv_shared_ptr<EventManager>(new Recorder(c, "x", nullptr));
}
orv_shared_ptr<EventManager> empty(orv_weak_ptr<Context>, orv_weak_ptr<EventManager>) { return orv_shared_ptr<EventManager>(); }

// A registered load function is used without opening a library (the last one
// registered wins, an empty result is passed on); a missing library, one
// without its prepare function (closed again) and one whose prepare function
// registers another name (kept open, loaded afresh next time) fail with the
// loader's text.
TEST(ModuleLoader, RegisteredFunctionsAndBrokenLibraries) {
  set_log_level(LOG_DEBUG);
  StderrCapture capture;
  SpeechSDKModuleLoader::registerLoadFunction(empty, "Inline");
  SpeechSDKModuleLoader::registerLoadFunction(made, "Inline");
  SpeechSDKModuleLoader::registerLoadFunction(empty, "Empty");
  SpeechSDKModuleLoader::setDynLibBasePath("/a/b");  // plain concatenation
  EXPECT_EQ(load("Inline") + "|" + load("Empty") + "|" + load("X"), "made untouched|none untouched|none " + failure("X"));
  EXPECT_EQ(loads, 1);
  SpeechSDKModuleLoader::setDynLibBasePath(ORV_TEST_MODULE_DIR);
  for (const char* name : {"TestNoPrepare", "TestMisnamed", "TestMisnamed"}) EXPECT_EQ(load(name), "none " + failure(name));
  EXPECT_EQ(SpeechSDKModuleLoader::m_registeredLoaders.count("SomeOtherName"), 1u);
  EXPECT_TRUE(!is_loaded("TestNoPrepare") && is_loaded("TestMisnamed"));
  void* handle = dlopen(ORV_TEST_MODULE_DIR "libVeltoSpeechTestMisnamed.so", RTLD_LAZY | RTLD_NOLOAD);
  EXPECT_EQ(reinterpret_cast<int (*)()>(dlsym(handle, "orv_test_prepare_count"))(), 1);
  dlclose(handle);
  std::string log = capture.text();
  set_log_level(0);
  for (const char* line : {"[orv_Dynamic_Module_Loader.cpp:83]REGISTERING LOADER FOR MODULE Inline\n",
                           "[orv_Dynamic_Module_Loader.cpp:32][MODULE_LOAD] libName: /a/blibVeltoSpeechX.so, prepare function: VeltoSpeechX_INIT\n",
                           "[orv_Dynamic_Module_Loader.cpp:53][MODULE_LOAD] no lib handle\n",
                           "[orv_Dynamic_Module_Loader.cpp:47][MODULE_LOAD] no prepare function\n"}) {
    EXPECT_TRUE(has(log, line)) << line << log;
  }
  EXPECT_FALSE(has(log, "try load: Inline"));
}

}  // namespace
