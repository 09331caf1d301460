#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using orv::Threads::Synchronization::AppConditionMutex;
using orv::Threads::Synchronization::AppLock;
using orv::Threads::Synchronization::AppMutex;
using orv::Threads::Synchronization::AppSemaphore;
using orv_test::held_elsewhere;
using orv_test::wait_until;

// Checking that a thread is still blocked has no event to await: give it a
// short while and check it has not moved.
void give_waiter_a_chance() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }

TEST(AppMutexTest, NormalAndRecursive) {
  AppMutex normal(false);
  EXPECT_EQ(normal.Lock(), 0);
  EXPECT_FALSE(normal.tryLock());
  EXPECT_TRUE(held_elsewhere(normal));
  EXPECT_EQ(normal.Unlock(), 0);
  EXPECT_TRUE(normal.tryLock());
  normal.Unlock();

  AppMutex recursive(true);
  recursive.Lock();
  EXPECT_TRUE(recursive.tryLock());
  recursive.Lock();
  recursive.Unlock();
  recursive.Unlock();
  EXPECT_TRUE(held_elsewhere(recursive));
  recursive.Unlock();
  EXPECT_FALSE(held_elsewhere(recursive));
}

TEST(AppLockTest, ScopeNullAndRelease) {
  { AppLock nothing(nullptr); }
  AppMutex m(false);
  {
    AppLock lock(&m);
    EXPECT_EQ(lock._mutex_ptr, &m);
    EXPECT_TRUE(held_elsewhere(m));
  }
  EXPECT_FALSE(held_elsewhere(m));
  {
    AppLock lock(&m);
    lock.ReleaseMutex();
    EXPECT_EQ(lock._mutex_ptr, nullptr);
  }
  EXPECT_TRUE(held_elsewhere(m));
  m.Unlock();
}

TEST(AppConditionMutexTest, ZeroFlagsReturnAtOnceHoldingTheLock) {
  AppConditionMutex c(0);
  c.lockWhenFlags(0);
  EXPECT_TRUE(held_elsewhere(c));
  c.Unlock();
  c.lockWhenNotFlags(0);
  EXPECT_TRUE(held_elsewhere(c));
  c.unlockSettingFlags(0);
  EXPECT_EQ(c._condition, 0);
}

TEST(AppConditionMutexTest, FlagArithmetic) {
  AppConditionMutex c(0b100);
  c.Lock();
  c.unlockSettingFlags(0b011);
  EXPECT_EQ(c._condition, 0b111);
  c.Lock();
  c.unlockClearingFlags(0b001);
  EXPECT_EQ(c._condition, 0b110);
  c.Lock();
  c.unlockWithFlags(0b001, 0b100);
  EXPECT_EQ(c._condition, 0b011);
  c.Lock();
  c.unlockWithFlags(0b1000, 0b1000);  // a bit in both is cleared
  EXPECT_EQ(c._condition, 0b011);
  c.Lock();
  c.unlockWithCondition(-5);
  EXPECT_EQ(c._condition, -5);
  c.Lock();
  c.Unlock();  // plain unlock leaves the word
  EXPECT_EQ(c._condition, -5);
}

// lockWhenFlags waits for all its bits, lockWhenNotFlags until none is set;
// an unlock that changes only part of it leaves the waiter blocked.
TEST(AppConditionMutexTest, FlagWaitsNeedTheWholeCondition) {
  for (bool all : {true, false}) {
    AppConditionMutex c(all ? 0b100 : 0b101);
    std::atomic<bool> through{false};
    std::thread waiter([&] {
      all ? c.lockWhenFlags(0b101) : c.lockWhenNotFlags(0b101);
      through = true;
      EXPECT_EQ(c._condition & 0b101, all ? 0b101 : 0);
      c.Unlock();
    });
    c.Lock();
    all ? c.unlockSettingFlags(0b010) : c.unlockClearingFlags(0b001);
    give_waiter_a_chance();
    EXPECT_FALSE(through) << all;
    c.Lock();
    all ? c.unlockSettingFlags(0b001) : c.unlockClearingFlags(0b100);
    EXPECT_TRUE(wait_until([&] { return through.load(); }));
    waiter.join();
  }
}

TEST(AppConditionMutexTest, EveryUnlockWakesAllWaiters) {
  AppConditionMutex c(0);
  const int kWaiters = 4;
  std::atomic<int> through{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      c.lockWhenCondition(7);
      ++through;
      c.Unlock();
    });
  }
  give_waiter_a_chance();
  EXPECT_EQ(through, 0);
  c.Lock();
  c.unlockWithCondition(7);
  EXPECT_TRUE(wait_until([&] { return through.load() == kWaiters; }));
  for (auto& w : waiters) w.join();
}

TEST(AppSemaphoreTest, CountsAndNegativeValueDoesNotBlock) {
  AppSemaphore s(0);
  EXPECT_EQ(s.post(), 1);  // no waiter: only the count rises
  EXPECT_EQ(s.getValue(), 1);
  EXPECT_EQ(s.wait(), 0);  // returns at once
  s.setValue(-2);
  EXPECT_EQ(s.wait(), -3);  // deliberate: only 0 blocks
  EXPECT_EQ(s.getValue(), -3);
  s.setValue(2);
  EXPECT_EQ(s.wait(), 1);
  EXPECT_EQ(s.wait(), 0);
}

TEST(AppSemaphoreTest, WaitersBlockUntilPosted) {
  AppSemaphore s(0);
  std::atomic<int> through{0};
  std::thread a([&] { s.wait(); ++through; });
  std::thread b([&] { s.wait(); ++through; });
  give_waiter_a_chance();
  EXPECT_EQ(through, 0);
  s.post();
  EXPECT_TRUE(wait_until([&] { return through.load() == 1; }));
  give_waiter_a_chance();
  EXPECT_EQ(through, 1);
  s.setValue(1);
  EXPECT_TRUE(wait_until([&] { return through.load() == 2; }));
  a.join();
  b.join();
  EXPECT_EQ(s.getValue(), 0);
}

TEST(AppSemaphoreTest, SetValueReleasesSeveralWaitersInTurn) {
  AppSemaphore s(0);
  const int kWaiters = 3;
  std::atomic<int> through{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) waiters.emplace_back([&] { s.wait(); ++through; });
  give_waiter_a_chance();
  s.setValue(kWaiters);  // one signal; each waiter passes it on while the count stays above 0
  EXPECT_TRUE(wait_until([&] { return through.load() == kWaiters; }));
  for (auto& w : waiters) w.join();
  EXPECT_EQ(s.getValue(), 0);
}

TEST(AppSemaphoreTest, ProducersAndConsumersBalance) {
  AppSemaphore s(0);
  const int kPerThread = 5000;
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] { for (int n = 0; n < kPerThread; ++n) s.post(); });
    threads.emplace_back([&] { for (int n = 0; n < kPerThread; ++n) s.wait(); });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(s.getValue(), 0);
}

}  // namespace
