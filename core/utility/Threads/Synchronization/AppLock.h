/// @file
/// AppLock: scoped lock on an AppMutex. A null mutex makes it do nothing.
/// ReleaseMutex() hands the unlock over to the caller: the destructor then
/// leaves the mutex locked. Not shared between threads.
#ifndef ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPLOCK_H
#define ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPLOCK_H

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Threads {
namespace Synchronization {

class ORV_API AppLock {
 public:
  explicit AppLock(AppMutex* m);
  ~AppLock();
  /// Forgets the mutex without unlocking it.
  void ReleaseMutex();

  AppLock(const AppLock&) = delete;
  AppLock& operator=(const AppLock&) = delete;

  AppMutex* _mutex_ptr;
};

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPLOCK_H
