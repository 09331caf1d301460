// What Timer and RefreshTimer share: deadline-ordered insertion, removal,
// starting the timer thread on the pool and its loop. Internal; every
// function here runs with, or takes, the caller's timer-thread lock.
#ifndef ORV_CORE_UTILITY_THREADS_ORV_TIMER_LIST_INTERNAL_H
#define ORV_CORE_UTILITY_THREADS_ORV_TIMER_LIST_INTERNAL_H

#include <algorithm>
#include <list>

#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppThread.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/orv_clock.h"

namespace orv {
namespace Threads {
namespace detail {

// Inserts timer before the first timer at or after `from` whose deadline is
// greater than or equal to its own, or at the back: among equal deadlines the
// newest comes first.
template <class T>
void insert_by_deadline(std::list<Memory::orv_shared_ptr<T>>& timers,
                        typename std::list<Memory::orv_shared_ptr<T>>::iterator from,
                        const Memory::orv_shared_ptr<T>& timer) {
  while (from != timers.end() && (*from)->_deadline < timer->_deadline) ++from;
  timers.insert(from, timer);
}

// Removes the first node holding timer; true when there was one.
template <class T>
bool remove_timer(std::list<Memory::orv_shared_ptr<T>>& timers, const T* timer) {
  for (auto it = timers.begin(); it != timers.end(); ++it) {
    if (it->getPTR() == timer) {
      timers.erase(it);
      return true;
    }
  }
  return false;
}

inline uint64_t now_ms() { return static_cast<uint64_t>(get_current_time() / 1000); }

// Called with state locked, after a timer was added; unlocks it. Starts the
// timer thread (main, on the pool) unless it runs (condition 1). False when
// the pool refused it: the task's resource is released and the thread
// counts as not running.
inline bool start_timer_thread(Synchronization::AppConditionMutex& state,
                               void (*main)(Memory::orv_shared_ptr_base*),
                               Memory::orv_shared_ptr<ASRDispatchTaskBase>& task, const char* name) {
  if (state._condition == 1) {
    state.unlockWithCondition(1);
    return true;
  }
  Memory::orv_shared_ptr<GlobalThreadPool> pool = Memory::Singleton<GlobalThreadPool>::instance();
  if (!pool->runTaskAsync(main, &task, name)) {
    if (task.getPTR() != nullptr) task->releaseResource();
    state.unlockWithCondition(0);
    return false;
  }
  state.unlockWithCondition(1);
  return true;
}

// The timer thread: sleeps until the earliest deadline (at most 500 ms at a
// time, so that earlier timers added meanwhile are seen), lets fire(now)
// hand the due timers to the pool, and ends when the list is empty.
template <class T, class Fire>
void run_timer_thread(std::list<Memory::orv_shared_ptr<T>>& timers,
                      Synchronization::AppConditionMutex& state, Fire fire) {
  for (;;) {
    state.Lock();
    if (timers.empty()) {
      state.unlockWithCondition(0);
      return;
    }
    uint64_t now = now_ms();
    uint64_t deadline = timers.front()->_deadline;
    if (now < deadline) {
      state.Unlock();
      AppThread::sleep(static_cast<int>(std::min<uint64_t>(deadline - now, 500)));
      continue;
    }
    fire(now);
    state.Unlock();
  }
}

}  // namespace detail
}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_ORV_TIMER_LIST_INTERNAL_H
