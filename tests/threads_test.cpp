// Locks, threads, run loops, the pool, dispatch queues and the two timers.
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <functional>
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

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Memory::Singleton;
using orv::Threads::AppRunloop;
using orv::Threads::AppThread;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::DispatchQueue;
using orv::Threads::GlobalThreadPool;
using orv::Threads::PoolThreadListNode;
using orv::Threads::RefreshTimer;
using orv::Threads::ThreadPool;
using orv::Threads::Timer;
using orv::Threads::Synchronization::AppConditionMutex;
using orv::Threads::Synchronization::AppLock;
using orv::Threads::Synchronization::AppMutex;
using orv::Threads::Synchronization::AppSemaphore;
using orv_test::Blocker;
using orv_test::closure;
using orv_test::Gate;
using orv_test::has;
using orv_test::held_elsewhere;
using orv_test::raw_closure;
using orv_test::StderrCapture;
using orv_test::strong_count;
using orv_test::Tracked;
using orv_test::wait_until;
using std::chrono::milliseconds;

// A blocked thread has no event to await: give it a moment, then look.
void give_a_chance() { std::this_thread::sleep_for(milliseconds(50)); }

TEST(Locks, MutexesLockGuardsAndConditionWords) {
  AppMutex normal(false), recursive(true);
  EXPECT_EQ(normal.Lock(), 0);
  EXPECT_FALSE(normal.tryLock());
  EXPECT_EQ(normal.Unlock(), 0);
  recursive.Lock();
  EXPECT_TRUE(recursive.tryLock());
  recursive.Unlock();
  EXPECT_TRUE(held_elsewhere(recursive));
  recursive.Unlock();
  EXPECT_FALSE(held_elsewhere(recursive));
  {
    AppLock lock(&normal);
    EXPECT_TRUE(held_elsewhere(normal));
  }
  EXPECT_FALSE(held_elsewhere(normal));
  {
    AppLock lock(&normal);
    lock.ReleaseMutex();  // the mutex stays locked, the guard lets go of it
  }
  EXPECT_TRUE(held_elsewhere(normal));
  normal.Unlock();
  { AppLock nothing(nullptr); }

  AppConditionMutex c(0b100);
  const struct { std::function<void()> unlock; int want; } steps[] = {
      {[&] { c.unlockSettingFlags(0b011); }, 0b111},  {[&] { c.unlockClearingFlags(0b001); }, 0b110},
      {[&] { c.unlockWithFlags(0b001, 0b100); }, 0b011}, {[&] { c.unlockWithFlags(0b1000, 0b1000); }, 0b011},
      {[&] { c.unlockWithCondition(-5); }, -5},       {[&] { c.Unlock(); }, -5}};
  for (const auto& step : steps) {
    c.Lock();
    step.unlock();
    EXPECT_EQ(c._condition, step.want);
    EXPECT_FALSE(held_elsewhere(c));
  }
  c.lockWhenFlags(0);  // no bits asked: at once, locked
  EXPECT_TRUE(held_elsewhere(c));
  c.Unlock();
}

// lockWhenFlags waits for all its bits, lockWhenNotFlags until none is set,
// lockWhenCondition for the value; a partial change leaves waiters blocked,
// and every unlock wakes all of them.
TEST(Locks, ConditionWaitsNeedTheWholeCondition) {
  const struct { int start; std::function<void(AppConditionMutex&)> wait, partial, full; } cases[] = {
      {0b100, [](AppConditionMutex& c) { c.lockWhenFlags(0b101); },
       [](AppConditionMutex& c) { c.unlockSettingFlags(0b010); },
       [](AppConditionMutex& c) { c.unlockSettingFlags(0b001); }},
      {0b101, [](AppConditionMutex& c) { c.lockWhenNotFlags(0b101); },
       [](AppConditionMutex& c) { c.unlockClearingFlags(0b001); },
       [](AppConditionMutex& c) { c.unlockClearingFlags(0b100); }},
      {0, [](AppConditionMutex& c) { c.lockWhenCondition(7); },
       [](AppConditionMutex& c) { c.unlockWithCondition(6); },
       [](AppConditionMutex& c) { c.unlockWithCondition(7); }},
  };
  for (const auto& k : cases) {
    AppConditionMutex c(k.start);
    std::atomic<int> through{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
      waiters.emplace_back([&] {
        k.wait(c);
        ++through;
        c.Unlock();
      });
    }
    c.Lock();
    k.partial(c);
    give_a_chance();
    EXPECT_EQ(through, 0) << k.start;
    c.Lock();
    k.full(c);
    EXPECT_TRUE(wait_until([&] { return through == 3; })) << k.start;
    for (auto& w : waiters) w.join();
  }
}

