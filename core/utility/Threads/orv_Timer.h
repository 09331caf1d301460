/// @file
/// Timer: runs a task once after a delay, or repeatedly at a fixed interval.
///
/// Every timer of the process sits in one deadline-ordered list served by one
/// timer thread, a GlobalThreadPool task named "Timer::timerMain" that lives
/// while the list is non-empty and ends itself when it empties. A due task is
/// handed to the pool, never run on the timer thread, so a slow task delays no
/// other timer. The thread sleeps at most 500 ms at a time, so a new timer
/// earlier than the one it sleeps toward is seen within about half a second;
/// that is the resolution. Repeating timers keep their phase (deadline +=
/// interval). Deadlines follow the wall clock (get_current_time()).
///
/// Thread safety: createTimerWithTask, cancel and the timer thread are
/// serialised by TimerThreadState's mutex, which also guards iTimers and every
/// deadline; its condition value is 1 while a timer thread runs, 0 otherwise.
/// cancel() returning true guarantees only that the task will not be handed to
/// the pool again; a task already handed over still runs.
#ifndef ORV_CORE_UTILITY_THREADS_ORV_TIMER_H
#define ORV_CORE_UTILITY_THREADS_ORV_TIMER_H

#include <stdint.h>

#include <list>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

namespace orv {
namespace Threads {

class ORV_API Timer {
 public:
  /// Runs task after ms milliseconds and, when repeat is true, every ms
  /// milliseconds after that. A null task is logged and scheduled all the
  /// same. Empty when the timer thread could not be started (the timer then
  /// stays listed and fires once a later call starts a thread).
  static Memory::orv_shared_ptr<Timer> createTimerWithTask(
      Memory::orv_shared_ptr<ASRDispatchTaskBase> task, int ms, bool repeat);
  /// True when the timer was still listed.
  bool cancel();
  /// The timer thread's body; the argument is not used.
  static void timerMain(Memory::orv_shared_ptr_base* unused);

  Timer();
  ~Timer();

  int32_t _one_shot;
  int32_t _interval;
  uint64_t _deadline;
  uint64_t _start_time;
  Memory::orv_shared_ptr<ASRDispatchTaskBase> _task;

  /// Never destroyed: the timer thread, a pool thread, may still run while
  /// the static destructors do at exit.
  static std::list<Memory::orv_shared_ptr<Timer>>& iTimers;
  static Synchronization::AppConditionMutex& TimerThreadState;
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_ORV_TIMER_H
