#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

#include <stdlib.h>

#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {
namespace Synchronization {

AppConditionMutex::AppConditionMutex(int initial) : AppMutex(false), _condition(initial) {
  if (pthread_cond_init(&_cond, nullptr) != 0) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:32]%s, Error: pthread_cond_init failed\n\n",
                  "AppConditionMutex");
    exit(-1);
  }
}

AppConditionMutex::~AppConditionMutex() { pthread_cond_destroy(&_cond); }

void AppConditionMutex::lockWhenCondition(int value) {
  Lock();
  while (_condition != value) wait();
}

void AppConditionMutex::unlockWithCondition(int value) {
  _condition = value;
  broadcast();
  Unlock();
}

void AppConditionMutex::lockWhenFlags(int flags) {
  Lock();
  while ((_condition & flags) != flags) wait();
}

void AppConditionMutex::lockWhenNotFlags(int flags) {
  Lock();
  while ((_condition & flags) != 0) wait();
}

void AppConditionMutex::unlockSettingFlags(int flags) {
  _condition |= flags;
  broadcast();
  Unlock();
}

void AppConditionMutex::unlockWithFlags(int set, int clear) {
  _condition = (_condition | set) & ~clear;
  broadcast();
  Unlock();
}

void AppConditionMutex::unlockClearingFlags(int flags) {
  _condition &= ~flags;
  broadcast();
  Unlock();
}

void AppConditionMutex::wait() { pthread_cond_wait(&_cond, &_mutex); }

void AppConditionMutex::broadcast() { pthread_cond_broadcast(&_cond); }

void AppConditionMutex::signal() { pthread_cond_signal(&_cond); }

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv
