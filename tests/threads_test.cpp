// Locks, threads, run loops, the pool, dispatch queues and the two timers.
#include <pthread.h>

#include <future>
#include <set>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv::Memory;
using namespace orv::Threads;
using namespace orv::Threads::Synchronization;
using namespace orv_test;
using std::chrono::milliseconds;
typedef std::function<void(AppConditionMutex&)> Step;

// A blocked thread has no event to await: give it a moment, then look.
void give_a_chance() { std::this_thread::sleep_for(milliseconds(50)); }
void add_one(orv_shared_ptr_base* param) { if (param != nullptr) ++orv_shared_ptr<Tracked>(*param)->value; }

// Mutexes and guards; the condition word's arithmetic; three waiters of each
// kind stay blocked on a partial change and all pass on the whole condition;
// a semaphore blocks only at 0 and passes a set value on.
TEST(Locks, MutexesConditionWordsWaitsAndSemaphores) {
  AppMutex normal(false), recursive(true);
  EXPECT_TRUE(normal.Lock() == 0 && !normal.tryLock() && normal.Unlock() == 0);
  EXPECT_TRUE(recursive.Lock() == 0 && recursive.tryLock() && recursive.Unlock() == 0 && held_elsewhere(recursive));
  {
    AppLock lock(&normal);
    EXPECT_TRUE(held_elsewhere(normal));
  }
  EXPECT_TRUE(!held_elsewhere(normal) && recursive.Unlock() == 0);
  AppConditionMutex c(0b100);
  for (auto step : std::vector<std::pair<std::function<void()>, int>>{
           {[&] { c.unlockSettingFlags(0b011); }, 0b111}, {[&] { c.unlockClearingFlags(0b001); }, 0b110},
           {[&] { c.unlockWithFlags(0b001, 0b100); }, 0b011}, {[&] { c.unlockWithFlags(0b1000, 0b1000); }, 0b011},
           {[&] { c.unlockWithCondition(-5); }, -5}, {[&] { c.Unlock(); }, -5}}) {
    c.Lock();
    step.first();
    EXPECT_TRUE(c._condition == step.second && !held_elsewhere(c)) << step.second;
  }
  AppSemaphore s(0);
  EXPECT_EQ(s.post() * 10 + s.wait(), 10);  // no waiter: only the count rises
  s.setValue(-2);
  EXPECT_EQ(s.wait() * 10 + s.getValue(), -33);  // only 0 blocks, on purpose
  s.setValue(0);
  const struct { int start; Step wait, partial, full; } cases[] = {
      {0b100, [](AppConditionMutex& m) { m.lockWhenFlags(0b101); }, [](AppConditionMutex& m) { m.unlockSettingFlags(0b010); },
       [](AppConditionMutex& m) { m.unlockSettingFlags(0b001); }},
      {0b101, [](AppConditionMutex& m) { m.lockWhenNotFlags(0b101); }, [](AppConditionMutex& m) { m.unlockClearingFlags(0b001); },
       [](AppConditionMutex& m) { m.unlockClearingFlags(0b100); }},
      {0, [](AppConditionMutex& m) { m.lockWhenCondition(7); }, [](AppConditionMutex& m) { m.unlockWithCondition(6); },
       [](AppConditionMutex& m) { m.unlockWithCondition(7); }},
      {-1, [&](AppConditionMutex& m) { s.wait(), m.Lock(); }, [&](AppConditionMutex& m) { m.Unlock(), s.post(); },
       [&](AppConditionMutex& m) { m.Unlock(), s.setValue(2); }},  // one post lets one through
  };
  for (const auto& k : cases) {
    AppConditionMutex m(k.start);
    std::atomic<int> through{0};
    std::thread waiters([&] { run_threads(3, [&](int) { k.wait(m), ++through, m.Unlock(); }); });
    m.Lock();
    k.partial(m);
    give_a_chance();
    EXPECT_EQ(through, k.start < 0 ? 1 : 0) << k.start;
    m.Lock();
    k.full(m);
    EXPECT_TRUE(wait_until([&] { return through == 3; })) << k.start;
    waiters.join();
  }
  run_threads(4, [&](int i) { for (int n = 0; n < 3000; ++n) i % 2 ? s.post() : s.wait(); });
  EXPECT_EQ(s.getValue(), 0);
}

struct Probe {
  Gate go;
  std::atomic<long> tid{0}, destroyed_on{0};
  std::atomic<size_t> stack{0};
};

struct ProbeThread : AppThread {
  explicit ProbeThread(Probe* probe) : probe_(probe) {}
  ~ProbeThread() override { probe_->destroyed_on = current_tid(); }
  void threadMain() override {
    pthread_attr_t attr;
    size_t size = 0;
    probe_->go.wait();
    pthread_getattr_np(pthread_self(), &attr), pthread_attr_getstacksize(&attr, &size), pthread_attr_destroy(&attr);
    probe_->stack = isCurrentThread() ? size : 0;
    probe_->tid = current_tid();
  }
  Probe* probe_;
};

// A thread runs once; join logs, and leaves a stale handle alone; dropped
// after run(), a thread keeps its object until threadMain returns and dies
// detached on its own thread; a too small default stack is raised to 1 MiB
// (both logged); one that cannot start drops its self reference.
TEST(Threads, RunJoinLifetimeAndStack) {
  for (size_t size : {size_t{8 * 1024 * 1024}, size_t{512 * 1024}, unallocatable_stack_size()}) {
    Probe p;
    orv_shared_ptr<AppThread> t(new ProbeThread(&p));
    t->_self_weak = t;
    orv_weak_ptr<AppThread> weak(t);
    orv::set_log_level(orv::LOG_TRACE);
    StderrCapture capture;
    bool started;
    {
      DefaultStackSize stack(size);
      started = t->run("orv-stack");
    }
    EXPECT_TRUE(started == (size != unallocatable_stack_size()) && (!started || !t->run("again")) && !t->isCurrentThread());
    if (!started) {
      EXPECT_EQ(strong_count(t), 1);
      ASSERT_TRUE(t->run("orv-retry"));
    }
    bool dropped = size == 512 * 1024;  // right after run(): the thread keeps its object
    if (dropped) t.releaseManagedPointer();
    EXPECT_TRUE(static_cast<bool>(orv_shared_ptr<AppThread>(weak)));
    p.go.open();
    if (!dropped) t->join();
    std::string log = capture.text();
    orv::set_log_level(0);
    EXPECT_EQ(has(log, "[AppThread.cpp:86]Default thread stack is too small, trying to increase size\n"), size < 1048576);
    EXPECT_TRUE(!started || has(log, "[AppThread.cpp:84]Default thread stack size: " + std::to_string(size) + "\n")) << log;
    if (dropped) {
      ASSERT_TRUE(wait_until([&] { return p.destroyed_on != 0 && !thread_alive(p.tid); }));
      EXPECT_EQ(p.destroyed_on, p.tid);
    } else {
      EXPECT_TRUE(has(log, "[AppThread.cpp:256]pthread_join + id=") && has(log, "[AppThread.cpp:258]pthread_join -\n")) << log;
      StderrCapture quiet;
      t->join();
      EXPECT_TRUE(t->detach() && !t->_detached && quiet.text().empty());
    }
    EXPECT_TRUE(!started || p.stack == std::max<size_t>(size, 1048576)) << p.stack;
  }
}

// The executors through one face: submit a closure or a function with a
// counted parameter; cancel, or its waiting form.
struct Executor {
  const char* name;
  std::function<bool(std::function<void()>)> submit;
  std::function<bool(orv_shared_ptr<Tracked>&)> submit_param;
  std::function<void(bool)> cancel;
  int bound;  // tasks at once, at most
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
       [pool](bool sync) { sync ? pool->cancel_sync() : pool->cancel(); }, 1 << 30}, };
}

// Thousands of tasks from four producers run exactly once; a serial executor
// runs one at a time and each producer's in its order; a queue of three
// never runs more than three at once.
TEST(Executors, ManyProducersExactlyOnceInOrderWithinTheBound) {
  for (Executor& e : executors()) {
    SCOPED_TRACE(e.name);
    const int kEach = 400;
    std::vector<std::atomic<int>> runs(4 * kEach);
    std::vector<int> last(4, -1);
    std::atomic<int> inside{0}, most{0}, done{0};
    std::atomic<bool> out_of_order{false};
    run_threads(4, [&](int p) {
      for (int i = 0; i < kEach; ++i) {
        e.submit([&, p, i] {
          int now = ++inside;
          for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
          }
          if (e.bound == 1) out_of_order = out_of_order || last[p] != i - 1, last[p] = i;
          ++runs[p * kEach + i], --inside, ++done;
        });
      }
    });
    ASSERT_TRUE(wait_until([&] { return done == 4 * kEach; }));
    for (auto& r : runs) ASSERT_EQ(r, 1);
    EXPECT_TRUE(!out_of_order && most <= e.bound) << most;
    e.cancel(true);
  }
}

