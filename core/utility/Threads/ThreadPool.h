/// @file
/// ThreadPool: tasks run on a set of pool threads, each an AppRunloop with one
/// priority. The pool starts _min_threads threads, adds one whenever a task
/// finds no idle thread (no upper bound), hands work to the most recently idle
/// thread first, and each time it falls completely idle stops the threads
/// idle for 30 s or more (longest idle first) down to _min_threads.
///
/// Threading contract: any thread may submit, stop or cancel. _pool_mutex
/// guards the lists, the counts, _pending and the state (its condition word).
/// Lock order: GlobalThreadPool::poolMutex, then _pool_mutex, then a run
/// loop's queue mutex. Tasks never run under a pool lock. The _sync forms wait
/// for the busy threads, so never call them from a task of the same pool.
///
/// stop() on a pool with a busy thread returns with _pool_mutex still locked
/// and the state left at POOL_RUNNING: every later operation on that pool
/// (including the busy thread going idle) then blocks for good. This is the
/// designed behaviour; stop a busy pool with stop_sync() or cancel().
#ifndef ORV_CORE_UTILITY_THREADS_THREADPOOL_H
#define ORV_CORE_UTILITY_THREADS_THREADPOOL_H

#include <stdint.h>

#include <vector>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

namespace orv {
namespace Threads {

class Timer;
class ThreadPool;

/// Pool states: the condition word of ThreadPool::_pool_mutex.
const int POOL_RUNNING = 0;
const int POOL_STOPPING = 1;
const int POOL_STOPPED = 2;

class ORV_API ThreadPoolTask {
 public:
  ThreadPoolTask(Memory::orv_shared_ptr<ThreadPool> pool,
                 Memory::orv_shared_ptr<ASRDispatchTaskBase> task);
  ~ThreadPoolTask();

  /// Keeps the pool alive while the task is queued or running.
  Memory::orv_shared_ptr<ThreadPool> _pool;
  Memory::orv_shared_ptr<ASRDispatchTaskBase> _task;
};

/// One pool thread. The node owns itself through _self while it belongs to
/// the pool.
class ORV_API PoolThreadListNode {
 public:
  PoolThreadListNode();
  ~PoolThreadListNode();

  Memory::orv_shared_ptr<PoolThreadListNode> _self;
  Memory::orv_shared_ptr<ThreadPoolTask> _task;
  Memory::orv_shared_ptr<AppRunloop> _runloop;
  PoolThreadListNode* _next;
  PoolThreadListNode* _prev;
  /// get_current_time() when it last became idle; 0 for a new thread.
  int64_t _idle_since;
  uint32_t _use_count;
};

class ORV_API ThreadPool {
 public:
  /// Starts min_threads threads named "GlobalPool" (none below 1); threads
  /// that fail to start are simply missing.
  static Memory::orv_shared_ptr<ThreadPool> alloc(int min_threads);
  virtual ~ThreadPool();

  /// Runs task on an idle thread, or on a new one named name. True when
  /// accepted (if no thread could be started the task waits in _pending);
  /// false when the pool is not running.
  bool runTaskAsync(Memory::orv_shared_ptr<ASRDispatchTaskBase> task, const char* name);
  /// As above for function with a getRefPtr() copy of param (null stays null).
  bool runTaskAsync(void (*function)(Memory::orv_shared_ptr_base*),
                    Memory::orv_shared_ptr_base* param, const char* name);

  /// Internal steps; those marked "locked" expect _pool_mutex to be held.
  void addThread(const char* name);                              ///< locked
  PoolThreadListNode* dequeIdleThreadForWork(const char* name);  ///< locked
  static void TaskLauncher(Memory::orv_shared_ptr_base* node);
  void threadBecameIdle(Memory::orv_shared_ptr<PoolThreadListNode>* node);
  /// Stops idle threads while more than _min_threads remain and the longest
  /// idle one has been idle for more than 29999999 us at time now (the
  /// get_current_time() scale). Locked.
  void removeUnusedThreads(unsigned long long now);
  static void removeUnusedThreadsTimerCallback(Memory::orv_shared_ptr_base*);
  /// Unlinks every thread, stops its run loop (a running task still
  /// finishes) and releases it.
  void stopThreads();

  void stop();
  void stop_sync();
  void cancel();
  void cancel_sync();
  void printThreadUsageStats();

  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  Memory::orv_weak_ptr<ThreadPool> _self_weak;
  Synchronization::AppConditionMutex* _pool_mutex;
  PoolThreadListNode* _idle_head;
  PoolThreadListNode* _idle_tail;
  PoolThreadListNode* _busy_head;
  int32_t _min_threads;
  int32_t _thread_count;
  Memory::orv_shared_ptr<Timer> _reap_timer;
  std::vector<Memory::orv_shared_ptr<ThreadPoolTask> > _pending;

 protected:
  ThreadPool();

 private:
  void startOnNode(PoolThreadListNode* node);
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_THREADPOOL_H
