/// @file
/// AppSemaphore: a counting semaphore on an AppConditionMutex.
///
/// wait() blocks only while the count is exactly 0: a count set negative with
/// setValue() does not block and goes further below zero. That is deliberate.
/// All operations may be called from any thread.
#ifndef ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPSEMAPHORE_H
#define ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPSEMAPHORE_H

#include <stdint.h>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

namespace orv {
namespace Threads {
namespace Synchronization {

class ORV_API AppSemaphore {
 public:
  explicit AppSemaphore(int initial);
  virtual ~AppSemaphore();

  /// Waits while the count is 0, then decrements; returns the new count.
  int wait();
  /// Increments and wakes one waiter; returns the new count.
  int post();
  int getValue();
  /// Sets the count; wakes one waiter when it is above 0.
  void setValue(int value);

  AppSemaphore(const AppSemaphore&) = delete;
  AppSemaphore& operator=(const AppSemaphore&) = delete;

  int32_t _value;
  AppConditionMutex* _condition_mutex;
};

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPSEMAPHORE_H