// Cancel: running tasks finish, the backlog never runs and releases its
// parameters at once, nothing more is taken; the waiting form returns only
// after the running tasks.
TEST(Executors, CancelDropsTheBacklogAndRefusesMore) {
  for (bool sync : {false, true}) {
    for (Executor& e : executors()) {
      SCOPED_TRACE(std::string(e.name) + (sync ? " cancel_sync" : " cancel"));
      Blocker blockers[3];
      for (Blocker& b : blockers) e.submit(b.body());
      ASSERT_TRUE(blockers[0].started());
      orv_shared_ptr<Tracked> object(new Tracked(0));
      {
        DefaultStackSize no_new_threads;  // the pool keeps them pending
        for (int i = 0; i < 4; ++i) ASSERT_TRUE(e.submit_param(object));
      }
      std::atomic<bool> returned{false};
      std::thread canceller([&] { e.cancel(sync), returned = true; });
      EXPECT_TRUE(wait_until([&] { return strong_count(object) == 1 && (sync || returned); }));
      give_a_chance();
      EXPECT_EQ(returned, !sync);
      for (Blocker& b : blockers) b.gate.open();
      canceller.join();
      EXPECT_TRUE(!e.submit_param(object) && object->value == 0 && (!sync || blockers[0].finished));
      for (Blocker& b : blockers) ASSERT_TRUE(!b.running || wait_until([&] { return b.finished.load(); }));
    }
  }
}

// Priorities in order, first in first out within one; synchronous runs (inline
// from the loop's own thread); the thread keeps its loop until it ends.
TEST(RunLoops, PrioritiesSyncRunsAndLifetime) {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(2, "orv-loop");
  EXPECT_TRUE(loop->_queue_count == 3 && !loop->runTaskAsync(closure([] {}), 3));
  Blocker blocker;
  std::vector<std::string> order;  // the loop thread's only
  loop->runTaskAsync(closure(blocker.body()), 1);
  ASSERT_TRUE(blocker.started());
  for (auto t : {std::make_pair("low1", 2), {"low2", 2}, {"mid", 1}, {"high1", 0}, {"high2", 0}}) {
    loop->runTaskAsync(closure([&order, t] { order.push_back(t.first); }), static_cast<unsigned char>(t.second));
  }
  blocker.gate.open();
  orv_shared_ptr<Tracked> object(new Tracked(0));
  EXPECT_TRUE(loop->runTaskSync(&add_one, &object, 2) && loop->runTaskSync(&add_one, nullptr, 0));
  EXPECT_TRUE(loop->runTaskSync(closure([&] { order.push_back(loop->runTaskSync(closure([&] { order.push_back("in"); }), 0) ? "out" : "?"); }), 2));
  EXPECT_EQ(order, (std::vector<std::string>{"high1", "high2", "mid", "low1", "low2", "in", "out"}));
  EXPECT_EQ(object->value, 1);
  // Waiting synchronous runs queued behind a running task: cancel lets each go, not run (false).
  Blocker held;
  loop->runTaskAsync(closure(held.body()), 0);
  ASSERT_TRUE(held.started());
  auto waiter = [&] { return std::async(std::launch::async, [&] { return loop->runTaskSync(&add_one, &object, 1); }); };
  std::future<bool> first = waiter(), second = waiter();
  ASSERT_TRUE(wait_until([&] { AppLock lock(loop->_queue_mutex); return loop->_queues[1].size() == 2; }));
  loop->cancel(), held.gate.open();
  EXPECT_TRUE(!first.get() && !second.get() && object->value == 1);
  orv_weak_ptr<AppRunloop> weak(loop);
  loop->stopRunloop();  // the thread keeps its loop until it ends
  loop.releaseManagedPointer();
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(weak); }));
}

