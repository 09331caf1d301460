#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"

namespace {

using orv::param;
using orv::paramBase;

const std::string kStringType = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

TEST(Param, ValueTypesAndAccessors) {
  paramBase i(5);
  EXPECT_EQ(i.get_value_type(), "i");
  EXPECT_EQ(i.valueInt(), 5);
  EXPECT_EQ(i.valueInt32(), 5);
  i = std::string("x");
  EXPECT_EQ(i.get_value_type(), kStringType);
  EXPECT_EQ(i.valueString(), "x");

  EXPECT_EQ(paramBase(static_cast<signed char>(-1)).get_value_type(), "a");
  EXPECT_EQ(paramBase(static_cast<signed char>(-1)).valueInt8(), -1);
  EXPECT_EQ(paramBase(static_cast<short>(-300)).get_value_type(), "s");
  EXPECT_EQ(paramBase(static_cast<short>(-300)).valueInt16(), -300);
  EXPECT_EQ(paramBase(1234567890123LL).get_value_type(), "x");
  EXPECT_EQ(paramBase(1234567890123LL).valueInt64(), 1234567890123LL);
  EXPECT_EQ(paramBase(true).get_value_type(), "b");
  EXPECT_TRUE(paramBase(true).valueBool());
  EXPECT_EQ(paramBase(2.5f).get_value_type(), "f");
  EXPECT_EQ(paramBase(2.5f).valueFloat(), 2.5f);
  int target = 0;
  paramBase pointer(static_cast<void*>(&target));
  EXPECT_EQ(pointer.get_value_type(), "Pv");
  EXPECT_EQ(pointer.valuePtr(), &target);
  EXPECT_EQ(paramBase(std::string("s")).get_value_type(), kStringType);
  // A string literal makes a string parameter, not a bool.
  EXPECT_EQ(paramBase("text").get_value_type(), kStringType);
  EXPECT_EQ(paramBase("text").valueString(), "text");
}

TEST(Param, MismatchedAccessorsReadRawStorage) {
  paramBase i(-2);
  // The low half of the 64-bit read is the int; the rest is whatever follows.
  EXPECT_EQ(static_cast<int>(i.valueInt64() & 0xffffffff), -2);
  EXPECT_EQ(i.valueInt8(), static_cast<signed char>(0xfe));
  EXPECT_EQ(i.valueInt16(), static_cast<short>(0xfffe));
  paramBase f(1.0f);
  EXPECT_EQ(static_cast<unsigned>(f.valueInt()), 0x3f800000u);
  if (sizeof(void*) == sizeof(int)) {
    paramBase word(0x1234);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(word.valuePtr()), 0x1234u);
  }
}

TEST(Param, AssignmentChangesTypeAndFreesTheOldBody) {
  paramBase p(1);
  paramBase* first_body = p._instance;
  EXPECT_NE(first_body, &p);
  EXPECT_EQ(first_body->_instance, first_body);  // a body points to itself
  p = 2.0f;
  EXPECT_EQ(p.get_value_type(), "f");
  p = static_cast<signed char>(3);
  p = static_cast<short>(4);
  p = 5LL;
  EXPECT_EQ(p.valueInt64(), 5);
  p = false;
  EXPECT_FALSE(p.valueBool());
  p = static_cast<void*>(nullptr);
  EXPECT_EQ(p.valuePtr(), nullptr);
  p = 6;
  EXPECT_EQ(p.valueInt(), 6);
  // ASan reports any body that was not freed on the way.
}

TEST(Param, BodiesAssignInPlaceOrHangANewInstance) {
  param<int> body(1);
  EXPECT_EQ(body._instance, &body);
  body = 9;  // own type: in place
  EXPECT_EQ(body._value, 9);
  EXPECT_EQ(body._instance, &body);
  EXPECT_EQ(body.valueInt(), 9);
  body = std::string("other");  // other type: a new instance under the body
  EXPECT_NE(body._instance, &body);
  EXPECT_EQ(body.valueString(), "other");
  EXPECT_EQ(body.get_value_type(), "i");  // the body's own type is unchanged
}

TEST(Param, CopyInstanceIsIndependent) {
  paramBase source(std::string("original"));
  paramBase* copy = source.copyInstance();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->_instance, copy);
  EXPECT_EQ(copy->valueString(), "original");
  *copy = std::string("changed");
  EXPECT_EQ(source.valueString(), "original");
  EXPECT_EQ(copy->valueString(), "changed");
  delete copy;

  paramBase cleared(7);
  cleared.clearOldInstance();
  EXPECT_EQ(cleared._instance, &cleared);
  EXPECT_EQ(cleared.copyInstance(), nullptr);
  EXPECT_EQ(cleared.get_value_type(), "");
  cleared = 8;  // usable again
  EXPECT_EQ(cleared.valueInt(), 8);
}

TEST(Param, NullStringThrows) {
  EXPECT_THROW(paramBase(static_cast<const char*>(nullptr)), std::logic_error);
  paramBase p(1);
  EXPECT_THROW(p = static_cast<const char*>(nullptr), std::logic_error);
  EXPECT_EQ(p.valueInt(), 1);
}

TEST(Param, ConcurrentAssignmentsOnSeparateParameters) {
  const int kThreads = 4, kRounds = 5000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      paramBase p(t);
      for (int i = 0; i < kRounds; ++i) {
        p = std::string("s");
        p = i;
        EXPECT_EQ(p.valueInt(), i);
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
