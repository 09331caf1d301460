// Stress: timers created, cancelled and refreshed from several threads at
// once. A one-shot timer runs its task exactly once unless a cancel() found
// it first (true), and then never; cancel() of a fired timer is false.
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "tests/stress/stress_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::RefreshTimer;
using orv::Threads::Timer;
using orv_stress::Ledger;
using orv_stress::LedgerTask;

TEST(StressTimers, OneShotCreateCancelStormFiresExactlyTheUncancelled) {
  const int kThreads = 3, kEach = orv_stress::scaled(1500);
  const int total = kThreads * kEach;
  Ledger ledger(total);
  std::vector<std::vector<int>> cancelled(kThreads);  // per unit: 1 cancel() found it
  std::vector<std::vector<orv_shared_ptr<Timer>>> all(kThreads);
  std::atomic<int> empty_results{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      cancelled[t].assign(kEach, 0);
      std::vector<orv_shared_ptr<Timer>>& live = all[t];
      for (int i = 0; i < kEach; ++i) {
        int unit = t * kEach + i;
        orv_shared_ptr<ASRDispatchTaskBase> task(new LedgerTask(&ledger, unit));
        orv_shared_ptr<Timer> timer = Timer::createTimerWithTask(task, 1 + i % 40, false);
        if (!timer) {
          ++empty_results;
          continue;
        }
        live.push_back(timer);
        // Cancel every other timer, some at once, some after others were made.
        if (i % 2 == 0) {
          size_t pick = (i % 6 == 0) ? live.size() - 1 : (static_cast<size_t>(i) * 7) % live.size();
          if (live[pick]->cancel()) cancelled[t][pick] = 1;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  ASSERT_EQ(empty_results, 0);
  int expected = 0;
  for (auto& v : cancelled) {
    for (int c : v) expected += c ? 0 : 1;
  }
  ASSERT_TRUE(ledger.wait_for(expected, std::chrono::seconds(30)));
  EXPECT_TRUE(orv_test::wait_until([] { return orv_test::timer_thread_state<Timer>() == 0; }, std::chrono::seconds(10)));
  // Nothing more runs once the list is empty; each timer ran as its cancel() said.
  EXPECT_EQ(ledger.done(), expected);
  int wrong = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) wrong += ledger.hits(t * kEach + i) != 1 - cancelled[t][i];
  }
  EXPECT_EQ(wrong, 0);
  int late_cancels = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) late_cancels += all[t][i]->cancel() ? 1 : 0;
  }
  EXPECT_EQ(late_cancels, 0) << "cancel() of a fired or cancelled timer must be false";
  {
    Timer::TimerThreadState.Lock();
    EXPECT_TRUE(Timer::iTimers.empty());
    Timer::TimerThreadState.Unlock();
  }
  orv_stress::report("timers_created", total);
  orv_stress::report("timers_fired", expected);
  orv_stress::report("timers_cancelled", total - expected);
}

TEST(StressTimers, RepeatingTimersCancelOnceFromManyThreads) {
  // Each firing is a pool task and a late timer thread catches up without
  // sleeping, so a few timers at tens of milliseconds are plenty.
  const int kTimers = orv_stress::scaled(24);
  std::atomic<long long> firings{0};
  struct Tick : ASRDispatchTaskBase {
    explicit Tick(std::atomic<long long>* n) : n_(n) {}
    void execute() override { ++*n_; }
    std::atomic<long long>* n_;
  };
  std::vector<orv_shared_ptr<Timer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    orv_shared_ptr<ASRDispatchTaskBase> task(new Tick(&firings));
    timers.push_back(Timer::createTimerWithTask(task, 20 + i % 30, true));
    ASSERT_TRUE(timers.back());
  }
  ASSERT_TRUE(orv_test::wait_until([&] { return firings.load() >= kTimers; }, std::chrono::seconds(20)));
  // Two threads race to cancel each timer: exactly one wins.
  std::atomic<int> wins{0};
  std::vector<std::thread> cancellers;
  for (int c = 0; c < 2; ++c) {
    cancellers.emplace_back([&] {
      for (auto& t : timers) wins += t->cancel() ? 1 : 0;
    });
  }
  for (auto& t : cancellers) t.join();
  EXPECT_EQ(wins, kTimers);
  EXPECT_TRUE(orv_test::wait_until([] { return orv_test::timer_thread_state<Timer>() == 0; }, std::chrono::seconds(10)));
  orv_stress::report("repeating_timers", kTimers);
  orv_stress::report("repeating_firings", firings.load());
}

TEST(StressTimers, RefreshTimersRefreshedAndCancelledConcurrently) {
  const int kTimers = orv_stress::scaled(300);
  Ledger ledger(kTimers);
  std::vector<orv_shared_ptr<RefreshTimer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    orv_shared_ptr<ASRDispatchTaskBase> task(new LedgerTask(&ledger, i));
    timers.push_back(RefreshTimer::createTimerWithTask(task, 20 + i % 30));
    ASSERT_TRUE(timers.back());
  }
  std::vector<int> cancelled(kTimers, 0);
  std::atomic<long long> refreshes{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> refreshers;
  for (int r = 0; r < 2; ++r) {
    refreshers.emplace_back([&, r] {
      for (int pass = 0; pass < 20 && !stop.load(); ++pass) {
        for (int i = r; i < kTimers; i += 2) {
          EXPECT_TRUE(timers[i]->refresh());
          ++refreshes;
        }
      }
    });
  }
  // Cancel a third of them while they are being refreshed.
  for (int i = 0; i < kTimers; i += 3) cancelled[i] = timers[i]->cancel() ? 1 : 0;
  stop = true;
  for (auto& t : refreshers) t.join();
  int expected = 0;
  for (int i = 0; i < kTimers; ++i) expected += cancelled[i] ? 0 : 1;
  ASSERT_TRUE(ledger.wait_for(expected, std::chrono::seconds(30)));
  EXPECT_TRUE(orv_test::wait_until([] { return orv_test::timer_thread_state<RefreshTimer>() == 0; },
                                   std::chrono::seconds(10)));
  EXPECT_EQ(ledger.done(), expected);
  int wrong = 0, late_cancels = 0;
  for (int i = 0; i < kTimers; ++i) {
    wrong += ledger.hits(i) != 1 - cancelled[i];
    late_cancels += timers[i]->cancel() ? 1 : 0;
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(late_cancels, 0);
  // refresh() after firing or cancelling changes nothing.
  for (auto& t : timers) EXPECT_TRUE(t->refresh());
  orv_stress::report("refresh_timers", kTimers);
  orv_stress::report("refreshes", refreshes.load());
  orv_stress::report("refresh_timers_fired", expected);
}

}  // namespace
