#include "core/orv_param.h"

#include "core/utility/Threads/Synchronization/AppLock.h"

namespace orv {

using Threads::Synchronization::AppLock;

Threads::Synchronization::AppMutex paramBase::_param_mutex(true);

paramBase::paramBase(signed char value) : _instance(new param<signed char>(value)) {}
paramBase::paramBase(short value) : _instance(new param<short>(value)) {}
paramBase::paramBase(int value) : _instance(new param<int>(value)) {}
paramBase::paramBase(long long value) : _instance(new param<long long>(value)) {}
paramBase::paramBase(bool value) : _instance(new param<bool>(value)) {}
paramBase::paramBase(void* value) : _instance(new param<void*>(value)) {}
paramBase::paramBase(float value) : _instance(new param<float>(value)) {}
paramBase::paramBase(const std::string& value) : _instance(new param<std::string>(value)) {}
paramBase::paramBase(const char* value) : _instance(new param<std::string>(std::string(value))) {}

paramBase::~paramBase() { clearOldInstance(); }

paramBase* paramBase::copyInstance() const {
  if (_instance == nullptr || _instance == this) return nullptr;
  return _instance->copyInstance();
}

void paramBase::clearOldInstance() {
  AppLock lock(&_param_mutex);
  if (_instance != nullptr && _instance != this) delete _instance;
  _instance = this;
}

void paramBase::replaceInstance(paramBase* body) { _instance = body; }

// The old body goes under the lock; the new one is made after it.
paramBase& paramBase::operator=(float value) {
  clearOldInstance();
  replaceInstance(new param<float>(value));
  return *this;
}
paramBase& paramBase::operator=(signed char value) {
  clearOldInstance();
  replaceInstance(new param<signed char>(value));
  return *this;
}
paramBase& paramBase::operator=(short value) {
  clearOldInstance();
  replaceInstance(new param<short>(value));
  return *this;
}
paramBase& paramBase::operator=(int value) {
  clearOldInstance();
  replaceInstance(new param<int>(value));
  return *this;
}
paramBase& paramBase::operator=(long long value) {
  clearOldInstance();
  replaceInstance(new param<long long>(value));
  return *this;
}
paramBase& paramBase::operator=(bool value) {
  clearOldInstance();
  replaceInstance(new param<bool>(value));
  return *this;
}
paramBase& paramBase::operator=(std::string value) {
  clearOldInstance();
  replaceInstance(new param<std::string>(value));
  return *this;
}
paramBase& paramBase::operator=(void* value) {
  clearOldInstance();
  replaceInstance(new param<void*>(value));
  return *this;
}

std::string paramBase::get_value_type() {
  if (_instance == nullptr || _instance == this) return "";
  return _instance->get_value_type();
}

std::string paramBase::valueString() const {
  return static_cast<const param<std::string>*>(_instance)->_value;
}

}  // namespace orv
