#include <pthread.h>

#include <atomic>
#include <string>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using orv_test::has;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Threads::AppThread;
using orv_test::Gate;
using orv_test::StderrCapture;
using orv_test::Tracked;
using orv_test::wait_until;

orv_shared_ptr<AppThread> make_thread(AppThread* raw) {
  orv_shared_ptr<AppThread> thread(raw);
  thread->_self_weak = thread;
  return thread;
}

// What a thread saw of itself.
struct Probe {
  Gate start;
  Gate finish;
  std::atomic<long> tid{0};
  std::atomic<bool> is_current{false};
  std::atomic<size_t> stack_size{0};
  std::string identifier;
  std::string expected_identifier;
  AppThread* thread = nullptr;
};

class ProbeThread : public AppThread {
 public:
  ProbeThread(Probe* probe, std::atomic<long>* destroyed_on) : probe_(probe), destroyed_on_(destroyed_on) {}
  ~ProbeThread() override {
    if (destroyed_on_ != nullptr) *destroyed_on_ = orv_test::current_tid();
  }
  void threadMain() override {
    probe_->start.wait();
    probe_->is_current = isCurrentThread();
    probe_->identifier = getCurrentThreadIdentifier();
    probe_->expected_identifier = std::to_string(static_cast<unsigned long>(pthread_self()));
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      size_t size = 0;
      pthread_attr_getstacksize(&attr, &size);
      probe_->stack_size = size;
      pthread_attr_destroy(&attr);
    }
    probe_->tid = orv_test::current_tid();  // last: the test waits on it
    probe_->finish.wait();
  }

 private:
  Probe* probe_;
  std::atomic<long>* destroyed_on_;
};

TEST(AppThreadTest, RunOnceJoinDetachAndName) {
  Probe probe;
  orv_shared_ptr<AppThread> thread = make_thread(new ProbeThread(&probe, nullptr));
  EXPECT_TRUE(thread->detach());  // never started: nothing to do
  EXPECT_FALSE(thread->_detached);
  EXPECT_FALSE(thread->_started);

  ASSERT_TRUE(thread->run("orv-probe"));
  EXPECT_FALSE(thread->run("again"));
  EXPECT_TRUE(thread->_started);
  EXPECT_TRUE(thread->_joinable);
  probe.start.open();
  ASSERT_TRUE(wait_until([&] { return probe.tid != 0; }));
  EXPECT_EQ(orv_test::thread_name(probe.tid), "orv-probe");
  EXPECT_TRUE(probe.is_current);
  EXPECT_FALSE(thread->isCurrentThread());
  EXPECT_EQ(probe.identifier, probe.expected_identifier);
  EXPECT_EQ(orv_test::count_threads_named("again"), 0);
  probe.finish.open();

  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture first;
  thread->join();
  std::string joined = first.text();
  EXPECT_TRUE(has(joined, "[AppThread.cpp:256]pthread_join + id=")) << joined;
  EXPECT_TRUE(has(joined, "[AppThread.cpp:258]pthread_join -\n")) << joined;
  EXPECT_FALSE(thread->_joinable);

  // Joined: neither a second join nor detach touch the stale handle.
  StderrCapture second;
  thread->join();
  EXPECT_TRUE(thread->detach());
  EXPECT_EQ(second.text(), "");
  EXPECT_FALSE(thread->_detached);
  orv::set_log_level(0);
}

TEST(AppThreadTest, JoinAfterDetachReturnsAtOnce) {
  Probe probe;
  orv_shared_ptr<AppThread> thread = make_thread(new ProbeThread(&probe, nullptr));
  ASSERT_TRUE(thread->run(nullptr));
  EXPECT_TRUE(thread->detach());
  EXPECT_TRUE(thread->_detached);
  EXPECT_TRUE(thread->detach());
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture capture;
  thread->join();
  EXPECT_EQ(capture.text(), "");
  orv::set_log_level(0);
  orv_weak_ptr<AppThread> weak(thread);
  thread.releaseManagedPointer();
  probe.start.open();
  probe.finish.open();
  // probe lives in this frame: wait for the thread to be gone.
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<AppThread>(weak); }));
}

