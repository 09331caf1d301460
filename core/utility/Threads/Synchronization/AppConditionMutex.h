/// @file
/// AppConditionMutex: a non-recursive mutex carrying an integer condition word,
/// waited on either as a value (lockWhenCondition) or as flag bits
/// (lockWhenFlags, lockWhenNotFlags).
///
/// The lockWhen... operations return holding the lock. Every unlock... operation
/// must be called with the lock held: it updates the word, broadcasts (always,
/// even when the word did not change) and unlocks. Plain Lock()/Unlock() leave
/// the word alone. Read or write _condition only while holding the lock.
///
/// Thread safety: any thread may lock, wait and unlock; waiters sleep on the
/// condition variable with the mutex released and re-check the word on wake.
#ifndef ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPCONDITIONMUTEX_H
#define ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPCONDITIONMUTEX_H

#include <pthread.h>
#include <stdint.h>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Threads {
namespace Synchronization {

class ORV_API AppConditionMutex : public AppMutex {
 public:
  explicit AppConditionMutex(int initial);
  ~AppConditionMutex() override;

  /// Locks, then waits until _condition == value.
  void lockWhenCondition(int value);
  /// Sets _condition = value, broadcasts, unlocks.
  void unlockWithCondition(int value);
  /// Locks, then waits until every bit of flags is set.
  void lockWhenFlags(int flags);
  /// Locks, then waits until no bit of flags is set.
  void lockWhenNotFlags(int flags);
  /// _condition |= flags, broadcast, unlock.
  void unlockSettingFlags(int flags);
  /// _condition = (_condition | set) & ~clear, broadcast, unlock.
  void unlockWithFlags(int set, int clear);
  /// _condition &= ~flags, broadcast, unlock.
  void unlockClearingFlags(int flags);

  /// Condition-variable access for callers holding the lock.
  void wait();
  void broadcast();
  void signal();

  int32_t _condition;
  pthread_cond_t _cond;
};

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_SYNCHRONIZATION_APPCONDITIONMUTEX_H
