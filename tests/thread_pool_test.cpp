#include <pthread.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using orv_test::has;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Memory::Singleton;
using orv::Threads::AppRunloop;
using orv::Threads::GlobalThreadPool;
using orv::Threads::PoolThreadListNode;
using orv::Threads::ThreadPool;
using orv_test::closure;
using orv_test::Blocker;
using orv_test::Gate;
using orv_test::NoNewThreads;
using orv_test::StderrCapture;
using orv_test::Tracked;
using orv_test::wait_until;

// Reads pool fields under its mutex.
template <class F>
auto locked(ThreadPool* pool, F f) -> decltype(f()) {
  orv::Threads::Synchronization::AppLock lock(pool->_pool_mutex);
  return f();
}

bool all_idle(ThreadPool* pool) {
  return locked(pool, [&] { return pool->_busy_head == nullptr; });
}

int thread_count(ThreadPool* pool) {
  return locked(pool, [&] { return static_cast<int>(pool->_thread_count); });
}

// Runs a task that records the thread it ran on and waits for it.
long tid_of_next_task(ThreadPool* pool) {
  std::atomic<long> tid{0};
  pool->runTaskAsync(closure([&] { tid = orv_test::current_tid(); }), "orv-unused");
  EXPECT_TRUE(wait_until([&] { return tid != 0 && all_idle(pool); }));
  return tid;
}

TEST(ThreadPoolTest, StartsNamedThreadsAndGrowsUnderTheTaskName) {
  int before = orv_test::count_threads_named("GlobalPool");
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  EXPECT_EQ(thread_count(pool.getPTR()), 3);
  EXPECT_EQ(orv_test::count_threads_named("GlobalPool"), before + 3);

  orv_shared_ptr<ThreadPool> empty = ThreadPool::alloc(0);
  EXPECT_EQ(thread_count(empty.getPTR()), 0);
  std::string name;
  std::atomic<bool> done{false};
  ASSERT_TRUE(empty->runTaskAsync(closure([&] {
    name = orv_test::thread_name(orv_test::current_tid());
    done = true;
  }), "orv-first"));
  ASSERT_TRUE(wait_until([&] { return done.load(); }));
  EXPECT_EQ(name, "orv-first");
  EXPECT_EQ(thread_count(empty.getPTR()), 1);

  // Four tasks at once on three idle threads: a fourth thread, named after
  // the task that needed it.
  Gate gate;
  std::atomic<int> running{0};
  std::set<long> tids;
  std::mutex tids_mutex;
  for (int i = 0; i < 4; ++i) {
    pool->runTaskAsync(closure([&] {
      {
        std::lock_guard<std::mutex> lock(tids_mutex);
        tids.insert(orv_test::current_tid());
      }
      ++running;
      gate.wait();
    }), "orv-extra");
  }
  ASSERT_TRUE(wait_until([&] { return running == 4; }));
  EXPECT_EQ(thread_count(pool.getPTR()), 4);
  EXPECT_EQ(tids.size(), 4u);
  int extra = 0;
  for (long tid : tids) extra += orv_test::thread_name(tid) == "orv-extra" ? 1 : 0;
  EXPECT_EQ(extra, 1);
  gate.open();
  pool->stop_sync();
  empty->stop_sync();
}

