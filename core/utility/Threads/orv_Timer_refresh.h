/// @file
/// RefreshTimer: a one-shot timer whose deadline refresh() pushes back, a
/// watchdog that fires only after a quiet period.
///
/// Built like Timer, with its own list and its own timer thread (a
/// GlobalThreadPool task named "RefreshTimer::timerMain"), and it never
/// repeats. refresh() moves the deadline without re-sorting the list, and the
/// thread looks only at the front: while the front timer has been pushed back,
/// a timer behind it whose deadline has passed waits until the front one fires
/// or is cancelled. That is the required behaviour.
///
/// Thread safety: as Timer; refresh() may be called from any thread as often as
/// data arrives (one clock read and one store under the shared lock).
#ifndef ORV_CORE_UTILITY_THREADS_ORV_TIMER_REFRESH_H
#define ORV_CORE_UTILITY_THREADS_ORV_TIMER_REFRESH_H

#include <stdint.h>

#include <list>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

namespace orv {
namespace Threads {

class ORV_API RefreshTimer {
 public:
  /// Runs task once, ms milliseconds from now (or from the last refresh).
  /// Empty when the timer thread could not be started.
  static Memory::orv_shared_ptr<RefreshTimer> createTimerWithTask(
      Memory::orv_shared_ptr<ASRDispatchTaskBase> task, int ms);
  /// deadline = now + interval. Always true; after firing or cancel it
  /// changes the field only.
  bool refresh();
  bool cancel();
  static void timerMain(Memory::orv_shared_ptr_base* unused);

  RefreshTimer();
  ~RefreshTimer();

  int32_t _interval;
  uint64_t _deadline;
  uint64_t _start_time;
  Memory::orv_shared_ptr<ASRDispatchTaskBase> _task;

  /// Never destroyed: the timer thread, a pool thread, may still run while
  /// the static destructors do at exit.
  static std::list<Memory::orv_shared_ptr<RefreshTimer>>& iTimers;
  static Synchronization::AppConditionMutex& TimerThreadState;
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_ORV_TIMER_REFRESH_H
