/// @file
/// AppMutex: a pthread mutex, normal or recursive, with virtual lock operations
/// (AppConditionMutex and the shared-pointer control object derive from it and
/// keep the lock slots).
///
/// Set-up failures log a FATAL line and end the process with status -1. Lock
/// results are returned unexamined. A non-recursive mutex locked again by its
/// holder deadlocks.
#ifndef ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPMUTEX_H
#define ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPMUTEX_H

#include <pthread.h>

#include "core/orv_api.h"

namespace orv {
namespace Threads {
namespace Synchronization {

class ORV_API AppMutex {
 public:
  explicit AppMutex(bool recursive);
  virtual ~AppMutex();
  virtual int Lock();
  virtual int Unlock();
  /// True when the mutex was free and is now held.
  virtual bool tryLock();

  AppMutex(const AppMutex&) = delete;
  AppMutex& operator=(const AppMutex&) = delete;

  pthread_mutex_t _mutex;
};

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPMUTEX_H
