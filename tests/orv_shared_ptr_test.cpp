#include <atomic>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "core/utility/Memory/orv_shared_ptr_backlog_internal.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;

struct Tracked {
  explicit Tracked(std::atomic<int>* deaths) : deaths(deaths) {}
  virtual ~Tracked() { ++*deaths; }
  std::atomic<int>* deaths;
  int value = 7;
};

struct Derived : Tracked {
  Derived(std::atomic<int>* deaths, std::atomic<int>* derived_deaths)
      : Tracked(deaths), derived_deaths(derived_deaths) {}
  ~Derived() override { ++*derived_deaths; }
  std::atomic<int>* derived_deaths;
};

uint32_t strong(const orv_shared_ptr_base& p) { return p._control->_strong_count; }
uint32_t total(const orv_shared_ptr_base& p) { return p._control->_ref_count; }

TEST(SharedPtr, CountsThroughCopyAssignAndRelease) {
  std::atomic<int> deaths{0};
  orv_shared_ptr<Tracked> empty;
  EXPECT_FALSE(empty);
  empty.releaseManagedPointer();  // nothing to do

  EXPECT_EQ(orv_shared_ptr<Tracked>(static_cast<Tracked*>(nullptr))._control, nullptr);

  Tracked* raw = new Tracked(&deaths);
  orv_shared_ptr<Tracked> a(raw);
  EXPECT_EQ(strong(a), 1u);
  EXPECT_EQ(total(a), 1u);
  EXPECT_EQ(a.getPTR(), raw);
  {
    orv_shared_ptr<Tracked> b(a);
    orv_shared_ptr<Tracked> c;
    c = b;
    orv_weak_ptr<Tracked> w(a);
    EXPECT_EQ(strong(a), 3u);
    EXPECT_EQ(total(a), 4u);
    EXPECT_EQ(a._control, w._control);
  }
  EXPECT_EQ(strong(a), 1u);
  EXPECT_EQ(total(a), 1u);

  // Self-assignment of the last strong pointer, through an alias.
  orv_shared_ptr<Tracked>& alias = a;
  a = alias;
  a = static_cast<const orv_shared_ptr_base&>(alias);
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(strong(a), 1u);

  a = empty;  // copying from empty releases and empties
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(a._control, nullptr);
}

TEST(SharedPtr, WeakPointersOutliveTheObject) {
  std::atomic<int> deaths{0};
  orv_shared_ptr<Tracked> s(new Tracked(&deaths));
  orv_weak_ptr<Tracked> w1(s);
  orv_weak_ptr<Tracked> w2;
  w2 = w1;
  orv::Memory::orv_shared_ptr_control_object* control = s._control;

  orv_shared_ptr<Tracked> promoted(w1);
  EXPECT_EQ(promoted.getPTR(), s.getPTR());
  promoted.releaseManagedPointer();

  s.releaseManagedPointer();
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(control->_ptr.load(), nullptr);
  EXPECT_EQ(control->_strong_count, 0u);
  EXPECT_EQ(control->_ref_count, 2u);

  // Promotion after expiry: an expired strong pointer that counts and destroys nothing.
  orv_shared_ptr<Tracked> late(w2);
  EXPECT_EQ(late.getPTR(), nullptr);
  EXPECT_FALSE(late);
  EXPECT_EQ(control->_strong_count, 1u);
  EXPECT_EQ(control->_ref_count, 3u);
  late.releaseManagedPointer();
  EXPECT_EQ(control->_strong_count, 0u);
  EXPECT_EQ(deaths, 1);

  w1.releaseManagedPointer();
  EXPECT_EQ(control->_ref_count, 1u);
  // The last weak pointer frees the control object (ASan reports a leak otherwise).
}

TEST(SharedPtr, GetRefPtrHandsOutOwnedCopies) {
  std::atomic<int> deaths{0};
  orv_shared_ptr<Tracked> s(new Tracked(&deaths));
  orv_shared_ptr_base* strong_copy = s.getRefPtr();
  EXPECT_TRUE(strong_copy->_is_strong);
  EXPECT_EQ(strong(s), 2u);
  EXPECT_EQ(total(s), 2u);

  orv_weak_ptr<Tracked> w(s);
  orv_shared_ptr_base* weak_copy = w.getRefPtr();
  EXPECT_FALSE(weak_copy->_is_strong);
  EXPECT_EQ(strong(s), 2u);  // the temporary strong pointer is gone again
  EXPECT_EQ(total(s), 4u);
  EXPECT_NE(dynamic_cast<orv_weak_ptr<Tracked>*>(weak_copy), nullptr);

  orv_shared_ptr_base untyped(true);
  untyped.copyControlObject_base(&s);
  orv_shared_ptr_base* base_copy = untyped.getRefPtr();
  EXPECT_TRUE(base_copy->_is_strong);
  EXPECT_EQ(base_copy->_deleter, s._deleter);
  EXPECT_EQ(strong(s), 4u);

  delete strong_copy;
  delete weak_copy;
  delete base_copy;
  untyped.releaseManagedPointer();
  EXPECT_EQ(strong(s), 1u);
  EXPECT_EQ(total(s), 2u);
  s.releaseManagedPointer();
  EXPECT_EQ(deaths, 1);

  orv_weak_ptr<Tracked> expired_copy_source(w);
  orv_shared_ptr_base* expired_copy = expired_copy_source.getRefPtr();
  orv_shared_ptr<Tracked> check(*expired_copy);
  EXPECT_EQ(check.getPTR(), nullptr);
  delete expired_copy;
}

