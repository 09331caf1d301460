#include "core/utility/Threads/AppRunloop.h"

#include "core/utility/Memory/orv_shared_ptr_backlog_internal.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Synchronization::AppConditionMutex;
using Synchronization::AppLock;
using Synchronization::AppMutex;

typedef orv_shared_ptr<ASRDispatchTaskBase> TaskPtr;

AppMutex& ASRDispatchTaskBase::_param_mutex = *new AppMutex(true);

ASRDispatchTaskBase::ASRDispatchTaskBase()
    : _release_after_execute(true),
      _is_stop_marker(false),
      _completion(nullptr),
      _function(nullptr),
      _param(nullptr) {}

ASRDispatchTaskBase::ASRDispatchTaskBase(void (*function)(orv_shared_ptr_base*),
                                         orv_shared_ptr_base* param)
    : _release_after_execute(true),
      _is_stop_marker(false),
      _completion(nullptr),
      _function(function),
      _param(param) {}

ASRDispatchTaskBase::~ASRDispatchTaskBase() { releaseResource(); }

void ASRDispatchTaskBase::execute() {
  if (_function != nullptr) _function(_param);
}

void ASRDispatchTaskBase::releaseResource() {
  AppLock lock(&_param_mutex);
  delete _param;
  _param = nullptr;
}

namespace {

// Reports value to a synchronous caller. After the unlock the caller may
// return and destroy the condition: touch nothing of it afterwards.
void reportCompletion(AppConditionMutex* completion, int value) {
  completion->Lock();
  completion->unlockWithCondition(value);
}

}  // namespace

AppRunloop::AppRunloop()
    : _stopped(true), _queue_mutex(new AppConditionMutex(0)), _queue_count(0), _queues(nullptr) {}

AppRunloop::~AppRunloop() {
  delete _queue_mutex;
  _queue_mutex = nullptr;
  delete[] _queues;
  _queues = nullptr;
}

orv_shared_ptr<AppRunloop> AppRunloop::alloc(unsigned char max_priority, const char* name) {
  orv_shared_ptr<AppRunloop> loop(new AppRunloop());
  loop->_self_weak = loop;
  loop->_queue_count = static_cast<uint16_t>(max_priority + 1);
  loop->_queues = new std::vector<TaskPtr>[loop->_queue_count];
  if (loop->run(name)) {
    AppLock lock(loop->_queue_mutex);
    loop->_stopped = false;
    return loop;
  }
  loop.releaseManagedPointer();
  ORV_LOG_FATAL("[FATAL]-[%s][%s:30]%s, Error: Failed to start run loop\n\n", "alloc");
  return loop;
}

void AppRunloop::threadMain() {
  for (;;) {
    TaskPtr task = popTask();
    if (task->_is_stop_marker) return;
    task->execute();
    if (task->_completion != nullptr) reportCompletion(task->_completion, TASK_DONE);
  }
}

bool AppRunloop::runTaskAsync(void (*function)(orv_shared_ptr_base*), orv_shared_ptr_base* param,
                              unsigned char priority) {
  TaskPtr task(new ASRDispatchTaskBase(function, param != nullptr ? param->getRefPtr() : nullptr));
  return pushTask(task, priority);
}

bool AppRunloop::runTaskAsync(TaskPtr task, unsigned char priority) {
  return pushTask(task, priority);
}

bool AppRunloop::runTaskSync(void (*function)(orv_shared_ptr_base*), orv_shared_ptr_base* param,
                             unsigned char priority) {
  if (isCurrentThread()) {
    {
      AppLock lock(_queue_mutex);
      if (_stopped) return false;
    }
    if (function != nullptr) function(param);
    return true;
  }
  TaskPtr task(new ASRDispatchTaskBase(function, param != nullptr ? param->getRefPtr() : nullptr));
  return runTaskSync(task, priority);
}

bool AppRunloop::runTaskSync(TaskPtr task, unsigned char priority) {
  if (!task) return false;
  if (isCurrentThread()) {
    {
      AppLock lock(_queue_mutex);
      if (_stopped) return false;
    }
    task->execute();
    if (task->_completion != nullptr) reportCompletion(task->_completion, TASK_DONE);
    return true;
  }
  AppConditionMutex completion(TASK_PENDING);
  task->_completion = &completion;
  if (!pushTask(task, priority)) {
    task->_completion = nullptr;
    return false;
  }
  completion.lockWhenNotFlags(TASK_PENDING);
  bool ran = completion._condition == TASK_DONE;
  // The reporter is done with the task's completion once it has unlocked:
  // do not leave the task pointing into this frame.
  task->_completion = nullptr;
  completion.Unlock();
  return ran;
}

bool AppRunloop::pushTask(TaskPtr task, unsigned char priority) {
  if (priority >= _queue_count) return false;
  if (!task) return false;
  _queue_mutex->Lock();
  if (_stopped) {
    _queue_mutex->Unlock();
    return false;
  }
  _queues[priority].push_back(task);
  _queue_mutex->unlockWithCondition(1);
  return true;
}

TaskPtr AppRunloop::popTask() {
  for (;;) {
    _queue_mutex->lockWhenCondition(1);
    for (unsigned i = 0; i < _queue_count; ++i) {
      std::vector<TaskPtr>& queue = _queues[i];
      if (queue.empty()) continue;
      TaskPtr task;
      Memory::take_front(queue, task);
      bool more = false;
      for (unsigned j = i; j < _queue_count && !more; ++j) more = !_queues[j].empty();
      _queue_mutex->unlockWithCondition(more ? 1 : 0);
      return task;
    }
    _queue_mutex->unlockWithCondition(0);
  }
}

void AppRunloop::removeTasks() {
  // Dropped tasks are destroyed after the unlock: releasing a parameter may
  // run code that queues on this loop again.
  std::vector<TaskPtr> dropped;
  _queue_mutex->Lock();
  for (unsigned i = 0; i < _queue_count; ++i) {
    std::vector<TaskPtr>& queue = _queues[i];
    for (size_t k = 0; k < queue.size(); ++k) {
      if (queue[k]->_completion != nullptr) reportCompletion(queue[k]->_completion, TASK_REMOVED);
      dropped.push_back(queue[k]);
    }
    queue.clear();
  }
  _queue_mutex->unlockWithCondition(0);
}

void AppRunloop::appendStopMarker(unsigned index) {
  TaskPtr marker(new ASRDispatchTaskBase());
  marker->_is_stop_marker = true;
  _queues[index].push_back(marker);
}

// Refuses new tasks and queues the stop marker behind everything queued.
void AppRunloop::requestStop() {
  _queue_mutex->Lock();
  _stopped = true;
  appendStopMarker(_queue_count - 1u);
  _queue_mutex->unlockWithCondition(1);
}

// Refuses new tasks, drops the queued ones and queues the stop marker first.
void AppRunloop::requestCancel() {
  {
    AppLock lock(_queue_mutex);
    _stopped = true;
  }
  removeTasks();
  _queue_mutex->Lock();
  appendStopMarker(0);
  _queue_mutex->unlockWithCondition(1);
}

void AppRunloop::stopRunloop() {
  requestStop();
  detach();
}

void AppRunloop::stopRunloop_sync() {
  requestStop();
  join();
}

void AppRunloop::cancel() {
  requestCancel();
  detach();
}

void AppRunloop::cancel_sync() {
  requestCancel();
  join();
}

}  // namespace Threads
}  // namespace orv