TEST(ThreadPoolTest, MostRecentlyIdleThreadIsReusedFirst) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  Gate gates[3];
  std::atomic<long> tids[3] = {{0}, {0}, {0}};
  for (int i = 0; i < 3; ++i) {
    pool->runTaskAsync(closure([&, i] {
      tids[i] = orv_test::current_tid();
      gates[i].wait();
    }), nullptr);
  }
  ASSERT_TRUE(wait_until([&] { return tids[0] && tids[1] && tids[2]; }));
  // Let them go idle in the order 2, 0, 1: thread 1 is the most recent.
  for (int i : {2, 0, 1}) {
    PoolThreadListNode* head_before = locked(pool.getPTR(), [&] { return pool->_idle_head; });
    gates[i].open();
    ASSERT_TRUE(wait_until([&] {
      return locked(pool.getPTR(), [&] { return pool->_idle_head != head_before; });
    }));
  }
  ASSERT_TRUE(wait_until([&] { return all_idle(pool.getPTR()); }));
  EXPECT_EQ(tid_of_next_task(pool.getPTR()), tids[1]);
  EXPECT_EQ(tid_of_next_task(pool.getPTR()), tids[1]);
  uint32_t uses = locked(pool.getPTR(), [&] { return pool->_idle_head->_use_count; });
  EXPECT_EQ(uses, 3u);
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_idle_tail->_use_count; }), 1u);
  pool->printThreadUsageStats();
  pool->stop();
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }),
            orv::Threads::POOL_STOPPED);
}

// Grows pool to n threads by running n blocking tasks, then lets them go idle.
void grow_to(ThreadPool* pool, int n) {
  Gate gate;
  std::atomic<int> running{0};
  for (int i = 0; i < n; ++i) {
    pool->runTaskAsync(closure([&] {
      ++running;
      gate.wait();
    }), "orv-grown");
  }
  ASSERT_TRUE(wait_until([&] { return running == n; }));
  gate.open();
  ASSERT_TRUE(wait_until([&] { return all_idle(pool); }));
}

std::vector<PoolThreadListNode*> idle_nodes(ThreadPool* pool) {
  std::vector<PoolThreadListNode*> nodes;
  for (PoolThreadListNode* n = pool->_idle_head; n != nullptr; n = n->_next) nodes.push_back(n);
  return nodes;
}

// The reaping step takes the time as an argument: drive it with chosen
// times instead of waiting 30 seconds.
TEST(ThreadPoolTest, ReapsLongestIdleThreadsDownToTheMinimum) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  grow_to(pool.getPTR(), 5);
  EXPECT_EQ(thread_count(pool.getPTR()), 5);  // idle for less than 30 s: kept

  std::vector<orv_weak_ptr<AppRunloop>> loops;
  pool->_pool_mutex->Lock();
  std::vector<PoolThreadListNode*> nodes = idle_nodes(pool.getPTR());
  ASSERT_EQ(nodes.size(), 5u);
  for (PoolThreadListNode* n : nodes) loops.push_back(orv_weak_ptr<AppRunloop>(n->_runloop));
  // Head (most recent) to tail (longest idle).
  const int64_t t0 = 1000000000;
  int64_t since[5] = {t0 + 40, t0 + 30, t0 + 20, t0 + 10, t0};
  for (int i = 0; i < 5; ++i) nodes[i]->_idle_since = since[i];
  pool->removeUnusedThreads(t0 + 29999999);
  EXPECT_EQ(pool->_thread_count, 5);
  pool->removeUnusedThreads(t0 + 30000000);  // only the tail is over the limit
  EXPECT_EQ(pool->_thread_count, 4);
  EXPECT_EQ(pool->_idle_tail, nodes[3]);
  pool->removeUnusedThreads(t0 + 1000000000);  // all are, but three stay
  EXPECT_EQ(pool->_thread_count, 3);
  EXPECT_EQ(idle_nodes(pool.getPTR()), (std::vector<PoolThreadListNode*>{nodes[0], nodes[1], nodes[2]}));
  pool->_pool_mutex->Unlock();
  // The reaped threads end and their run loops go.
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(loops[3]) && !orv_shared_ptr<AppRunloop>(loops[4]); }));
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<AppRunloop>(loops[2])));
  pool->stop_sync();
}

