/// @file
/// DispatchQueue: runs submitted tasks on the GlobalThreadPool with at most
/// concurrentThreadCount of them running at once; a count of 1 makes a serial
/// queue (one at a time, in submission order). A queue owns no thread: a task
/// that finds a free slot goes to the pool inside a launcher, and the launcher
/// keeps its pool thread, taking the queue's next waiting task, until the
/// backlog is empty. The backlog is first in, first out, without priorities.
///
/// Threading contract: any thread may submit, stop or cancel. The state
/// condition's mutex is the queue's only lock; it is held while submitting
/// (including the hand-over to the pool) and never while a task runs. Waiting
/// happens with the queue lock released.
///
/// States (the condition word): 0 running, 1 stopping, 2 stopped. Stopped and
/// stopping queues refuse new tasks for good; make a new queue with alloc.
///
/// Synchronous callers and cancel: a runTaskSync caller whose task is dropped
/// from the backlog by cancel() or cancel_sync() is never woken: a dropped
/// task does not signal its completion. This is intended behaviour (unlike
/// AppRunloop, which reports TASK_REMOVED). Do not cancel a queue on which
/// synchronous callers may wait. runTaskSync from a task of the same serial
/// queue waits for itself and never returns.
#ifndef ORV_CORE_UTILITY_THREADS_DISPATCHQUEUE_H
#define ORV_CORE_UTILITY_THREADS_DISPATCHQUEUE_H

#include <stdint.h>

#include <vector>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

namespace orv {
namespace Threads {

class DispatchQueue;

/// One submitted task; holds its queue alive.
class ORV_API DispatchQueueTask {
 public:
  DispatchQueueTask(Memory::orv_shared_ptr<DispatchQueue> queue,
                    Memory::orv_shared_ptr<ASRDispatchTaskBase> task);
  ~DispatchQueueTask();

  Memory::orv_shared_ptr<DispatchQueue> _queue;
  Memory::orv_shared_ptr<ASRDispatchTaskBase> _task;
};

class ORV_API DispatchQueue {
 public:
  /// Aborts the process when concurrentThreadCount is below 1.
  static Memory::orv_shared_ptr<DispatchQueue> alloc(int concurrentThreadCount);
  ~DispatchQueue();

  /// Takes ownership of task in every case. False (task deleted) when the
  /// queue is not running. name is the thread name passed to the pool.
  bool runTaskAsync(ASRDispatchTaskBase* task, const char* name);
  /// Queues fn with a getRefPtr() copy of arg (null stays null).
  bool runTaskAsync(void (*fn)(Memory::orv_shared_ptr_base*), Memory::orv_shared_ptr_base* arg);
  /// Submit and wait until the task has run: true when it ran, false when the
  /// queue was not running. See the note on cancel above.
  bool runTaskSync(ASRDispatchTaskBase* task);
  bool runTaskSync(void (*fn)(Memory::orv_shared_ptr_base*), Memory::orv_shared_ptr_base* arg);

  /// Refuse new tasks; the backlog still drains.
  void stopQueue();
  /// As stopQueue, then wait until every running and pending task is done.
  void stopQueue_sync();
  /// Drop the backlog and stop; running tasks go on. Returns the number
  /// dropped.
  int cancel();
  /// As cancel, then wait until the running tasks are done.
  int cancel_sync();

  /// Internal steps.
  void launchTask(Memory::orv_shared_ptr<DispatchQueueTask>& task, const char* name);
  Memory::orv_shared_ptr<DispatchQueueTask> dispatchQueueTaskFinished(
      Memory::orv_shared_ptr<DispatchQueueTask>& finished);
  static void TaskLauncher(Memory::orv_shared_ptr_base* arg);

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  std::vector<Memory::orv_shared_ptr<DispatchQueueTask> > _pending_tasks;
  Memory::orv_weak_ptr<DispatchQueue> _self_weak;
  int32_t _free_slots;
  int32_t _concurrent_thread_count;
  Synchronization::AppConditionMutex* _state_condition;

 protected:
  explicit DispatchQueue(int concurrentThreadCount);

 private:
  /// Submission shared by every form; owns task in every case.
  bool submit(ASRDispatchTaskBase* task, const char* name);
  bool isRunning();
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_DISPATCHQUEUE_H