TEST(Locks, SemaphoreCountsBlocksAndPassesSignalsOn) {
  AppSemaphore s(0);
  EXPECT_EQ(s.post(), 1);  // no waiter: only the count rises
  EXPECT_EQ(s.wait(), 0);
  s.setValue(-2);
  EXPECT_EQ(s.wait(), -3);  // only 0 blocks, on purpose
  EXPECT_EQ(s.getValue(), -3);
  s.setValue(0);
  std::atomic<int> through{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { s.wait(), ++through; });
  give_a_chance();
  EXPECT_EQ(through, 0);
  s.post();
  EXPECT_TRUE(wait_until([&] { return through == 1; }));
  give_a_chance();
  EXPECT_EQ(through, 1);
  s.setValue(2);  // one signal, passed on while the count stays above 0
  EXPECT_TRUE(wait_until([&] { return through == 3; }));
  for (auto& w : waiters) w.join();
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] { for (int n = 0; n < 3000; ++n) s.post(); });
    threads.emplace_back([&] { for (int n = 0; n < 3000; ++n) s.wait(); });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(s.getValue(), 0);
}

struct Probe {
  Gate start, finish;
  std::atomic<long> tid{0}, destroyed_on{0};
  std::atomic<bool> is_current{false};
  std::atomic<size_t> stack{0};
  std::string identifier;
};

class ProbeThread : public AppThread {
 public:
  explicit ProbeThread(Probe* probe) : probe_(probe) {}
  ~ProbeThread() override { probe_->destroyed_on = orv_test::current_tid(); }
  void threadMain() override {
    probe_->start.wait();
    probe_->is_current = isCurrentThread();
    probe_->identifier = getCurrentThreadIdentifier() + "=" + std::to_string(pthread_self());
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    probe_->stack = size;
    probe_->tid = orv_test::current_tid();
    probe_->finish.wait();
  }

 private:
  Probe* probe_;
};

orv_shared_ptr<AppThread> probe_thread(Probe* probe) {
  orv_shared_ptr<AppThread> thread(new ProbeThread(probe));
  thread->_self_weak = thread;
  return thread;
}

TEST(Threads, RunOnceNameJoinAndDetach) {
  Probe probe;
  orv_shared_ptr<AppThread> thread = probe_thread(&probe);
  EXPECT_TRUE(thread->detach());  // never started: nothing to do
  EXPECT_FALSE(thread->_detached);
  ASSERT_TRUE(thread->run("orv-probe"));
  EXPECT_FALSE(thread->run("again"));
  probe.start.open();
  ASSERT_TRUE(wait_until([&] { return probe.tid != 0; }));
  EXPECT_EQ(orv_test::thread_name(probe.tid), "orv-probe");
  EXPECT_TRUE(probe.is_current);
  EXPECT_FALSE(thread->isCurrentThread());
  EXPECT_EQ(probe.identifier.substr(0, probe.identifier.find('=')), probe.identifier.substr(probe.identifier.find('=') + 1));
  probe.finish.open();
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture first;
  thread->join();
  std::string log = first.text();
  EXPECT_TRUE(has(log, "[AppThread.cpp:256]pthread_join + id=") && has(log, "[AppThread.cpp:258]pthread_join -\n")) << log;
  StderrCapture second;  // joined: neither join nor detach touch the stale handle
  thread->join();
  EXPECT_TRUE(thread->detach());
  EXPECT_EQ(second.text(), "");
  EXPECT_FALSE(thread->_detached);

  Probe other;
  orv_shared_ptr<AppThread> detached = probe_thread(&other);
  ASSERT_TRUE(detached->run(nullptr));
  EXPECT_TRUE(detached->detach() && detached->_detached);
  StderrCapture third;
  detached->join();  // detached: returns at once
  EXPECT_EQ(third.text(), "");
  orv::set_log_level(0);
  other.start.open();
  other.finish.open();
  detached.releaseManagedPointer();
  EXPECT_TRUE(wait_until([&] { return other.destroyed_on != 0; }));  // other lives in this frame
}

// The creator drops its pointer right after run(): the thread keeps its
// object until threadMain returns, which then dies on that thread.
TEST(Threads, ThreadKeepsItselfAliveAndDiesOnItsThread) {
  Probe probe;
  orv_weak_ptr<AppThread> weak;
  {
    orv_shared_ptr<AppThread> thread = probe_thread(&probe);
    weak = thread;
    ASSERT_TRUE(thread->run("orv-keepalive"));
  }
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<AppThread>(weak)));
  probe.start.open();
  probe.finish.open();
  ASSERT_TRUE(wait_until([&] { return probe.destroyed_on != 0; }));
  EXPECT_EQ(probe.destroyed_on, probe.tid);
  EXPECT_TRUE(wait_until([&] { return !orv_test::thread_alive(probe.tid); }));  // detached
}

void add_one(orv_shared_ptr_base* param) {
  if (param != nullptr) ++orv_shared_ptr<Tracked>(*param)->value;
}

