#include "core/utility/Threads/orv_Timer.h"

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/orv_timer_list_internal.h"
#include "core/utility/orv_clock.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::Singleton;

std::list<orv_shared_ptr<Timer>>& Timer::iTimers = *new std::list<orv_shared_ptr<Timer>>();
Synchronization::AppConditionMutex& Timer::TimerThreadState = *new Synchronization::AppConditionMutex(0);

Timer::Timer() : _one_shot(0), _interval(0), _deadline(0), _start_time(0) {}

Timer::~Timer() {}

orv_shared_ptr<Timer> Timer::createTimerWithTask(orv_shared_ptr<ASRDispatchTaskBase> task, int ms,
                                                 bool repeat) {
  orv_shared_ptr<Timer> timer(new Timer());
  timer->_task = task;

  TimerThreadState.Lock();
  timer->_start_time = detail::now_ms();
  timer->_one_shot = !repeat;
  timer->_interval = ms;
  timer->_deadline = timer->_start_time + ms;
  if (task.getPTR() != nullptr) {
    task->_release_after_execute = timer->_one_shot != 0;
  } else {
    ORV_LOG_WARN("[WARN]-[%s][%s:37]NULL task to timer\n");
  }
  detail::insert_by_deadline(iTimers, iTimers.begin(), timer);
  if (!detail::start_timer_thread(TimerThreadState, timerMain, task, "Timer::timerMain")) {
    return orv_shared_ptr<Timer>();
  }
  return timer;
}

bool Timer::cancel() {
  TimerThreadState.Lock();
  bool found = detail::remove_timer(iTimers, this);
  TimerThreadState.Unlock();
  return found;
}

// Hands every due timer's task to the pool; reschedules repeating timers.
static void fire_due_timers(uint64_t now) {
  auto it = Timer::iTimers.begin();
  while (it != Timer::iTimers.end() && now >= (*it)->_deadline) {
    orv_shared_ptr<Timer> timer = *it;
    Singleton<GlobalThreadPool>::instance()->runTaskAsync(timer->_task, nullptr);
    it = Timer::iTimers.erase(it);
    if (timer->_one_shot == 0) {
      timer->_deadline += timer->_interval;
      detail::insert_by_deadline(Timer::iTimers, it, timer);
    }
  }
}

void Timer::timerMain(orv_shared_ptr_base* /*unused*/) {
  detail::run_timer_thread(iTimers, TimerThreadState, fire_due_timers);
}

}  // namespace Threads
}  // namespace orv