// The same through the pool's own path: when it falls idle it reaps what has
// been idle for 30 s, keeping the thread that just finished.
TEST(ThreadPoolTest, FallingIdleReapsAgedThreads) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  grow_to(pool.getPTR(), 5);
  pool->_pool_mutex->Lock();
  for (PoolThreadListNode* n : idle_nodes(pool.getPTR())) n->_idle_since -= 31000000;
  pool->_pool_mutex->Unlock();
  long tid = tid_of_next_task(pool.getPTR());
  ASSERT_TRUE(wait_until([&] { return thread_count(pool.getPTR()) == 3; }));
  EXPECT_EQ(locked(pool.getPTR(), [&] { return orv_test::thread_name(tid) != "" &&
                                              pool->_idle_head != nullptr; }), true);
  EXPECT_EQ(tid_of_next_task(pool.getPTR()), tid);
  pool->stop_sync();
}

void count_run(orv_shared_ptr_base* param) {
  orv_shared_ptr<Tracked> tracked(*param);
  ++tracked->value;
}

// A pool that cannot start a thread keeps the task in _pending; the next
// thread that finishes a task serves it, in order.
TEST(ThreadPoolTest, PendingTasksWaitForTheNextFreeThread) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(1);
  Gate gate;
  std::atomic<long> busy_tid{0};
  pool->runTaskAsync(closure([&] {
    busy_tid = orv_test::current_tid();
    gate.wait();
  }), nullptr);
  ASSERT_TRUE(wait_until([&] { return busy_tid != 0; }));
  std::mutex mutex;
  std::vector<int> order;
  std::vector<long> tids;
  auto ran = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return order.size();
  };
  {
    NoNewThreads no_threads;
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(pool->runTaskAsync(closure([&, i] {
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(i);
        tids.push_back(orv_test::current_tid());
      }), "orv-never"));
    }
  }
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pending.size(); }), 3u);
  EXPECT_EQ(thread_count(pool.getPTR()), 1);
  gate.open();
  ASSERT_TRUE(wait_until([&] { return ran() == 3 && all_idle(pool.getPTR()); }));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(tids, (std::vector<long>{busy_tid, busy_tid, busy_tid}));
  pool->stop_sync();
}

TEST(ThreadPoolTest, CancelSyncWaitsForTheRunningTaskAndDropsPending) {
  orv::set_log_level(orv::LOG_DEBUG);
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(1);
  Blocker blocker;
  pool->runTaskAsync(closure(blocker.body()), nullptr);
  ASSERT_TRUE(blocker.started());
  orv_shared_ptr<Tracked> object(new Tracked(0));
  {
    NoNewThreads no_threads;
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(pool->runTaskAsync(&count_run, &object, nullptr));
  }
  EXPECT_EQ(orv_test::strong_count(object), 3);

  std::atomic<bool> cancelled{false};
  std::thread canceller([&] {
    pool->cancel_sync();
    cancelled = true;
  });
  EXPECT_TRUE(wait_until([&] { return orv_test::strong_count(object) == 1; }));  // pending dropped
  EXPECT_FALSE(cancelled);
  StderrCapture capture;
  EXPECT_FALSE(pool->runTaskAsync(&count_run, &object, nullptr));  // stopping
  std::string log = capture.text();
  EXPECT_TRUE(has(log, "[ThreadPool.cpp:87]runTaskAsync con=1\n")) << log;
  blocker.gate.open();
  canceller.join();
  EXPECT_TRUE(blocker.finished);
  EXPECT_EQ(object->value, 0);
  EXPECT_EQ(thread_count(pool.getPTR()), 0);
  StderrCapture after;
  EXPECT_FALSE(pool->runTaskAsync(&count_run, &object, nullptr));
  pool->cancel();
  log = after.text();
  EXPECT_TRUE(has(log, "runTaskAsync con=2\n")) << log;
  EXPECT_TRUE(has(log, "[ThreadPool.cpp:141]ThreadPool::cancel()\n")) << log;
  orv::set_log_level(0);
}

