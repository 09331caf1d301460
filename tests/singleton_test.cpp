#include <atomic>
#include <new>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::Singleton;

std::atomic<int> constructed{0};
std::atomic<int> child_inits{0};
std::atomic<int> destroyed{0};

class Service : public Singleton<Service> {
 public:
  Service() { ++constructed; }
  ~Service() override { ++destroyed; }
  void childInit() override {
    ++child_inits;
    // The mutex is recursive: init code may ask for the instance again.
    orv_shared_ptr<Service> again = Singleton<Service>::instance();
    reentered_same = again.getPTR() == this;
  }
  bool reentered_same = false;
};

class SingletonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    constructed = 0;
    child_inits = 0;
    destroyed = 0;
  }
};

TEST_F(SingletonTest, ConcurrentFirstCallsMakeOneInstance) {
  const int kThreads = 8;
  std::vector<std::thread> threads;
  std::vector<Service*> seen(kThreads, nullptr);
  std::atomic<bool> go{false};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go) {
      }
      seen[t] = Service::instance().getPTR();
    });
  }
  go = true;
  for (auto& thread : threads) thread.join();
  ASSERT_NE(seen[0], nullptr);
  for (Service* s : seen) EXPECT_EQ(s, seen[0]);
  EXPECT_EQ(constructed, 1);
  EXPECT_EQ(child_inits, 1);
  EXPECT_TRUE(seen[0]->reentered_same);
}

TEST_F(SingletonTest, StrongReferenceRestoredOrInstanceRecreated) {
  orv_shared_ptr<Service> held = Service::instance();
  // Drop the strong reference while a holder keeps the object: instance()
  // holds it strongly again.
  Service::instanceStrongRef.releaseManagedPointer();
  orv_shared_ptr<Service> again = Service::instance();
  EXPECT_EQ(again.getPTR(), held.getPTR());
  EXPECT_EQ(Service::instanceStrongRef.getPTR(), held.getPTR());
  EXPECT_EQ(constructed, 1);

  // Drop every reference: the singleton dies and the next call makes a new one.
  Service::instanceStrongRef.releaseManagedPointer();
  held.releaseManagedPointer();
  again.releaseManagedPointer();
  EXPECT_EQ(destroyed, 1);
  orv_shared_ptr<Service> fresh = Service::instance();
  ASSERT_NE(fresh.getPTR(), nullptr);
  EXPECT_EQ(constructed, 2);
  EXPECT_EQ(child_inits, 2);
}

// A type whose allocation yields null makes instance() end in its assertion.
class Unmakeable : public Singleton<Unmakeable> {
 public:
  static void* operator new(size_t) noexcept { return nullptr; }
  static void operator delete(void*) noexcept {}
};

TEST(SingletonDeathTest, NullInstanceAborts) {
  // Re-executing the test program is impossible under user-mode emulation;
  // forking alone is safe here, as this test starts no thread.
  GTEST_FLAG_SET(death_test_style, orv_test::under_user_emulation() ? "fast" : "threadsafe");
  EXPECT_DEATH(Unmakeable::instance(),
               "core/utility/Memory/singleton\\.h:53: .*Assertion `ref\\.getPTR\\(\\) != NULL' "
               "failed\\.");
}

}  // namespace
