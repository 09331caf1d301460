#include <openssl/crypto.h>
#include <pthread.h>
#include <signal.h>

#include <future>
#include <thread>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/thread_test_support.h"

namespace {

using orv::Networking::OpensslThreadLock;
using orv::Threads::Synchronization::AppMutex;
using orv_test::held_elsewhere;

bool sigpipe_blocked() {
  sigset_t current;
  pthread_sigmask(SIG_BLOCK, nullptr, &current);
  return sigismember(&current, SIGPIPE) == 1;
}

TEST(OpensslThreadLockTest, InitOnceBlocksSigpipeInTheCallerOnly) {
  // Made before init_locks, so it does not inherit the new mask.
  std::promise<void> go;
  std::shared_future<void> started = go.get_future().share();
  std::future<bool> other = std::async(std::launch::async, [started] {
    started.wait();
    OpensslThreadLock::init_locks();
    return sigpipe_blocked();
  });

  ASSERT_FALSE(sigpipe_blocked());
  OpensslThreadLock::clean_locks();  // not installed: nothing happens
  EXPECT_FALSE(OpensslThreadLock::_s_has_initialized);
  EXPECT_TRUE(OpensslThreadLock::_s_lock_array.empty());

  OpensslThreadLock::init_locks();
  EXPECT_TRUE(OpensslThreadLock::_s_has_initialized);
  EXPECT_TRUE(sigpipe_blocked());
  ASSERT_EQ(OpensslThreadLock::_s_lock_array.size(), static_cast<size_t>(CRYPTO_num_locks()));
  AppMutex* first = OpensslThreadLock::_s_lock_array[0];

  go.set_value();
  EXPECT_FALSE(other.get());
  OpensslThreadLock::init_locks();
  ASSERT_EQ(OpensslThreadLock::_s_lock_array.size(), static_cast<size_t>(CRYPTO_num_locks()));
  EXPECT_EQ(OpensslThreadLock::_s_lock_array[0], first);

  OpensslThreadLock::clean_locks();
  EXPECT_FALSE(OpensslThreadLock::_s_has_initialized);
  EXPECT_TRUE(OpensslThreadLock::_s_lock_array.empty());
  OpensslThreadLock::init_locks();
  EXPECT_EQ(OpensslThreadLock::_s_lock_array.size(), static_cast<size_t>(CRYPTO_num_locks()));
  OpensslThreadLock::clean_locks();
}

TEST(OpensslThreadLockTest, LockCallbackAndThreadId) {
  OpensslThreadLock::init_locks();
  const int last = static_cast<int>(OpensslThreadLock::_s_lock_array.size()) - 1;
  AppMutex* m = OpensslThreadLock::_s_lock_array[last];
  OpensslThreadLock::lock_callback(CRYPTO_LOCK, last, __FILE__, __LINE__);
  EXPECT_TRUE(held_elsewhere(*m));
  OpensslThreadLock::lock_callback(CRYPTO_UNLOCK, last, nullptr, 0);
  EXPECT_FALSE(held_elsewhere(*m));
  // Bit 0 decides: a read lock (lock | read) locks, a bare read unlocks.
  OpensslThreadLock::lock_callback(CRYPTO_LOCK | CRYPTO_READ, last, nullptr, 0);
  EXPECT_TRUE(held_elsewhere(*m));
  OpensslThreadLock::lock_callback(CRYPTO_READ, last, nullptr, 0);
  EXPECT_FALSE(held_elsewhere(*m));

  EXPECT_EQ(OpensslThreadLock::id_callback(), static_cast<unsigned long>(pthread_self()));
  unsigned long other = 0;
  std::thread([&] { other = OpensslThreadLock::id_callback(); }).join();
  EXPECT_NE(other, OpensslThreadLock::id_callback());
  OpensslThreadLock::clean_locks();
}

}  // namespace