// The creator drops its pointer right after run(): the object must survive
// until threadMain returns, and then die on its own thread.
TEST(AppThreadTest, ThreadKeepsItselfAliveAndDiesOnItsThread) {
  Probe probe;
  std::atomic<long> destroyed_on{0};
  orv_weak_ptr<AppThread> weak;
  {
    orv_shared_ptr<AppThread> thread = make_thread(new ProbeThread(&probe, &destroyed_on));
    weak = thread;
    ASSERT_TRUE(thread->run("orv-keepalive"));
  }
  // The thread may not even have started yet: the object is still there.
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<AppThread>(weak)));
  EXPECT_EQ(destroyed_on, 0);
  probe.start.open();
  ASSERT_TRUE(wait_until([&] { return probe.tid != 0; }));
  EXPECT_EQ(destroyed_on, 0);
  probe.finish.open();
  ASSERT_TRUE(wait_until([&] { return destroyed_on != 0; }));
  EXPECT_EQ(destroyed_on, probe.tid);
  EXPECT_FALSE(static_cast<bool>(orv_shared_ptr<AppThread>(weak)));
  // Detached by its destructor: the kernel thread goes away by itself.
  EXPECT_TRUE(wait_until([&] { return !orv_test::thread_alive(probe.tid); }));
}

void entry_reads_param(orv_shared_ptr_base* param) {
  orv_shared_ptr<Tracked> tracked(*param);
  tracked->value += 1;
}

TEST(AppThreadTest, EntryGetsItsParameterWhichIsDeletedAfterwards) {
  orv_shared_ptr<Tracked> object(new Tracked(41));
  orv_shared_ptr<AppThread> thread = make_thread(new AppThread());
  thread->_entry = &entry_reads_param;
  thread->_entry_param = object.getRefPtr();
  EXPECT_EQ(orv_test::strong_count(object), 2);
  ASSERT_TRUE(thread->run("orv-entry"));
  thread->join();
  EXPECT_EQ(object->value, 42);
  EXPECT_EQ(thread->_entry_param, nullptr);
  EXPECT_EQ(orv_test::strong_count(object), 1);

  // A never-run thread deletes its parameter in the destructor.
  orv_shared_ptr<AppThread> idle = make_thread(new AppThread());
  idle->_entry_param = object.getRefPtr();
  EXPECT_EQ(orv_test::strong_count(object), 2);
  idle.releaseManagedPointer();
  EXPECT_EQ(orv_test::strong_count(object), 1);

  AppThread::sleep(0);
}

// A thread started under a process default stack size too small for the
// library gets 1 MiB; a larger default is kept. Both sizes are logged.
TEST(AppThreadTest, SmallDefaultStackIsRaisedToOneMebibyte) {
  struct {
    size_t default_size, got;
    const char* line;
  } cases[] = {
      {512 * 1024, 1048576, "[AppThread.cpp:84]Default thread stack size: 524288\n"},
      {8 * 1024 * 1024, 8 * 1024 * 1024, "[AppThread.cpp:84]Default thread stack size: 8388608\n"},
  };
  for (const auto& c : cases) {
    Probe probe;
    probe.start.open();
    probe.finish.open();
    orv_shared_ptr<AppThread> thread = make_thread(new ProbeThread(&probe, nullptr));
    orv::set_log_level(orv::LOG_TRACE);
    std::string log;
    {
      orv_test::DefaultStackSize stack(c.default_size);
      StderrCapture capture;
      EXPECT_TRUE(thread->run("orv-stack"));
      log = capture.text();
    }
    thread->join();
    EXPECT_EQ(probe.stack_size, c.got);
    EXPECT_TRUE(has(log, c.line)) << log;
    bool raised = c.got != c.default_size;
    EXPECT_EQ(log.find("[WARN]-[") != std::string::npos, raised) << log;
    EXPECT_EQ(log.find("[AppThread.cpp:86]Default thread stack is too small, trying to increase "
                       "size\n") != std::string::npos,
              raised)
        << log;
  }
}

TEST(AppThreadTest, FailedCreationReportsFalseAndAllowsRetry) {
  Probe probe;
  probe.start.open();
  probe.finish.open();
  orv_shared_ptr<AppThread> thread = make_thread(new ProbeThread(&probe, nullptr));
  bool started;
  {
    orv_test::NoNewThreads no_threads;
    started = thread->run("orv-huge");
  }
  ASSERT_FALSE(started);
  EXPECT_FALSE(thread->_started);
  EXPECT_EQ(orv_test::strong_count(thread), 1);  // the self reference was dropped

  ASSERT_TRUE(thread->run("orv-retry"));
  thread->join();
  EXPECT_NE(probe.tid, 0);
}

}  // namespace
