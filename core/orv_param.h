/// @file
/// Parameters: paramBase is a small tagged value (signed char, short, int,
/// long long, bool, void*, float or std::string) kept by name in a ParamMap.
///
/// A paramBase is a handle on a heap body, a param<T> of the held type, whose
/// own instance pointer points to itself. Assigning a value of any type
/// replaces the body, so a handle can change type. The accessors read the
/// body's storage as the asked type without conversion or check: look at
/// get_value_type() first ("i", "x", "b", "Pv", "f", "a", "s", or the string
/// type's name). valuePtr() reads a pointer-sized word: on 32-bit targets the
/// same word as valueInt().
///
/// A handle owns its body and deletes it when destroyed or reassigned. The
/// implicit copy of a handle copies only the body pointer, so never copy a
/// handle by value while its source lives: duplicate with copyInstance() and
/// share maps through orv_shared_ptr<ParamMap>.
///
/// Thread safety: every body deletion (assignment, destruction,
/// clearOldInstance) is serialised by the process-wide recursive
/// _param_mutex; reads take no lock. A map shared between threads needs
/// outside locking for anything but reading.
#ifndef ORV_CORE_ORV_PARAM_H
#define ORV_CORE_ORV_PARAM_H

#include <string.h>

#include <map>
#include <string>
#include <typeinfo>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {

class ORV_API paramBase {
 public:
  paramBase(signed char value);
  paramBase(short value);
  paramBase(int value);
  paramBase(long long value);
  paramBase(bool value);
  paramBase(void* value);
  paramBase(float value);
  paramBase(const std::string& value);
  /// A string parameter (not a bool); null throws std::logic_error.
  paramBase(const char* value);

  /// Deep copy of the body, owned by the caller; null when there is none.
  virtual paramBase* copyInstance() const;
  virtual paramBase& operator=(float value);
  virtual paramBase& operator=(signed char value);
  virtual paramBase& operator=(short value);
  virtual paramBase& operator=(int value);
  virtual paramBase& operator=(long long value);
  virtual paramBase& operator=(bool value);
  virtual paramBase& operator=(std::string value);
  virtual paramBase& operator=(void* value);
  virtual ~paramBase();
  /// The body's type name; "" for a handle without a body.
  virtual std::string get_value_type();

  paramBase& operator=(const char* value) { return *this = std::string(value); }

  int valueInt() const { return read<int>(); }
  int valueInt32() const { return read<int>(); }
  void* valuePtr() const { return read<void*>(); }
  signed char valueInt8() const { return read<signed char>(); }
  short valueInt16() const { return read<short>(); }
  long long valueInt64() const { return read<long long>(); }
  bool valueBool() const { return read<bool>(); }
  float valueFloat() const { return read<float>(); }
  std::string valueString() const;

  /// Deletes the body (unless it is this object) and points the instance at
  /// this object.
  void clearOldInstance();

  static Threads::Synchronization::AppMutex _param_mutex;

  paramBase* _instance;

 protected:
  struct body_tag {};
  explicit paramBase(body_tag) : _instance(this) {}
  /// Replaces the body by a new one.
  void replaceInstance(paramBase* body);

 private:
  /// The value of every body starts right after the paramBase part.
  const void* storage() const { return reinterpret_cast<const char*>(_instance) + sizeof(paramBase); }
  template <class V>
  V read() const {
    V value;
    memcpy(&value, storage(), sizeof(V));
    return value;
  }
};

template <class T>
class param : public paramBase {
 public:
  explicit param(const T& value) : paramBase(body_tag()), _value(value) {}

  paramBase* copyInstance() const override { return new param<T>(_value); }
  using paramBase::operator=;
  paramBase& operator=(T value) override {
    _value = value;
    return *this;
  }
  ~param() override {}
  std::string get_value_type() override {
    const char* name = typeid(T).name();
    return name[0] == '*' ? name + 1 : name;
  }

  /// Aligned so that reading any accessor's width stays inside the body.
  alignas(8) T _value;
};

typedef std::map<std::string, paramBase> ParamMap;

}  // namespace orv

#endif  // ORV_CORE_ORV_PARAM_H