TEST(Threads, EntryParameterStackSizeAndFailedStart) {
  orv_shared_ptr<Tracked> object(new Tracked(41));
  orv_shared_ptr<AppThread> thread(new AppThread());
  thread->_self_weak = thread;
  thread->_entry = &add_one;
  thread->_entry_param = object.getRefPtr();
  ASSERT_TRUE(thread->run("orv-entry"));
  thread->join();
  EXPECT_EQ(object->value, 42);
  EXPECT_EQ(thread->_entry_param, nullptr);
  EXPECT_EQ(strong_count(object), 1);
  orv_shared_ptr<AppThread> idle(new AppThread());
  idle->_entry_param = object.getRefPtr();
  idle.releaseManagedPointer();  // a thread never run deletes it too
  EXPECT_EQ(strong_count(object), 1);

  // A default stack too small for the library is raised to 1 MiB; both
  // sizes are logged.
  for (size_t size : {size_t{512 * 1024}, size_t{8 * 1024 * 1024}}) {
    Probe probe;
    probe.start.open();
    probe.finish.open();
    orv_shared_ptr<AppThread> t = probe_thread(&probe);
    orv::set_log_level(orv::LOG_TRACE);
    std::string log;
    {
      orv_test::DefaultStackSize stack(size);
      StderrCapture capture;
      EXPECT_TRUE(t->run("orv-stack"));
      log = capture.text();
    }
    orv::set_log_level(0);
    t->join();
    bool small = size < 1048576;
    EXPECT_EQ(probe.stack, small ? 1048576 : size);
    EXPECT_TRUE(has(log, "[AppThread.cpp:84]Default thread stack size: " + std::to_string(size) + "\n")) << log;
    EXPECT_EQ(has(log, "[AppThread.cpp:86]Default thread stack is too small, trying to increase size\n"), small) << log;
  }

  Probe probe;
  probe.start.open();
  probe.finish.open();
  orv_shared_ptr<AppThread> t = probe_thread(&probe);
  {
    orv_test::NoNewThreads no_threads;
    EXPECT_FALSE(t->run("orv-huge"));
  }
  EXPECT_EQ(strong_count(t), 1);  // the self reference was dropped
  ASSERT_TRUE(t->run("orv-retry"));
  t->join();
  EXPECT_NE(probe.tid, 0);
}

// The executors, seen through one face: submit a closure or a function with
// a counted parameter, stop or cancel.
struct Executor {
  const char* name;
  std::function<bool(std::function<void()>)> submit;
  std::function<bool(orv_shared_ptr<Tracked>&)> submit_param;
  std::function<void(bool)> cancel;  // true: the waiting form
  int bound;                         // tasks at once, at most
};

std::vector<Executor> executors() {
  auto loop = AppRunloop::alloc(1, "orv-loop");
  auto queue = DispatchQueue::alloc(1), wide = DispatchQueue::alloc(3);
  auto pool = ThreadPool::alloc(3);
  return {
      {"runloop", [loop](std::function<void()> f) { return loop->runTaskAsync(closure(f), 1); },
       [loop](orv_shared_ptr<Tracked>& p) { return loop->runTaskAsync(&add_one, &p, 1); },
       [loop](bool sync) { sync ? loop->cancel_sync() : loop->cancel(); }, 1},
      {"queue", [queue](std::function<void()> f) { return queue->runTaskAsync(raw_closure(f), nullptr); },
       [queue](orv_shared_ptr<Tracked>& p) { return queue->runTaskAsync(&add_one, &p); },
       [queue](bool sync) { sync ? queue->cancel_sync() : queue->cancel(); }, 1},
      {"queue3", [wide](std::function<void()> f) { return wide->runTaskAsync(raw_closure(f), nullptr); },
       [wide](orv_shared_ptr<Tracked>& p) { return wide->runTaskAsync(&add_one, &p); },
       [wide](bool sync) { sync ? wide->cancel_sync() : wide->cancel(); }, 3},
      {"pool", [pool](std::function<void()> f) { return pool->runTaskAsync(closure(f), "orv-pool"); },
       [pool](orv_shared_ptr<Tracked>& p) { return pool->runTaskAsync(&add_one, &p, nullptr); },
       [pool](bool sync) { sync ? pool->cancel_sync() : pool->cancel(); }, 1 << 30},
  };
}

// Thousands of tasks from several producers: each runs exactly once; on a
// serial executor one at a time and each producer's in its order; on a
// queue of three, never more than three at once.
TEST(Executors, ManyProducersExactlyOnceInOrderWithinTheBound) {
  for (Executor& e : executors()) {
    SCOPED_TRACE(e.name);
    const int kProducers = 4, kEach = 400;
    std::vector<std::atomic<int>> runs(kProducers * kEach);
    std::vector<int> last(kProducers, -1);
    std::atomic<int> inside{0}, most{0}, done{0};
    std::atomic<bool> out_of_order{false};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        for (int i = 0; i < kEach; ++i) {
          e.submit([&, p, i] {
            int now = ++inside;
            for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
            }
            if (e.bound == 1 && last[p] != i - 1) out_of_order = true;
            last[p] = i;
            ++runs[p * kEach + i];
            --inside;
            ++done;
          });
        }
      });
    }
    for (auto& t : producers) t.join();
    ASSERT_TRUE(wait_until([&] { return done == kProducers * kEach; }));
    for (auto& r : runs) ASSERT_EQ(r, 1);
    EXPECT_FALSE(out_of_order);
    EXPECT_LE(most, e.bound);
    e.cancel(true);
  }
}

