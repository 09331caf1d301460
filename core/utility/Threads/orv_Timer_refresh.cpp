#include "core/utility/Threads/orv_Timer_refresh.h"

#include <algorithm>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppThread.h"
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

  if (TimerThreadState._condition == 1) {
    TimerThreadState.unlockWithCondition(1);
    return timer;
  }
  orv_shared_ptr<GlobalThreadPool> pool = Singleton<GlobalThreadPool>::instance();
  if (!pool->runTaskAsync(timerMain, &task, "RefreshTimer::timerMain")) {
    if (task.getPTR() != nullptr) task->releaseResource();
    TimerThreadState.unlockWithCondition(0);
    return orv_shared_ptr<RefreshTimer>();
  }
  TimerThreadState.unlockWithCondition(1);
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

void RefreshTimer::timerMain(orv_shared_ptr_base* /*unused*/) {
  for (;;) {
    TimerThreadState.Lock();
    if (iTimers.empty()) {
      TimerThreadState.unlockWithCondition(0);
      return;
    }
    uint64_t now = detail::now_ms();
    uint64_t deadline = iTimers.front()->_deadline;
    if (now < deadline) {
      TimerThreadState.Unlock();
      AppThread::sleep(static_cast<int>(std::min<uint64_t>(deadline - now, 500)));
      continue;
    }
    while (!iTimers.empty() && now >= iTimers.front()->_deadline) {
      Singleton<GlobalThreadPool>::instance()->runTaskAsync(iTimers.front()->_task, nullptr);
      iTimers.pop_front();
    }
    TimerThreadState.Unlock();
  }
}

}  // namespace Threads
}  // namespace orv
