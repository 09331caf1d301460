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

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Threads::AppRunloop;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::ASRDispatchTaskWithResPointer;
using orv_test::closure;
using orv_test::Blocker;
using orv_test::Gate;
using orv_test::Tracked;
using orv_test::wait_until;

size_t queued(AppRunloop* loop, unsigned priority) {
  orv::Threads::Synchronization::AppLock lock(loop->_queue_mutex);
  return loop->_queues[priority].size();
}

TEST(AppRunloopTest, PriorityOrderAndFifoWithinPriority) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(2, "orv-loop");
  ASSERT_TRUE(loop);
  EXPECT_EQ(loop->_queue_count, 3);
  EXPECT_FALSE(loop->runTaskAsync(closure([] {}), 3));

  Gate gate;
  std::atomic<bool> gated{false};
  std::vector<std::string> order;  // touched by the loop thread only
  ASSERT_TRUE(loop->runTaskAsync(closure([&] {
    gated = true;
    gate.wait();
  }), 1));
  ASSERT_TRUE(wait_until([&] { return gated.load(); }));
  for (const char* name : {"low1", "low2"})
    loop->runTaskAsync(closure([&order, name] { order.push_back(name); }), 2);
  loop->runTaskAsync(closure([&order] { order.push_back("mid"); }), 1);
  for (const char* name : {"high1", "high2"})
    loop->runTaskAsync(closure([&order, name] { order.push_back(name); }), 0);
  gate.open();
  loop->stopRunloop_sync();
  EXPECT_EQ(order, (std::vector<std::string>{"high1", "high2", "mid", "low1", "low2"}));

  orv_shared_ptr<AppRunloop> single = AppRunloop::alloc(0, "orv-single");
  ASSERT_TRUE(single);
  EXPECT_EQ(single->_queue_count, 1);
  EXPECT_FALSE(single->runTaskAsync(closure([] {}), 1));
  single->stopRunloop_sync();
}

// Several producers, thousands of tasks: each runs exactly once, one at a
// time, and each producer's tasks in the order it queued them.
TEST(AppRunloopTest, ManyProducersExactlyOnceInProducerOrder) {
  const int kProducers = 4;
  const int kPerProducer = 250;
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(0, "orv-busy");
  ASSERT_TRUE(loop);
  std::vector<std::atomic<int>> runs(kProducers * kPerProducer);
  std::vector<int> last_seen(kProducers, -1);
  std::atomic<int> inside{0};
  std::atomic<bool> overlap{false}, out_of_order{false};
  std::atomic<int> done{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) {
        loop->runTaskAsync(closure([&, p, i] {
          if (++inside != 1) overlap = true;
          if (last_seen[p] != i - 1) out_of_order = true;
          last_seen[p] = i;
          ++runs[p * kPerProducer + i];
          --inside;
          ++done;
        }), 0);
      }
    });
  }
  for (auto& t : producers) t.join();
  loop->stopRunloop_sync();
  EXPECT_EQ(done, kProducers * kPerProducer);
  for (auto& r : runs) ASSERT_EQ(r, 1);
  EXPECT_FALSE(overlap);
  EXPECT_FALSE(out_of_order);
}

void add_one(orv_shared_ptr_base* param) {
  orv_shared_ptr<Tracked> tracked(*param);
  ++tracked->value;
}

std::atomic<int> null_calls{0};
void expect_null(orv_shared_ptr_base* param) {
  if (param == nullptr) ++null_calls;
}

TEST(AppRunloopTest, SyncRunsWaitsAndRunsInlineOnItsOwnThread) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(1, "orv-sync");
  ASSERT_TRUE(loop);
  orv_shared_ptr<Tracked> object(new Tracked(0));
  EXPECT_TRUE(loop->runTaskSync(&add_one, &object, 1));
  EXPECT_EQ(object->value, 1);  // ran before runTaskSync returned
  // The task's copy goes with the task, which the loop thread may drop a
  // moment after the caller woke.
  EXPECT_TRUE(wait_until([&] { return orv_test::strong_count(object) == 1; }));

  // From inside a task: the inner work runs at once on the same thread.
  std::vector<std::string> order;
  long outer_tid = 0, inner_tid = 0;
  bool inner_result = false;
  EXPECT_TRUE(loop->runTaskSync(closure([&] {
    outer_tid = orv_test::current_tid();
    inner_result = loop->runTaskSync(closure([&] {
      inner_tid = orv_test::current_tid();
      order.push_back("inner");
    }), 0);
    order.push_back("outer");
  }), 1));
  EXPECT_TRUE(inner_result);
  EXPECT_EQ(inner_tid, outer_tid);
  EXPECT_EQ(order, (std::vector<std::string>{"inner", "outer"}));

  // Null parameter: the function receives null.
  EXPECT_TRUE(loop->runTaskSync(&expect_null, nullptr, 0));
  EXPECT_EQ(null_calls, 1);
  ASSERT_TRUE(loop->runTaskAsync(&expect_null, nullptr, 0));

  loop->stopRunloop_sync();
  EXPECT_EQ(null_calls, 2);
  EXPECT_FALSE(loop->runTaskSync(&add_one, &object, 0));
  EXPECT_FALSE(loop->runTaskAsync(&add_one, &object, 0));
  EXPECT_EQ(object->value, 1);
}