// Cancel: the running task finishes, the backlog never runs and releases its
// parameters at once, and nothing is taken afterwards. The waiting form
// returns only after the running task.
TEST(Executors, CancelDropsTheBacklogAndRefusesMore) {
  for (bool sync : {false, true}) {
    for (Executor& e : executors()) {
      SCOPED_TRACE(std::string(e.name) + (sync ? " cancel_sync" : " cancel"));
      Blocker blockers[3];
      for (Blocker& b : blockers) e.submit(b.body());
      ASSERT_TRUE(blockers[0].started());
      orv_shared_ptr<Tracked> object(new Tracked(0));
      {
        orv_test::NoNewThreads no_threads;  // the pool keeps them pending
        for (int i = 0; i < 4; ++i) ASSERT_TRUE(e.submit_param(object));
      }
      std::atomic<bool> returned{false};
      std::thread canceller([&] { e.cancel(sync), returned = true; });
      EXPECT_TRUE(wait_until([&] { return strong_count(object) == 1; }));
      if (sync) {
        give_a_chance();
        EXPECT_FALSE(returned);
      }
      for (Blocker& b : blockers) b.gate.open();
      canceller.join();
      EXPECT_TRUE(!sync || blockers[0].finished);
      EXPECT_FALSE(e.submit_param(object));
      EXPECT_EQ(object->value, 0);
      EXPECT_EQ(strong_count(object), 1);
    }
  }
}

size_t queued(AppRunloop* loop, unsigned priority) {
  AppLock lock(loop->_queue_mutex);
  return loop->_queues[priority].size();
}

TEST(RunLoops, PrioritiesSyncRunsAndStop) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(2, "orv-loop");
  EXPECT_EQ(loop->_queue_count, 3);
  EXPECT_FALSE(loop->runTaskAsync(closure([] {}), 3));
  Blocker blocker;
  std::vector<std::string> order;  // the loop thread's only
  loop->runTaskAsync(closure(blocker.body()), 1);
  ASSERT_TRUE(blocker.started());
  const struct { const char* name; unsigned char priority; } tasks[] = {
      {"low1", 2}, {"low2", 2}, {"mid", 1}, {"high1", 0}, {"high2", 0}};
  for (const auto& t : tasks) loop->runTaskAsync(closure([&order, t] { order.push_back(t.name); }), t.priority);
  EXPECT_EQ(queued(loop.getPTR(), 0) * 100 + queued(loop.getPTR(), 1) * 10 + queued(loop.getPTR(), 2), 212u);
  blocker.gate.open();
  // Synchronous: run before it returns; from the loop's own thread, inline.
  orv_shared_ptr<Tracked> object(new Tracked(0));
  EXPECT_TRUE(loop->runTaskSync(&add_one, &object, 2));
  EXPECT_EQ(object->value, 1);
  EXPECT_EQ(order, (std::vector<std::string>{"high1", "high2", "mid", "low1", "low2"}));
  bool inner = false;
  EXPECT_TRUE(loop->runTaskSync(closure([&] {
    inner = loop->runTaskSync(closure([&] { order.push_back("inner"); }), 0);
    order.push_back("outer");
  }), 2));
  EXPECT_TRUE(inner);
  EXPECT_EQ(order.back(), "outer");
  EXPECT_TRUE(loop->runTaskSync(&add_one, nullptr, 0));

  // stop: what is queued still runs, nothing new is taken, and the thread
  // keeps the loop until it ends.
  Blocker again;
  std::atomic<int> ran{0};
  loop->runTaskAsync(closure(again.body()), 0);
  for (int i = 0; i < 3; ++i) loop->runTaskAsync(closure([&] { ++ran; }), 2);
  loop->stopRunloop();
  EXPECT_FALSE(loop->runTaskAsync(closure([&] { ran += 100; }), 0));
  EXPECT_FALSE(loop->runTaskSync(&add_one, &object, 0));
  orv_weak_ptr<AppRunloop> weak(loop);
  loop.releaseManagedPointer();
  again.gate.open();
  ASSERT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(weak); }));
  EXPECT_EQ(ran, 3);
  EXPECT_EQ(strong_count(object), 1);
}

// Synchronous callers whose task a run loop's cancel drops get false at once;
// a dispatch queue's never wake (kept on purpose).
TEST(RunLoops, CancelledSyncWaiters) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(0, "orv-cancel");
  orv_shared_ptr<DispatchQueue> queue = DispatchQueue::alloc(1);
  Blocker loop_blocker, queue_blocker;
  loop->runTaskAsync(closure(loop_blocker.body()), 0);
  queue->runTaskAsync(raw_closure(queue_blocker.body()), nullptr);
  ASSERT_TRUE(loop_blocker.started() && queue_blocker.started());
  auto loop_result = std::make_shared<std::atomic<int>>(-1);
  auto queue_returned = std::make_shared<std::atomic<bool>>(false);
  std::thread([loop, loop_result] { *loop_result = loop->runTaskSync(closure([] {}), 0); }).detach();
  std::thread([queue, queue_returned] { queue->runTaskSync(raw_closure([] {})), *queue_returned = true; }).detach();
  ASSERT_TRUE(wait_until([&] { return queued(loop.getPTR(), 0) == 1; }));
  ASSERT_TRUE(wait_until([&] {
    AppLock lock(queue->_state_condition);
    return queue->_pending_tasks.size() == 1;
  }));
  loop->cancel();
  EXPECT_EQ(queue->cancel(), 1);
  EXPECT_TRUE(wait_until([&] { return *loop_result == 0; }));
  loop_blocker.gate.open();
  queue_blocker.gate.open();
  give_a_chance();
  EXPECT_FALSE(*queue_returned);
}

