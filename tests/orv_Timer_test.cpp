#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

using orv_test::has;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::RefreshTimer;
using orv::Threads::Timer;
using orv_test::wait_until;
using Clock = std::chrono::steady_clock;

// Records when a task ran. Handed to tasks through a shared pointer.
struct Firings {
  std::mutex mutex;
  std::vector<Clock::time_point> times;
  int count() {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(times.size());
  }
  Clock::time_point at(int i) {
    std::lock_guard<std::mutex> lock(mutex);
    return times.at(i);
  }
};

void record(orv_shared_ptr_base* param) {
  orv_shared_ptr<Firings> firings(*param);
  std::lock_guard<std::mutex> lock(firings->mutex);
  firings->times.push_back(Clock::now());
}

orv_shared_ptr<ASRDispatchTaskBase> task_for(orv_shared_ptr<Firings>& firings) {
  return orv_shared_ptr<ASRDispatchTaskBase>(new ASRDispatchTaskBase(record, firings.getRefPtr()));
}

long ms_since(Clock::time_point start, Clock::time_point end) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count());
}

TEST(TimerTest, OneShotFiresOnceThenTheThreadEnds) {
  orv_shared_ptr<Firings> firings(new Firings());
  Clock::time_point start = Clock::now();
  orv_shared_ptr<Timer> timer = Timer::createTimerWithTask(task_for(firings), 100, false);
  ASSERT_NE(timer.getPTR(), nullptr);
  EXPECT_TRUE(timer->_task->_release_after_execute);
  EXPECT_EQ(orv_test::timer_thread_state<Timer>(), 1);
  ASSERT_TRUE(wait_until([&] { return firings->count() == 1; }, std::chrono::seconds(5)));
  EXPECT_GE(ms_since(start, firings->at(0)), 99);
  EXPECT_FALSE(timer->cancel());  // no longer listed: it cannot fire again
  EXPECT_TRUE(wait_until([] { return orv_test::timer_thread_state<Timer>() == 0; }, std::chrono::seconds(5)));

  // A new timer starts a new thread.
  orv_shared_ptr<Timer> again = Timer::createTimerWithTask(task_for(firings), 10, false);
  EXPECT_EQ(orv_test::timer_thread_state<Timer>(), 1);
  ASSERT_TRUE(wait_until([&] { return firings->count() == 2; }, std::chrono::seconds(5)));
}

TEST(TimerTest, RepeatingTimerKeepsItsPhaseUntilCancelled) {
  orv_shared_ptr<Firings> firings(new Firings());
  Clock::time_point start = Clock::now();
  orv_shared_ptr<Timer> timer = Timer::createTimerWithTask(task_for(firings), 100, true);
  EXPECT_FALSE(timer->_task->_release_after_execute);  // kept for the next firing
  ASSERT_TRUE(wait_until([&] { return firings->count() >= 6; }, std::chrono::seconds(10)));
  EXPECT_TRUE(timer->cancel());
  int fired = firings->count();
  // Firing k is never earlier than its slot on the original schedule.
  for (int k = 0; k < fired; ++k) EXPECT_GE(ms_since(start, firings->at(k)), 100 * (k + 1) - 1);
  EXPECT_FALSE(timer->cancel());
  EXPECT_TRUE(wait_until([] { return orv_test::timer_thread_state<Timer>() == 0; }, std::chrono::seconds(5)));
  EXPECT_LE(firings->count(), fired + 1);  // at most one was already on its way
}

TEST(TimerTest, AnEarlierTimerIsNoticedWhileTheThreadSleepsTowardAFarOne) {
  orv_shared_ptr<Firings> far_firings(new Firings());
  orv_shared_ptr<Firings> near_firings(new Firings());
  orv_shared_ptr<Timer> far = Timer::createTimerWithTask(task_for(far_firings), 10000, false);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let the thread go to sleep
  Clock::time_point start = Clock::now();
  orv_shared_ptr<Timer> near = Timer::createTimerWithTask(task_for(near_firings), 50, false);
  ASSERT_TRUE(wait_until([&] { return near_firings->count() == 1; }, std::chrono::seconds(5)));
  // Noticed within a sleep slice (500 ms), not after 10 s; generous for busy machines.
  EXPECT_LT(ms_since(start, near_firings->at(0)), 3000);
  EXPECT_EQ(far_firings->count(), 0);
  EXPECT_TRUE(far->cancel());
}

