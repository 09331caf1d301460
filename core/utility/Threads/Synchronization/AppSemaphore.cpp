#include "core/utility/Threads/Synchronization/AppSemaphore.h"

namespace orv {
namespace Threads {
namespace Synchronization {

AppSemaphore::AppSemaphore(int initial)
    : _value(initial), _condition_mutex(new AppConditionMutex(0)) {}

AppSemaphore::~AppSemaphore() { delete _condition_mutex; }

int AppSemaphore::wait() {
  _condition_mutex->Lock();
  while (_value == 0) _condition_mutex->wait();
  int value = --_value;
  if (value > 0) _condition_mutex->signal();
  _condition_mutex->Unlock();
  return value;
}

int AppSemaphore::post() {
  _condition_mutex->Lock();
  int value = ++_value;
  _condition_mutex->signal();
  _condition_mutex->Unlock();
  return value;
}

int AppSemaphore::getValue() {
  _condition_mutex->Lock();
  int value = _value;
  _condition_mutex->Unlock();
  return value;
}

void AppSemaphore::setValue(int value) {
  _condition_mutex->Lock();
  _value = value;
  if (value > 0) _condition_mutex->signal();
  _condition_mutex->Unlock();
}

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv
