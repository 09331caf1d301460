#include "core/utility/Threads/orv_Timer_refresh.h"

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/orv_timer_list_internal.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::Singleton;

std::list<orv_shared_ptr<RefreshTimer>>& RefreshTimer::iTimers = *new std::list<orv_shared_ptr<RefreshTimer>>();
Synchronization::AppConditionMutex& RefreshTimer::TimerThreadState = *new Synchronization::AppConditionMutex(0);

RefreshTimer::RefreshTimer() : _interval(0), _deadline(0), _start_time(0) {}

RefreshTimer::~RefreshTimer() {}

orv_shared_ptr<RefreshTimer> RefreshTimer::createTimerWithTask(
    orv_shared_ptr<ASRDispatchTaskBase> task, int ms) {
  orv_shared_ptr<RefreshTimer> timer(new RefreshTimer());
  timer->_task = task;

  TimerThreadState.Lock();
  timer->_interval = ms;
  timer->_start_time = detail::now_ms();
  timer->_deadline = timer->_start_time + ms;
  if (task.getPTR() != nullptr) {
    task->_release_after_execute = true;
  } else {
    ORV_LOG_WARN("[WARN]-[%s][%s:38]NULL task to timer\n");
  }
  detail::insert_by_deadline(iTimers, iTimers.begin(), timer);
  if (!detail::start_timer_thread(TimerThreadState, timerMain, task, "RefreshTimer::timerMain")) {
    return orv_shared_ptr<RefreshTimer>();
  }
  return timer;
}

bool RefreshTimer::refresh() {
  TimerThreadState.Lock();
  _deadline = detail::now_ms() + _interval;
  TimerThreadState.Unlock();
  return true;
}

bool RefreshTimer::cancel() {
  TimerThreadState.Lock();
  bool found = detail::remove_timer(iTimers, this);
  TimerThreadState.Unlock();
  return found;
}

// Refresh timers fire once: every due one is handed over and dropped.
static void fire_due_timers(uint64_t now) {
  std::list<orv_shared_ptr<RefreshTimer>>& timers = RefreshTimer::iTimers;
  while (!timers.empty() && now >= timers.front()->_deadline) {
    Singleton<GlobalThreadPool>::instance()->runTaskAsync(timers.front()->_task, nullptr);
    timers.pop_front();
  }
}

void RefreshTimer::timerMain(orv_shared_ptr_base* /*unused*/) {
  detail::run_timer_thread(iTimers, TimerThreadState, fire_due_timers);
}

}  // namespace Threads
}  // namespace orv