TEST(RunLoops, ResourceTaskHoldsItsObjectAndDropsItsParameter) {
  struct Counter {
    void bump(orv_shared_ptr_base* param) { orv_shared_ptr<Tracked>(*param)->value += 10; }
  };
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(0, "orv-res");
  orv_shared_ptr<Counter> counter(new Counter());
  orv_weak_ptr<Counter> weak(counter);
  orv_shared_ptr<Tracked> object(new Tracked(0));
  orv_shared_ptr<ASRDispatchTaskBase> task(
      new orv::Threads::ASRDispatchTaskWithResPointer<Counter>(counter, &Counter::bump, object.getRefPtr()));
  counter.releaseManagedPointer();
  ASSERT_TRUE(loop->runTaskSync(task, 0));
  EXPECT_EQ(object->value, 10);
  EXPECT_EQ(task->_param, nullptr);  // released right after the call
  EXPECT_EQ(strong_count(object), 1);
  task.releaseManagedPointer();
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<Counter>(weak); }));
  loop->stopRunloop_sync();
}

template <class F>
auto locked(ThreadPool* pool, F f) -> decltype(f()) {
  AppLock lock(pool->_pool_mutex);
  return f();
}
int threads_of(ThreadPool* pool) { return locked(pool, [&] { return static_cast<int>(pool->_thread_count); }); }
bool all_idle(ThreadPool* pool) { return locked(pool, [&] { return pool->_busy_head == nullptr; }); }
long tid_of_next_task(ThreadPool* pool) {
  std::atomic<long> tid{0};
  pool->runTaskAsync(closure([&] { tid = orv_test::current_tid(); }), "orv-unused");
  EXPECT_TRUE(wait_until([&] { return tid != 0 && all_idle(pool); }));
  return tid;
}

// A pool grows by one thread, named after the task that needed it, whenever
// no thread is idle; the most recently idle thread is reused first.
TEST(Pool, GrowsUnderTheTaskNameAndReusesTheMostRecentlyIdle) {
  int before = orv_test::count_threads_named("GlobalPool");
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  EXPECT_EQ(orv_test::count_threads_named("GlobalPool"), before + 3);
  Gate gates[4];
  std::atomic<long> tids[4] = {{0}, {0}, {0}, {0}};
  for (int i = 0; i < 4; ++i) {
    pool->runTaskAsync(closure([&, i] { tids[i] = orv_test::current_tid(), gates[i].wait(); }), "orv-extra");
  }
  ASSERT_TRUE(wait_until([&] { return tids[0] && tids[1] && tids[2] && tids[3]; }));
  EXPECT_EQ(threads_of(pool.getPTR()), 4);
  std::set<std::string> names;
  for (auto& tid : tids) names.insert(orv_test::thread_name(tid));
  EXPECT_EQ(names, (std::set<std::string>{"GlobalPool", "orv-extra"}));
  for (int i : {3, 2, 0, 1}) {  // idle in this order: 1 is the most recent
    PoolThreadListNode* head = locked(pool.getPTR(), [&] { return pool->_idle_head; });
    gates[i].open();
    ASSERT_TRUE(wait_until([&] { return locked(pool.getPTR(), [&] { return pool->_idle_head != head; }); }));
  }
  EXPECT_EQ(tid_of_next_task(pool.getPTR()), tids[1]);
  EXPECT_EQ(tid_of_next_task(pool.getPTR()), tids[1]);
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_idle_head->_use_count * 10 + pool->_idle_tail->_use_count; }), 31u);
  pool->printThreadUsageStats();
  pool->stop_sync();
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }), orv::Threads::POOL_STOPPED);
  EXPECT_TRUE(wait_until([&] { return orv_test::count_threads_named("GlobalPool") == before; }));

  orv_shared_ptr<ThreadPool> empty = ThreadPool::alloc(0);
  EXPECT_EQ(threads_of(empty.getPTR()), 0);
  long tid = tid_of_next_task(empty.getPTR());
  EXPECT_EQ(orv_test::thread_name(tid), "orv-unused");
  empty->stop_sync();
}

std::vector<PoolThreadListNode*> idle_nodes(ThreadPool* pool) {
  std::vector<PoolThreadListNode*> nodes;
  for (PoolThreadListNode* n = pool->_idle_head; n != nullptr; n = n->_next) nodes.push_back(n);
  return nodes;
}