TEST(TimerTest, EqualDeadlinesPutTheNewestFirst) {
  orv_shared_ptr<Firings> firings(new Firings());
  for (int attempt = 0; attempt < 50; ++attempt) {
    orv_shared_ptr<Timer> older = Timer::createTimerWithTask(task_for(firings), 5000, false);
    orv_shared_ptr<Timer> newer = Timer::createTimerWithTask(task_for(firings), 5000, false);
    bool same = older->_deadline == newer->_deadline;
    std::vector<Timer*> order;
    Timer::TimerThreadState.Lock();
    for (auto& t : Timer::iTimers) order.push_back(t.getPTR());
    Timer::TimerThreadState.Unlock();
    older->cancel();
    newer->cancel();
    if (!same) continue;  // a millisecond passed between the two: try again
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(order[0], newer.getPTR());
    EXPECT_EQ(order[1], older.getPTR());
    return;
  }
  GTEST_SKIP() << "could not create two timers within one millisecond";
}

TEST(RefreshTimerTest, RefreshPushesTheDeadline) {
  orv_shared_ptr<Firings> firings(new Firings());
  orv_shared_ptr<RefreshTimer> timer = RefreshTimer::createTimerWithTask(task_for(firings), 600);
  ASSERT_NE(timer.getPTR(), nullptr);
  EXPECT_TRUE(timer->_task->_release_after_execute);
  Clock::time_point last_refresh = Clock::now();
  for (int i = 0; i < 6; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    last_refresh = Clock::now();
    EXPECT_TRUE(timer->refresh());
  }
  ASSERT_TRUE(wait_until([&] { return firings->count() == 1; }, std::chrono::seconds(10)));
  EXPECT_GE(ms_since(last_refresh, firings->at(0)), 599);
  EXPECT_FALSE(timer->cancel());
  EXPECT_TRUE(timer->refresh());  // after firing: only the field changes
  EXPECT_TRUE(wait_until([] { return orv_test::timer_thread_state<RefreshTimer>() == 0; }, std::chrono::seconds(5)));
  EXPECT_EQ(firings->count(), 1);
}

TEST(RefreshTimerTest, OnlyTheFrontIsExamined) {
  orv_shared_ptr<Firings> front_firings(new Firings());
  orv_shared_ptr<Firings> behind_firings(new Firings());
  orv_shared_ptr<RefreshTimer> front = RefreshTimer::createTimerWithTask(task_for(front_firings), 200);
  orv_shared_ptr<RefreshTimer> behind = RefreshTimer::createTimerWithTask(task_for(behind_firings), 300);
  // Keep pushing the front timer: the one behind it is due after 300 ms but
  // is not looked at while the front is not due.
  Clock::time_point until = Clock::now() + std::chrono::milliseconds(1200);
  while (Clock::now() < until) {
    front->refresh();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(behind_firings->count(), 0);
  EXPECT_EQ(front_firings->count(), 0);
  EXPECT_TRUE(front->cancel());
  ASSERT_TRUE(wait_until([&] { return behind_firings->count() == 1; }, std::chrono::seconds(5)));
  EXPECT_EQ(front_firings->count(), 0);
}

// Both timer kinds log a null task, each with its own line, and schedule it.
TEST(TimerTest, NullTaskIsLoggedAndScheduled) {
  orv::set_log_level(orv::LOG_WARN);
  orv_test::StderrCapture capture;
  orv_shared_ptr<Timer> timer =
      Timer::createTimerWithTask(orv_shared_ptr<ASRDispatchTaskBase>(), 5000, false);
  orv_shared_ptr<RefreshTimer> refresh =
      RefreshTimer::createTimerWithTask(orv_shared_ptr<ASRDispatchTaskBase>(), 5000);
  std::string log = capture.text();
  ASSERT_NE(timer.getPTR(), nullptr);
  EXPECT_TRUE(has(log, "[orv_Timer.cpp:37]NULL task to timer\n")) << log;
  EXPECT_TRUE(has(log, "[orv_Timer_refresh.cpp:38]NULL task to timer\n")) << log;
  EXPECT_TRUE(timer->cancel());
  EXPECT_TRUE(refresh->cancel());
}

}  // namespace