template <class F>
auto locked(ThreadPool* pool, F f) -> decltype(f()) { AppLock lock(pool->_pool_mutex); return f(); }
int threads_of(ThreadPool* pool) { return locked(pool, [&] { return static_cast<int>(pool->_thread_count); }); }
bool all_idle(ThreadPool* pool) { return locked(pool, [&] { return pool->_busy_head == nullptr; }); }
long tid_of_next_task(ThreadPool* pool, pthread_t* thread = nullptr) {
  std::atomic<long> tid{0};
  pool->runTaskAsync(closure([&] { thread && (*thread = pthread_self()), tid = current_tid(); }), "orv-unused");
  EXPECT_TRUE(wait_until([&] { return tid != 0 && all_idle(pool); }));
  return tid;
}
std::vector<PoolThreadListNode*> idle_nodes(ThreadPool* pool) {
  std::vector<PoolThreadListNode*> nodes;
  for (PoolThreadListNode* n = pool->_idle_head; n != nullptr; n = n->_next) nodes.push_back(n);
  return nodes;
}
void hold_busy(ThreadPool* pool, int n) {  // n tasks at once, then idle
  Gate gate;
  std::atomic<int> held{0};
  for (int i = 0; i < n; ++i) pool->runTaskAsync(closure([&] { ++held, gate.wait(); }), "orv-extra");
  ASSERT_TRUE(wait_until([&] { return held == n; }));
  gate.open();
  ASSERT_TRUE(wait_until([&] { return all_idle(pool); }));
}

// A pool grows by one thread when no thread is idle; the most recently idle thread is reused first; threads idle
// for 30 s or more are reaped, longest idle first, down to the minimum, also
// when the pool falls idle (keeping the thread that just finished).
TEST(Pool, GrowsReusesTheMostRecentlyIdleAndReapsDownToTheMinimum) {
  int before = count_threads_named("GlobalPool");
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(3);
  EXPECT_EQ(count_threads_named("GlobalPool"), before + 3);
  hold_busy(pool.getPTR(), 5);
  std::vector<PoolThreadListNode*> nodes = locked(pool.getPTR(), [&] { return idle_nodes(pool.getPTR()); });
  pthread_t first, second;
  long tid = tid_of_next_task(pool.getPTR(), &first);
  EXPECT_TRUE(tid_of_next_task(pool.getPTR(), &second) == tid && pthread_equal(first, nodes[0]->_runloop->_thread));
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_idle_head->_use_count; }), 3u);
  pool->_pool_mutex->Lock();
  std::vector<orv_weak_ptr<AppRunloop>> loops;
  const int64_t t0 = 1000000000;
  for (int i = 0; i < 5; ++i) {
    nodes[i]->_idle_since = t0 + 40 - 10 * i;  // head most recent, tail longest idle
    loops.push_back(orv_weak_ptr<AppRunloop>(nodes[i]->_runloop));
  }
  pool->removeUnusedThreads(t0 + 29999999);
  EXPECT_EQ(pool->_thread_count, 5);
  pool->removeUnusedThreads(t0 + 30000000);
  EXPECT_EQ(pool->_idle_tail, nodes[3]);
  pool->removeUnusedThreads(t0 + 1000000000);
  EXPECT_EQ(idle_nodes(pool.getPTR()), (std::vector<PoolThreadListNode*>{nodes[0], nodes[1], nodes[2]}));
  pool->_pool_mutex->Unlock();
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<AppRunloop>(loops[3]) && !orv_shared_ptr<AppRunloop>(loops[4]); }));
  hold_busy(pool.getPTR(), 5);
  pool->_pool_mutex->Lock();
  for (PoolThreadListNode* n : idle_nodes(pool.getPTR())) n->_idle_since -= 31000000;
  pool->_pool_mutex->Unlock();
  tid = tid_of_next_task(pool.getPTR());
  EXPECT_TRUE(wait_until([&] { return threads_of(pool.getPTR()) == 3; }) && tid_of_next_task(pool.getPTR()) == tid);
  pool->stop_sync();
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }), POOL_STOPPED);
  EXPECT_TRUE(wait_until([&] { return count_threads_named("GlobalPool") == before; }));
}