// Reaping takes the time as an argument: threads idle for 30 s or more go,
// longest idle first, down to the minimum; falling idle reaps the same way.
TEST(Pool, ReapsLongestIdleThreadsDownToTheMinimum) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  Gate gate;
  std::atomic<int> running{0};
  for (int i = 0; i < 5; ++i) pool->runTaskAsync(closure([&] { ++running, gate.wait(); }), "orv-grown");
  ASSERT_TRUE(wait_until([&] { return running == 5; }));
  gate.open();
  ASSERT_TRUE(wait_until([&] { return all_idle(pool.getPTR()); }));
  pool->_pool_mutex->Lock();
  std::vector<PoolThreadListNode*> nodes = idle_nodes(pool.getPTR());
  std::vector<orv_weak_ptr<AppRunloop>> loops;
  const int64_t t0 = 1000000000;
  for (int i = 0; i < 5; ++i) {
    nodes[i]->_idle_since = t0 + 40 - 10 * i;  // head most recent, tail longest idle
    loops.push_back(orv_weak_ptr<AppRunloop>(nodes[i]->_runloop));
  }
  pool->removeUnusedThreads(t0 + 29999999);
  EXPECT_EQ(pool->_thread_count, 5);
  pool->removeUnusedThreads(t0 + 30000000);
  EXPECT_EQ(pool->_thread_count, 4);
  EXPECT_EQ(pool->_idle_tail, nodes[3]);
  pool->removeUnusedThreads(t0 + 1000000000);
  EXPECT_EQ(idle_nodes(pool.getPTR()), (std::vector<PoolThreadListNode*>{nodes[0], nodes[1], nodes[2]}));
  pool->_pool_mutex->Unlock();
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(loops[3]) && !orv_shared_ptr<AppRunloop>(loops[4]); }));
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<AppRunloop>(loops[2])));

  // Falling idle reaps what has been idle for 30 s, keeping the thread that
  // just finished.
  Gate hold;
  std::atomic<int> held{0};
  for (int i = 0; i < 5; ++i) pool->runTaskAsync(closure([&] { ++held, hold.wait(); }), "orv-grown");
  ASSERT_TRUE(wait_until([&] { return held == 5; }));
  hold.open();
  ASSERT_TRUE(wait_until([&] { return all_idle(pool.getPTR()) && threads_of(pool.getPTR()) == 5; }));
  pool->_pool_mutex->Lock();
  for (PoolThreadListNode* n : idle_nodes(pool.getPTR())) n->_idle_since -= 31000000;
  pool->_pool_mutex->Unlock();
  long tid = tid_of_next_task(pool.getPTR());
  EXPECT_TRUE(wait_until([&] { return threads_of(pool.getPTR()) == 3; }));
  EXPECT_EQ(tid_of_next_task(pool.getPTR()), tid);
  pool->stop_sync();
}

// A pool that cannot start a thread keeps tasks pending for the next thread
// that finishes, in order; stopping waits for busy threads and logs refusals.
TEST(Pool, PendingTasksStopAndItsLogLines) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(1);
  Blocker blocker;
  pool->runTaskAsync(closure(blocker.body()), nullptr);
  ASSERT_TRUE(blocker.started());
  std::mutex mutex;
  std::vector<int> order;
  {
    orv_test::NoNewThreads no_threads;
    for (int i = 0; i < 3; ++i) {
      pool->runTaskAsync(closure([&, i] {
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(i);
      }), "orv-never");
    }
  }
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pending.size(); }), 3u);
  EXPECT_EQ(threads_of(pool.getPTR()), 1);
  blocker.gate.open();
  ASSERT_TRUE(wait_until([&] { return all_idle(pool.getPTR()) && locked(pool.getPTR(), [&] { return pool->_pending.empty(); }); }));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));

  Blocker busy;
  pool->runTaskAsync(closure(busy.body()), nullptr);
  ASSERT_TRUE(busy.started());
  std::thread stopper([&] { pool->stop_sync(); });
  ASSERT_TRUE(wait_until([&] { return locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }) == orv::Threads::POOL_STOPPING; }));
  orv::set_log_level(orv::LOG_DEBUG);
  StderrCapture capture;
  EXPECT_FALSE(pool->runTaskAsync(closure([] {}), nullptr));
  busy.gate.open();
  stopper.join();
  EXPECT_FALSE(pool->runTaskAsync(closure([] {}), nullptr));
  pool->cancel();
  std::string log = capture.text();
  orv::set_log_level(0);
  EXPECT_TRUE(busy.finished);
  EXPECT_EQ(threads_of(pool.getPTR()), 0);
  EXPECT_TRUE(has(log, "[ThreadPool.cpp:87]runTaskAsync con=1\n") && has(log, "runTaskAsync con=2\n") &&
              has(log, "[ThreadPool.cpp:141]ThreadPool::cancel()\n")) << log;
}