TEST(AppRunloopTest, StopLetsQueuedTasksRunThenTheLoopEnds) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(0, "orv-stop");
  ASSERT_TRUE(loop);
  Gate gate;
  std::atomic<int> ran{0};
  loop->runTaskAsync(closure([&] { gate.wait(); }), 0);
  for (int i = 0; i < 5; ++i) loop->runTaskAsync(closure([&] { ++ran; }), 0);
  loop->stopRunloop();
  EXPECT_FALSE(loop->runTaskAsync(closure([&] { ran += 100; }), 0));
  orv_weak_ptr<AppRunloop> weak(loop);
  loop.releaseManagedPointer();  // the thread keeps the loop alive
  gate.open();
  ASSERT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(weak); }));
  EXPECT_EQ(ran, 5);
}

// cancel(): the running task finishes, queued ones never run, their
// parameters are released once, and synchronous callers get false.
TEST(AppRunloopTest, CancelDropsQueueReleasesParamsAndWaiters) {
  for (bool sync_form : {false, true}) {
    orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(1, "orv-cancel");
    ASSERT_TRUE(loop);
    Blocker blocker;
    loop->runTaskAsync(closure(blocker.body()), 0);
    ASSERT_TRUE(blocker.started());

    int destroyed_before = Tracked::destroyed();
    orv_shared_ptr<Tracked> object(new Tracked(0));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(loop->runTaskAsync(&add_one, &object, i % 2));
    std::atomic<int> sync_results{0}, sync_returned{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
      waiters.emplace_back([&, i] {
        sync_results += loop->runTaskSync(&add_one, &object, i) ? 1 : 0;
        ++sync_returned;
      });
    }
    ASSERT_TRUE(wait_until([&] { return queued(loop.getPTR(), 0) + queued(loop.getPTR(), 1) == 5; }));
    EXPECT_EQ(orv_test::strong_count(object), 6);

    std::thread canceller([&] { sync_form ? loop->cancel_sync() : loop->cancel(); });
    for (auto& w : waiters) w.join();  // released without the running task finishing
    EXPECT_EQ(sync_returned, 2);
    EXPECT_EQ(sync_results, 0);
    EXPECT_FALSE(blocker.finished);
    EXPECT_TRUE(wait_until([&] { return orv_test::strong_count(object) == 1; }));
    EXPECT_FALSE(blocker.finished);
    blocker.gate.open();
    canceller.join();
    if (sync_form) {
      EXPECT_TRUE(blocker.finished);  // cancel_sync joined the thread
    }
    EXPECT_FALSE(loop->runTaskAsync(&add_one, &object, 0));
    EXPECT_EQ(object->value, 0);
    object.releaseManagedPointer();
    EXPECT_EQ(Tracked::destroyed(), destroyed_before + 1);
    if (!sync_form) loop->join();  // detached already: returns at once
    orv_weak_ptr<AppRunloop> weak(loop);
    loop.releaseManagedPointer();
    ASSERT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(weak); }));
  }
}

class Counter {
 public:
  void bump(orv_shared_ptr_base* param) {
    ++calls;
    orv_shared_ptr<Tracked> tracked(*param);
    tracked->value += 10;
  }
  std::atomic<int> calls{0};
};

TEST(AppRunloopTest, ResourceTaskKeepsItsObjectAndReleasesItsParameter) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(0, "orv-res");
  ASSERT_TRUE(loop);
  orv_shared_ptr<Counter> counter(new Counter());
  orv_shared_ptr<Tracked> object(new Tracked(0));
  orv_shared_ptr<ASRDispatchTaskBase> task(
      new ASRDispatchTaskWithResPointer<Counter>(counter, &Counter::bump, object.getRefPtr()));
  EXPECT_TRUE(task->_release_after_execute);
  orv_weak_ptr<Counter> weak_counter(counter);
  counter.releaseManagedPointer();  // the task holds the counter now
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<Counter>(weak_counter)));
  ASSERT_TRUE(loop->runTaskSync(task, 0));
  EXPECT_EQ(object->value, 10);
  EXPECT_EQ(task->_param, nullptr);  // released right after the call
  EXPECT_EQ(task->_completion, nullptr);
  EXPECT_EQ(orv_test::strong_count(object), 1);
  EXPECT_EQ(orv_shared_ptr<Counter>(weak_counter)->calls, 1);
  task.releaseManagedPointer();  // the loop thread may still hold it a moment
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<Counter>(weak_counter); }));
  loop->stopRunloop_sync();
}

}  // namespace