TEST(SharedPtr, Comparisons) {
  std::atomic<int> deaths{0};
  Tracked* raw = new Tracked(&deaths);
  orv_shared_ptr<Tracked> a(raw);
  orv_shared_ptr<Tracked> b(a);
  orv_shared_ptr<Tracked> other(new Tracked(&deaths));
  orv_shared_ptr<Tracked> empty;
  EXPECT_TRUE(a.isEqualToRawPtr(raw));
  EXPECT_FALSE(other.isEqualToRawPtr(raw));
  EXPECT_TRUE(empty.isEqualToRawPtr(nullptr));
  EXPECT_TRUE(a.isEqualToManagedPtr(&b));
  EXPECT_FALSE(a.isEqualToManagedPtr(&other));
  EXPECT_FALSE(a.isEqualToManagedPtr(nullptr));
  EXPECT_TRUE(empty.isEqualToManagedPtr(nullptr));
  a.enable_reference_trace();
  EXPECT_TRUE(b._control->_trace_references);
  empty.enable_reference_trace();
}

TEST(SharedPtr, CustomDestructors) {
  static int empty_calls;
  char literal[] = "stays";
  {
    orv_shared_ptr<char> text(literal, orv_shared_ptr_base::emptyDestructor);
    EXPECT_EQ(text._control->_destructor, &orv_shared_ptr_base::emptyDestructor);
  }
  EXPECT_STREQ(literal, "stays");

  // ASan checks that new[] is matched by delete[] here.
  { orv_shared_ptr<char> buffer(new char[64], orv_shared_ptr<char>::arrayDestructor); }
  {
    orv_shared_ptr<unsigned char> bytes(new unsigned char[16],
                                        orv_shared_ptr<unsigned char>::arrayDestructor);
    orv_shared_ptr<unsigned char> copy(bytes);
  }
  empty_calls = 0;
  {
    orv_shared_ptr<int> counted(new int(5), [](void* p) {
      ++empty_calls;
      delete static_cast<int*>(p);
    });
  }
  EXPECT_EQ(empty_calls, 1);
}

TEST(SharedPtr, ConversionsKeepTheRightDeleter) {
  std::atomic<int> deaths{0}, derived_deaths{0};
  {
    orv_shared_ptr<Derived> d(new Derived(&deaths, &derived_deaths));
    orv_shared_ptr<Tracked> base(d);
    EXPECT_EQ(base._deleter, &orv_shared_ptr<Tracked>::deleteManagedPointer);
    d.releaseManagedPointer();
  }
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(derived_deaths, 1);

  // Assigning a promoted weak pointer of another object onto the last strong
  // pointer: the old object goes with the deleter it was made with.
  std::atomic<int> old_derived{0}, old_deaths{0};
  orv_shared_ptr<Tracked> keep(new Tracked(&deaths));
  orv_weak_ptr<Tracked> weak_keep(keep);
  orv_shared_ptr<Derived> last(new Derived(&old_deaths, &old_derived));
  orv_shared_ptr<Derived>& as_derived = last;
  as_derived = orv_shared_ptr<Tracked>(weak_keep);
  EXPECT_EQ(old_deaths, 1);
  EXPECT_EQ(old_derived, 1);
  EXPECT_EQ(strong(keep), 2u);
  last.releaseManagedPointer();
  EXPECT_EQ(deaths, 1);  // keep still holds the object
  EXPECT_EQ(strong(keep), 1u);
}

// An object that keeps a weak pointer to itself and, when destroyed, promotes
// and drops it: the release must not deadlock or count twice.
struct SelfHolder {
  explicit SelfHolder(std::atomic<int>* deaths) : deaths(deaths) {}
  ~SelfHolder() {
    orv_shared_ptr<SelfHolder> again(self);
    promoted_null = again.getPTR() == nullptr;
    self.releaseManagedPointer();
    ++*deaths;
  }
  orv_weak_ptr<SelfHolder> self;
  std::atomic<int>* deaths;
  static bool promoted_null;
};
bool SelfHolder::promoted_null = false;