// stop() on a busy pool returns holding the pool mutex (designed behaviour).
TEST(Pool, StopOnABusyPoolLeavesItLocked) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(1);
  static Blocker blocker;  // the task still touches it after this test returns
  pool->runTaskAsync(closure(blocker.body()), nullptr);
  ASSERT_TRUE(blocker.started());
  pool->stop();
  EXPECT_TRUE(held_elsewhere(*pool->_pool_mutex));
  EXPECT_EQ(pool->_pool_mutex->_condition, orv::Threads::POOL_RUNNING);
  blocker.gate.open();  // its thread now blocks for good; left to the process exit
}

TEST(Pool, GlobalPoolHasThreeThreadsAndResetsToFreshOnes) {
  int before = orv_test::count_threads_named("GlobalPool");
  orv_shared_ptr<GlobalThreadPool> global = Singleton<GlobalThreadPool>::instance();
  EXPECT_EQ(orv_test::count_threads_named("GlobalPool"), before + 3);
  orv_shared_ptr<Tracked> object(new Tracked(0));
  ASSERT_TRUE(global->runTaskAsync(&add_one, &object, "orv-global"));
  ASSERT_TRUE(wait_until([&] { return object->value == 1; }));
  long old_tid = tid_of_next_task(global->_pool.getPTR());
  ThreadPool* old_pool = global->_pool.getPTR();
  global->reset();
  EXPECT_NE(global->_pool.getPTR(), old_pool);
  EXPECT_EQ(threads_of(global->_pool.getPTR()), 3);
  EXPECT_TRUE(wait_until([&] { return !orv_test::thread_alive(old_tid); }));
  EXPECT_NE(tid_of_next_task(global->_pool.getPTR()), old_tid);
  global->printThreadUsageStats();
}

TEST(Queues, BacklogStartsInOrderStopDrainsAndTasksKeepTheQueue) {
  orv_shared_ptr<DispatchQueue> queue = DispatchQueue::alloc(3);
  Gate gates[6];
  std::mutex mutex;
  std::vector<int> started;
  auto count = [&] { std::lock_guard<std::mutex> lock(mutex); return started.size(); };
  for (int i = 0; i < 6; ++i) {
    queue->runTaskAsync(raw_closure([&, i] {
      {
        std::lock_guard<std::mutex> lock(mutex);
        started.push_back(i);
      }
      gates[i].wait();
    }), "orv-bounded");
  }
  ASSERT_TRUE(wait_until([&] { return count() == 3; }));
  for (int i = 0; i < 3; ++i) {
    gates[i].open();
    ASSERT_TRUE(wait_until([&] { return count() == static_cast<size_t>(i + 4); }));
  }
  EXPECT_EQ(std::vector<int>(started.begin() + 3, started.end()), (std::vector<int>{3, 4, 5}));
  queue->stopQueue();
  EXPECT_FALSE(queue->runTaskAsync(raw_closure([] {}), nullptr));
  std::atomic<bool> stopped{false};
  std::thread waiter([&] { queue->stopQueue_sync(), stopped = true; });
  give_a_chance();
  EXPECT_FALSE(stopped);
  for (Gate& g : gates) g.open();
  waiter.join();
  {
    AppLock lock(queue->_state_condition);
    EXPECT_EQ(queue->_state_condition->_condition, 2);
  }
  orv_shared_ptr<Tracked> object(new Tracked(0));
  EXPECT_FALSE(queue->runTaskSync(&add_one, &object));
  queue = DispatchQueue::alloc(1);
  EXPECT_TRUE(queue->runTaskSync(&add_one, &object));
  EXPECT_EQ(object->value, 1);
  orv_weak_ptr<DispatchQueue> weak(queue);
  Blocker blocker;
  std::atomic<int> ran{0};
  queue->runTaskAsync(raw_closure(blocker.body()), nullptr);
  for (int i = 0; i < 3; ++i) queue->runTaskAsync(raw_closure([&] { ++ran; }), nullptr);
  queue.releaseManagedPointer();  // queued tasks keep it alive
  EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<DispatchQueue>(weak)));
  blocker.gate.open();
  ASSERT_TRUE(wait_until([&] { return ran == 3 && !orv_shared_ptr<DispatchQueue>(weak); }));
}

using Clock = std::chrono::steady_clock;
struct Firings {
  std::mutex mutex;
  std::vector<Clock::time_point> times;
  int count() { std::lock_guard<std::mutex> lock(mutex); return static_cast<int>(times.size()); }
  long ms(int i, Clock::time_point from) {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(times.at(i) - from).count());
  }
};
void fired(orv_shared_ptr_base* param) {
  orv_shared_ptr<Firings> f(*param);
  std::lock_guard<std::mutex> lock(f->mutex);
  f->times.push_back(Clock::now());
}
orv_shared_ptr<ASRDispatchTaskBase> task_for(orv_shared_ptr<Firings>& f) {
  return orv_shared_ptr<ASRDispatchTaskBase>(new ASRDispatchTaskBase(fired, f.getRefPtr()));
}