// Without new threads, tasks wait for the next thread that finishes, in
// order; stop_sync waits for busy threads; refusals and cancel are logged;
// stop() on a busy pool returns holding the pool mutex (designed behaviour).
TEST(Pool, PendingTasksStopAndLogLines) {
  orv_shared_ptr<ThreadPool> pool = ThreadPool::alloc(0), busy_pool = ThreadPool::alloc(1);
  EXPECT_EQ(thread_name(tid_of_next_task(pool.getPTR())), "orv-unused");
  Blocker blocker, busy;
  static Blocker stuck;  // its task still touches it after this test returns
  pool->runTaskAsync(closure(blocker.body()), nullptr);
  ASSERT_TRUE(blocker.started());
  std::vector<int> order;  // one thread: no lock needed
  {
    DefaultStackSize no_new_threads;
    for (int i = 0; i < 3; ++i) pool->runTaskAsync(closure([&, i] { order.push_back(i); }), "orv-never");
  }
  EXPECT_EQ(locked(pool.getPTR(), [&] { return pool->_pending.size() * 10 + pool->_thread_count; }), 31u);
  blocker.gate.open();
  pool->runTaskAsync(closure(busy.body()), nullptr);
  ASSERT_TRUE(busy.started());
  std::thread stopper([&] { pool->stop_sync(); });
  ASSERT_TRUE(wait_until([&] { return locked(pool.getPTR(), [&] { return pool->_pool_mutex->_condition; }) == POOL_STOPPING; }));
  orv::set_log_level(orv::LOG_DEBUG);
  StderrCapture capture;
  EXPECT_FALSE(pool->runTaskAsync(closure([] {}), nullptr));
  busy.gate.open();
  stopper.join();
  EXPECT_FALSE(pool->runTaskAsync(&add_one, nullptr, nullptr));
  pool->cancel();
  std::string log = capture.text();
  orv::set_log_level(0);
  EXPECT_TRUE(order == std::vector<int>({0, 1, 2}) && threads_of(pool.getPTR()) == 0);
  EXPECT_TRUE(has(log, "[ThreadPool.cpp:87]runTaskAsync con=1\n") && has(log, "runTaskAsync con=2\n") &&
              has(log, "[ThreadPool.cpp:141]ThreadPool::cancel()\n")) << log;
  busy_pool->runTaskAsync(closure(stuck.body()), nullptr);
  ASSERT_TRUE(stuck.started());
  busy_pool->stop();
  EXPECT_TRUE(held_elsewhere(*busy_pool->_pool_mutex) && busy_pool->_pool_mutex->_condition == POOL_RUNNING);
  stuck.gate.open();  // its thread now blocks for good; left to the process exit
}

// Six long tasks on a queue of three: the backlog starts in submission order
// as slots free up, and still drains after stop, which takes nothing new;
// queued tasks keep the queue alive.
TEST(Queues, BacklogOrderStopAndLifetime) {
  orv_shared_ptr<DispatchQueue> queue = DispatchQueue::alloc(3);
  orv_weak_ptr<DispatchQueue> weak(queue);
  Blocker tasks[6];
  for (Blocker& b : tasks) queue->runTaskAsync(raw_closure(b.body()), "orv-q");
  ASSERT_TRUE(tasks[2].started());
  queue->stopQueue();
  orv_shared_ptr<Tracked> object(new Tracked(0));
  EXPECT_TRUE(!queue->runTaskAsync(raw_closure([] {}), nullptr) && !queue->runTaskSync(&add_one, &object));
  queue.releaseManagedPointer();
  for (int i = 0; i < 6; ++i) {
    EXPECT_TRUE(i >= 3 || !tasks[i + 3].running) << i;
    ASSERT_TRUE(tasks[i].started());
    tasks[i].gate.open();
  }
  EXPECT_TRUE(wait_until([&] { return !orv_shared_ptr<DispatchQueue>(weak); }) && tasks[5].finished);
  queue = DispatchQueue::alloc(1);
  queue->stopQueue_sync();  // idle: at once
  EXPECT_EQ(queue->_state_condition->_condition, 2);
}