// stop() on a busy pool returns holding the pool mutex (designed behaviour).
TEST(ThreadPoolTest, StopOnABusyPoolLeavesItLocked) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(1);
  static Blocker blocker;  // the task still touches it after this test returns
  pool->runTaskAsync(closure(blocker.body()), nullptr);
  ASSERT_TRUE(blocker.started());
  pool->stop();
  EXPECT_TRUE(orv_test::held_elsewhere(*pool->_pool_mutex));
  EXPECT_EQ(pool->_pool_mutex->_condition, orv::Threads::POOL_RUNNING);
  // The busy thread now blocks for good once its task ends; the pool is
  // left to the process exit.
  blocker.gate.open();
}

TEST(ThreadPoolTest, StopSyncWaitsForBusyThreads) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(2);
  Blocker blocker;
  pool->runTaskAsync(closure(blocker.body()), nullptr);
  ASSERT_TRUE(blocker.started());
  std::thread stopper([&] { pool->stop_sync(); });
  ASSERT_TRUE(wait_until([&] {
    return locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }) ==
           orv::Threads::POOL_STOPPING;
  }));
  EXPECT_FALSE(pool->runTaskAsync(closure([] {}), nullptr));
  blocker.gate.open();
  stopper.join();
  EXPECT_TRUE(blocker.finished);
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }),
            orv::Threads::POOL_STOPPED);
  pool->stop_sync();  // already stopped: returns at once
}

// Thousands of tasks from several threads: each runs exactly once.
TEST(ThreadPoolTest, ManyTasksRunExactlyOnce) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  const int kProducers = 4, kPerProducer = 1000;
  std::vector<std::atomic<int>> runs(kProducers * kPerProducer);
  std::atomic<int> done{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) {
        pool->runTaskAsync(closure([&, p, i] {
          ++runs[p * kPerProducer + i];
          ++done;
        }), nullptr);
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(wait_until([&] { return done == kProducers * kPerProducer && all_idle(pool.getPTR()); }));
  for (auto& r : runs) ASSERT_EQ(r, 1);
  pool->stop_sync();
}

TEST(GlobalThreadPoolTest, ThreeThreadsAndResetToFreshOnes) {
  int before = orv_test::count_threads_named("GlobalPool");
  orv_shared_ptr<GlobalThreadPool> global = Singleton<GlobalThreadPool>::instance();
  ASSERT_TRUE(global);
  EXPECT_EQ(Singleton<GlobalThreadPool>::instance().getPTR(), global.getPTR());
  EXPECT_EQ(orv_test::count_threads_named("GlobalPool"), before + 3);

  orv_shared_ptr<Tracked> object(new Tracked(0));
  ASSERT_TRUE(global->runTaskAsync(&count_run, &object, "orv-global"));
  ASSERT_TRUE(wait_until([&] { return object->value == 1; }));
  std::atomic<long> old_tid{0};
  ASSERT_TRUE(global->runTaskAsync(closure([&] { old_tid = orv_test::current_tid(); }), nullptr));
  ASSERT_TRUE(wait_until([&] { return old_tid != 0; }));
  ThreadPool* old_pool = global->_pool.getPTR();

  global->reset();
  EXPECT_NE(global->_pool.getPTR(), old_pool);
  EXPECT_EQ(thread_count(global->_pool.getPTR()), 3);
  EXPECT_EQ(locked(global->_pool.getPTR(), [&] { return global->_pool->_pool_mutex->_condition; }),
            orv::Threads::POOL_RUNNING);
  EXPECT_TRUE(wait_until([&] { return !orv_test::thread_alive(old_tid); }));
  EXPECT_TRUE(wait_until([&] { return orv_test::count_threads_named("GlobalPool") == before + 3; }));
  std::atomic<long> new_tid{0};
  ASSERT_TRUE(global->runTaskAsync(closure([&] { new_tid = orv_test::current_tid(); }), nullptr));
  ASSERT_TRUE(wait_until([&] { return new_tid != 0; }));
  EXPECT_NE(new_tid, old_tid);
  global->printThreadUsageStats();
}

}  // namespace