TEST(Timers, OneShotAndRepeatingFireOnScheduleThenTheThreadEnds) {
  orv_shared_ptr<Firings> once(new Firings()), repeat(new Firings());
  Clock::time_point start = Clock::now();
  orv_shared_ptr<Timer> one = Timer::createTimerWithTask(task_for(once), 100, false);
  orv_shared_ptr<Timer> many = Timer::createTimerWithTask(task_for(repeat), 60, true);
  EXPECT_TRUE(one->_task->_release_after_execute);
  EXPECT_FALSE(many->_task->_release_after_execute);  // kept for the next firing
  EXPECT_EQ(orv_test::timer_thread_state<Timer>(), 1);
  ASSERT_TRUE(wait_until([&] { return once->count() == 1 && repeat->count() >= 5; }));
  EXPECT_TRUE(many->cancel());
  EXPECT_FALSE(many->cancel());
  EXPECT_FALSE(one->cancel());  // fired: no longer listed
  EXPECT_GE(once->ms(0, start), 99);
  int n = repeat->count();
  for (int k = 0; k < n; ++k) EXPECT_GE(repeat->ms(k, start), 60 * (k + 1) - 1);  // never before its slot
  EXPECT_TRUE(wait_until([] { return orv_test::timer_thread_state<Timer>() == 0; }));
  EXPECT_LE(repeat->count(), n + 1);  // at most one already on its way
  EXPECT_EQ(once->count(), 1);
  orv_shared_ptr<Timer> again = Timer::createTimerWithTask(task_for(once), 10, false);  // a new thread
  ASSERT_TRUE(wait_until([&] { return once->count() == 2; }));
}

TEST(Timers, EarlierTimerNoticedAndEqualDeadlinesPutTheNewestFirst) {
  orv_shared_ptr<Firings> far_firings(new Firings()), near_firings(new Firings());
  orv_shared_ptr<Timer> far = Timer::createTimerWithTask(task_for(far_firings), 10000, false);
  give_a_chance();  // the thread sleeps toward the far one
  orv_shared_ptr<Timer> near = Timer::createTimerWithTask(task_for(near_firings), 50, false);
  ASSERT_TRUE(wait_until([&] { return near_firings->count() == 1; }, milliseconds(5000)));
  EXPECT_EQ(far_firings->count(), 0);
  for (int attempt = 0; attempt < 50; ++attempt) {
    orv_shared_ptr<Timer> older = Timer::createTimerWithTask(task_for(far_firings), 5000, false);
    orv_shared_ptr<Timer> newer = Timer::createTimerWithTask(task_for(far_firings), 5000, false);
    std::vector<Timer*> order;
    Timer::TimerThreadState.Lock();
    for (auto& t : Timer::iTimers) order.push_back(t.getPTR());
    Timer::TimerThreadState.Unlock();
    older->cancel();
    newer->cancel();
    if (older->_deadline != newer->_deadline) continue;  // a millisecond passed: again
    EXPECT_EQ(order, (std::vector<Timer*>{newer.getPTR(), older.getPTR(), far.getPTR()}));
    break;
  }
  EXPECT_TRUE(far->cancel());
}

TEST(Timers, RefreshPushesTheDeadlineAndOnlyTheFrontIsExamined) {
  orv_shared_ptr<Firings> front_firings(new Firings()), behind_firings(new Firings());
  orv_shared_ptr<RefreshTimer> front = RefreshTimer::createTimerWithTask(task_for(front_firings), 300);
  orv_shared_ptr<RefreshTimer> behind = RefreshTimer::createTimerWithTask(task_for(behind_firings), 350);
  EXPECT_TRUE(front->_task->_release_after_execute);
  // While the front is pushed back, the one behind it, due after 350 ms, is
  // not looked at.
  Clock::time_point last = Clock::now(), until = last + milliseconds(1000);
  while (Clock::now() < until) {
    last = Clock::now();
    EXPECT_TRUE(front->refresh());
    std::this_thread::sleep_for(milliseconds(50));
  }
  EXPECT_EQ(behind_firings->count() + front_firings->count(), 0);
  ASSERT_TRUE(wait_until([&] { return front_firings->count() == 1 && behind_firings->count() == 1; }));
  EXPECT_GE(front_firings->ms(0, last), 299);
  EXPECT_FALSE(front->cancel());
  EXPECT_TRUE(front->refresh());  // after firing only the field changes
  EXPECT_TRUE(wait_until([] { return orv_test::timer_thread_state<RefreshTimer>() == 0; }));
  EXPECT_EQ(front_firings->count(), 1);

  orv::set_log_level(orv::LOG_WARN);
  StderrCapture capture;
  orv_shared_ptr<Timer> timer = Timer::createTimerWithTask(orv_shared_ptr<ASRDispatchTaskBase>(), 5000, false);
  orv_shared_ptr<RefreshTimer> refresh = RefreshTimer::createTimerWithTask(orv_shared_ptr<ASRDispatchTaskBase>(), 5000);
  std::string log = capture.text();
  orv::set_log_level(0);
  EXPECT_TRUE(has(log, "[orv_Timer.cpp:37]NULL task to timer\n") && has(log, "[orv_Timer_refresh.cpp:38]NULL task to timer\n")) << log;
  EXPECT_TRUE(timer->cancel() && refresh->cancel());  // scheduled all the same
}

}  // namespace