using Clock = std::chrono::steady_clock;
struct Firings : std::mutex {
  std::vector<Clock::time_point> times;
  int count() { std::lock_guard<std::mutex> lock(*this); return static_cast<int>(times.size()); }
  long ms(int i, Clock::time_point from) { std::lock_guard<std::mutex> lock(*this); return (times.at(i) - from) / milliseconds(1); }
};
void fired(orv_shared_ptr_base* param) {
  orv_shared_ptr<Firings> f(*param);
  std::lock_guard<std::mutex> lock(*f);
  f->times.push_back(Clock::now());
}
orv_shared_ptr<ASRDispatchTaskBase> task_for(orv_shared_ptr<Firings>& f) {
  return orv_shared_ptr<ASRDispatchTaskBase>(new ASRDispatchTaskBase(fired, f.getRefPtr()));
}

// One-shot and repeating timers fire on schedule (never early) and are no
// longer listed once fired or cancelled; an earlier timer is noticed while the
// thread sleeps toward a far one; equal deadlines put the newest first; the
// thread ends with the list.
TEST(Timers, FireOnScheduleNewestFirstAndTheThreadEnds) {
  orv_shared_ptr<Firings> once(new Firings()), repeat(new Firings()), far_firings(new Firings());
  orv_shared_ptr<Timer> far = Timer::createTimerWithTask(task_for(far_firings), 10000, false);
  give_a_chance();
  Clock::time_point start = Clock::now();
  orv_shared_ptr<Timer> one = Timer::createTimerWithTask(task_for(once), 100, false);
  orv_shared_ptr<Timer> many = Timer::createTimerWithTask(task_for(repeat), 60, true);
  EXPECT_TRUE(one->_task->_release_after_execute && !many->_task->_release_after_execute);
  ASSERT_TRUE(wait_until([&] { return once->count() == 1 && repeat->count() >= 5; }, milliseconds(5000)));
  EXPECT_TRUE(many->cancel() && !many->cancel() && !one->cancel());
  EXPECT_GE(once->ms(0, start), 99);
  for (int k = 0; k < 5; ++k) EXPECT_GE(repeat->ms(k, start), 60 * (k + 1) - 1);
  for (int attempt = 0; attempt < 50; ++attempt) {
    orv_shared_ptr<Timer> older = Timer::createTimerWithTask(task_for(far_firings), 5000, false);
    orv_shared_ptr<Timer> newer = Timer::createTimerWithTask(task_for(far_firings), 5000, false);
    std::vector<Timer*> order;
    Timer::TimerThreadState.Lock();
    for (auto& t : Timer::iTimers) order.push_back(t.getPTR());
    Timer::TimerThreadState.Unlock();
    older->cancel(), newer->cancel();
    if (older->_deadline != newer->_deadline) continue;  // a millisecond passed: again
    EXPECT_EQ(order, (std::vector<Timer*>{newer.getPTR(), older.getPTR(), far.getPTR()}));
    break;
  }
  EXPECT_TRUE(far->cancel() && wait_until([] { return timer_thread_state<Timer>() == 0; }));
  EXPECT_EQ(once->count() + far_firings->count(), 1);
}

// A refresh timer fires once, 600 ms after its last refresh; while the front
// one is pushed back, the one behind it is not looked at.
TEST(Timers, RefreshPushesTheDeadlineAndOnlyTheFrontIsExamined) {
  orv_shared_ptr<Firings> front_firings(new Firings()), behind_firings(new Firings());
  orv_shared_ptr<RefreshTimer> front = RefreshTimer::createTimerWithTask(task_for(front_firings), 600);
  orv_shared_ptr<RefreshTimer> behind = RefreshTimer::createTimerWithTask(task_for(behind_firings), 650);
  Clock::time_point last = Clock::now(), until = last + milliseconds(1000);
  for (bool refreshed = true; Clock::now() < until; std::this_thread::sleep_for(milliseconds(50))) {
    last = Clock::now();
    EXPECT_TRUE(refreshed = front->refresh());
  }
  EXPECT_EQ(behind_firings->count() + front_firings->count(), 0);
  ASSERT_TRUE(wait_until([&] { return front_firings->count() == 1 && behind_firings->count() == 1; }));
  EXPECT_GE(front_firings->ms(0, last), 599);
  EXPECT_TRUE(!front->cancel() && front->refresh() && front->_task->_release_after_execute);  // fired: only the field
  EXPECT_TRUE(wait_until([] { return timer_thread_state<RefreshTimer>() == 0; }));
  EXPECT_EQ(front_firings->count(), 1);
}

}  // namespace
