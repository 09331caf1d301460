#include "core/utility/Threads/DispatchQueue.h"

#include "core/utility/Memory/orv_shared_ptr_backlog_internal.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/orv_assert.h"

namespace orv {
namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Synchronization::AppConditionMutex;
using Synchronization::AppLock;

typedef orv_shared_ptr<ASRDispatchTaskBase> TaskPtr;
typedef orv_shared_ptr<DispatchQueueTask> QueueTaskPtr;
namespace {
const int kRunning = 0, kStopping = 1, kStopped = 2;  // the condition word
}  // namespace

orv_shared_ptr<DispatchQueue> DispatchQueue::alloc(int concurrentThreadCount) {
  ORV_ASSERT(concurrentThreadCount > 0); static_assert(__LINE__ == 23, "the failure report names line 23");
  orv_shared_ptr<DispatchQueue> queue(new DispatchQueue(concurrentThreadCount));
  queue->_self_weak = queue;
  return queue;
}

DispatchQueueTask::DispatchQueueTask(orv_shared_ptr<DispatchQueue> queue, TaskPtr task)
    : _queue(queue), _task(task) {}

DispatchQueueTask::~DispatchQueueTask() {}

DispatchQueue::DispatchQueue(int concurrentThreadCount)
    : _free_slots(concurrentThreadCount),
      _concurrent_thread_count(concurrentThreadCount),
      _state_condition(new AppConditionMutex(kRunning)) {}

DispatchQueue::~DispatchQueue() {
  delete _state_condition;
  _state_condition = nullptr;
}

bool DispatchQueue::isRunning() {
  AppLock lock(_state_condition);
  return _state_condition->_condition == kRunning;
}

bool DispatchQueue::submit(ASRDispatchTaskBase* task, const char* name) {
  // Declared before the lock so that a refused or dropped task (and its
  // parameter) is destroyed after the unlock.
  TaskPtr work(task);
  QueueTaskPtr item;
  AppLock lock(_state_condition);
  if (_state_condition->_condition != kRunning) return false;
  item = QueueTaskPtr(new DispatchQueueTask(orv_shared_ptr<DispatchQueue>(_self_weak), work));
  if (_free_slots < 1) {
    _pending_tasks.push_back(item);
  } else {
    launchTask(item, name);
  }
  return true;
}

bool DispatchQueue::runTaskAsync(ASRDispatchTaskBase* task, const char* name) {
  return submit(task, name);
}

bool DispatchQueue::runTaskAsync(void (*fn)(orv_shared_ptr_base*), orv_shared_ptr_base* arg) {
  if (!isRunning()) return false;
  return submit(new ASRDispatchTaskBase(fn, arg != nullptr ? arg->getRefPtr() : nullptr), nullptr);
}

bool DispatchQueue::runTaskSync(ASRDispatchTaskBase* task) {
  if (task == nullptr) return false;
  AppConditionMutex completion(TASK_PENDING);
  task->_completion = &completion;
  if (!submit(task, nullptr)) return false;
  completion.lockWhenNotFlags(TASK_PENDING);
  bool ran = completion._condition == TASK_DONE;
  completion.Unlock();
  return ran;
}

bool DispatchQueue::runTaskSync(void (*fn)(orv_shared_ptr_base*), orv_shared_ptr_base* arg) {
  if (!isRunning()) return false;
  return runTaskSync(new ASRDispatchTaskBase(fn, arg != nullptr ? arg->getRefPtr() : nullptr));
}

void DispatchQueue::launchTask(QueueTaskPtr& task, const char* name) {
  --_free_slots;
  orv_shared_ptr<GlobalThreadPool> pool = Memory::Singleton<GlobalThreadPool>::instance();
  pool->runTaskAsync(&DispatchQueue::TaskLauncher, &task, name);
}

void DispatchQueue::TaskLauncher(orv_shared_ptr_base* arg) {
  if (arg == nullptr) return;
  QueueTaskPtr current(*arg);
  while (current) {
    ASRDispatchTaskBase* task = current->_task.getPTR();
    if (task != nullptr) {
      task->execute();
      if (task->_completion != nullptr) {
        task->_completion->Lock();
        task->_completion->unlockWithCondition(TASK_DONE);
      }
    }
    orv_shared_ptr<DispatchQueue> queue = current->_queue;
    // Replacing current releases the finished task outside the queue lock.
    current = queue->dispatchQueueTaskFinished(current);
  }
}

QueueTaskPtr DispatchQueue::dispatchQueueTaskFinished(QueueTaskPtr& /*finished*/) {
  QueueTaskPtr next;
  _state_condition->Lock();
  ++_free_slots;
  if (!_pending_tasks.empty()) {
    Memory::take_front(_pending_tasks, next);
    --_free_slots;
    _state_condition->Unlock();
    return next;
  }
  if (_free_slots == _concurrent_thread_count && _state_condition->_condition != kRunning) {
    _state_condition->unlockWithCondition(kStopped);
    _state_condition->Lock();
  }
  _state_condition->Unlock();
  return next;
}

void DispatchQueue::stopQueue() {
  _state_condition->Lock();
  _state_condition->unlockWithCondition(_free_slots == _concurrent_thread_count ? kStopped
                                                                                : kStopping);
}

void DispatchQueue::stopQueue_sync() {
  _state_condition->Lock();
  if (_state_condition->_condition == kStopped) {
    _state_condition->Unlock();
    return;
  }
  if (_free_slots == _concurrent_thread_count) {
    _state_condition->unlockWithCondition(kStopped);
    return;
  }
  _state_condition->unlockWithCondition(kStopping);
  _state_condition->lockWhenCondition(kStopped);
  _state_condition->Unlock();
}

int DispatchQueue::cancel() {
  // Dropped tasks are destroyed after the unlock.
  std::vector<QueueTaskPtr> dropped;
  _state_condition->Lock();
  dropped.swap(_pending_tasks);
  _state_condition->unlockWithCondition(_free_slots == _concurrent_thread_count ? kStopped
                                                                                : kStopping);
  return static_cast<int>(dropped.size());
}

int DispatchQueue::cancel_sync() {
  std::vector<QueueTaskPtr> dropped;
  _state_condition->Lock();
  dropped.swap(_pending_tasks);
  int count = static_cast<int>(dropped.size());
  if (_state_condition->_condition == kStopped) {
    _state_condition->Unlock();
    return count;
  }
  if (_free_slots == _concurrent_thread_count) {
    _state_condition->unlockWithCondition(kStopped);
    return count;
  }
  _state_condition->unlockWithCondition(kStopping);
  // Release the dropped tasks now, not after the wait.
  dropped.clear();
  _state_condition->lockWhenCondition(kStopped);
  _state_condition->Unlock();
  return count;
}

}  // namespace Threads
}  // namespace orv