TEST(SharedPtr, DestructorMayReleasePointersToItself) {
  std::atomic<int> deaths{0};
  orv_shared_ptr<SelfHolder> holder(new SelfHolder(&deaths));
  holder->self = holder;
  EXPECT_EQ(total(holder), 2u);
  holder.releaseManagedPointer();
  EXPECT_EQ(deaths, 1);
  EXPECT_TRUE(SelfHolder::promoted_null);
}

// A strong pointer stored inside the object it owns (a cycle) released by
// the object itself: the pointer is destroyed during its own release.
struct Cycle {
  explicit Cycle(std::atomic<int>* deaths) : deaths(deaths) {}
  ~Cycle() { ++*deaths; }
  orv_shared_ptr<Cycle> self;
  std::atomic<int>* deaths;
};

TEST(SharedPtr, ReleasingTheLastPointerHeldByTheObjectItself) {
  std::atomic<int> deaths{0};
  Cycle* raw = new Cycle(&deaths);
  raw->self = orv_shared_ptr<Cycle>(raw);
  raw->self.releaseManagedPointer();
  EXPECT_EQ(deaths, 1);
}

// Backlogs are taken from the front by moving shares between slots: order
// kept, no count changes, the taken share ends in the destination only, and a
// share the destination held before is released.
TEST(SharedPtr, BacklogTakeFrontMovesSharesInOrder) {
  std::atomic<int> deaths{0};
  std::vector<orv_shared_ptr<Tracked> > keep, backlog;
  for (int i = 0; i < 5; ++i) {
    keep.push_back(orv_shared_ptr<Tracked>(new Tracked(&deaths)));
    keep.back()->value = i;
    backlog.push_back(keep.back());
  }
  orv_shared_ptr<Tracked> out(new Tracked(&deaths));
  for (int i = 0; i < 5; ++i) {
    orv::Memory::take_front(backlog, out);
    ASSERT_EQ(i, out->value);
    EXPECT_EQ(2u, strong(keep[i]));
    EXPECT_EQ(static_cast<size_t>(4 - i), backlog.size());
    for (size_t k = 0; k < backlog.size(); ++k) {
      EXPECT_EQ(static_cast<int>(i + 1 + k), backlog[k]->value);
      EXPECT_EQ(2u, strong(backlog[k]));
      EXPECT_EQ(2u, total(backlog[k]));
    }
  }
  EXPECT_EQ(1, deaths.load());  // only out's first object
  out.releaseManagedPointer();
  EXPECT_EQ(1u, strong(keep[4]));
  keep.clear();
  EXPECT_EQ(6, deaths.load());
}

TEST(SharedPtr, ManyThreadsCopyAndReleaseOneObject) {
  std::atomic<int> deaths{0};
  const int kThreads = 8, kRounds = 20000;
  orv_shared_ptr<Tracked> origin(new Tracked(&deaths));
  orv_weak_ptr<Tracked> watcher(origin);
  std::vector<std::thread> threads;
  std::atomic<int> ready{0};
  for (int t = 0; t < kThreads; ++t) {
    orv_shared_ptr<Tracked> mine(origin);  // copied before the thread starts
    threads.emplace_back([mine, &ready, &deaths] {
      ++ready;
      orv_shared_ptr<Tracked> local;
      orv_weak_ptr<Tracked> weak;
      for (int i = 0; i < kRounds; ++i) {
        orv_shared_ptr<Tracked> copy(mine);
        local = copy;
        weak = local;
        orv_shared_ptr<Tracked> promoted(weak);
        orv_shared_ptr_base* ref = promoted.getRefPtr();
        EXPECT_EQ(static_cast<orv_shared_ptr<Tracked>*>(ref)->getPTR()->value, 7);
        delete ref;
      }
      EXPECT_EQ(deaths.load(), 0);
    });
  }
  origin.releaseManagedPointer();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(deaths, 1);
  orv_shared_ptr<Tracked> gone(watcher);
  EXPECT_EQ(gone.getPTR(), nullptr);
  EXPECT_EQ(watcher._control->_ref_count, 2u);  // watcher and gone
}

TEST(SharedPtr, PromotionRacesWithTheLastRelease) {
  const int kRounds = 3000;
  int promoted_alive = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> deaths{0};
    orv_shared_ptr<Tracked> last(new Tracked(&deaths));
    orv_weak_ptr<Tracked> weak(last);
    std::atomic<bool> go{false};
    bool alive = false;
    std::thread promoter([&] {
      while (!go) {
      }
      orv_shared_ptr<Tracked> p(weak);
      if (p.getPTR() != nullptr) {
        alive = true;
        EXPECT_EQ(p->value, 7);  // never a destroyed object
        EXPECT_EQ(deaths.load(), 0);
      }
    });
    go = true;
    last.releaseManagedPointer();
    promoter.join();
    EXPECT_EQ(deaths, 1);
    promoted_alive += alive ? 1 : 0;
  }
  // Both outcomes are legal; the point is that each round destroyed exactly once.
  RecordProperty("promotions_before_release", promoted_alive);
}

}  // namespace
