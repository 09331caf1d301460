#include "core/utility/Threads/ThreadPool.h"

#include "core/utility/Memory/orv_shared_ptr_backlog_internal.h"
#include "core/utility/Threads/orv_Timer.h"
#include "core/utility/orv_clock.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Synchronization::AppConditionMutex;

typedef orv_shared_ptr<ASRDispatchTaskBase> TaskPtr;
typedef orv_shared_ptr<ThreadPoolTask> PoolTaskPtr;
typedef orv_shared_ptr<PoolThreadListNode> NodePtr;

namespace {
// Idle for more than this many microseconds: the thread may be reaped.
const int64_t kReapIdleMicroseconds = 29999999;
}  // namespace

ThreadPoolTask::ThreadPoolTask(orv_shared_ptr<ThreadPool> pool, TaskPtr task)
    : _pool(pool), _task(task) {}

ThreadPoolTask::~ThreadPoolTask() {}

PoolThreadListNode::PoolThreadListNode()
    : _next(nullptr), _prev(nullptr), _idle_since(0), _use_count(0) {}

PoolThreadListNode::~PoolThreadListNode() {}

namespace {

// The pool's thread lists are doubly linked through the nodes. The idle list
// keeps a tail (the reaper takes the longest-idle thread from there); the
// busy list has none (tail null).
void unlink_node(PoolThreadListNode* node, PoolThreadListNode** head, PoolThreadListNode** tail) {
  if (node->_prev != nullptr) node->_prev->_next = node->_next;
  if (node->_next != nullptr) node->_next->_prev = node->_prev;
  if (*head == node) *head = node->_next;
  if (tail != nullptr && *tail == node) *tail = node->_prev;
  node->_next = nullptr;
  node->_prev = nullptr;
}

void push_front(PoolThreadListNode* node, PoolThreadListNode** head, PoolThreadListNode** tail) {
  node->_prev = nullptr;
  node->_next = *head;
  if (*head != nullptr) (*head)->_prev = node;
  *head = node;
  if (tail != nullptr && *tail == nullptr) *tail = node;
}

}  // namespace

ThreadPool::ThreadPool()
    : _pool_mutex(new AppConditionMutex(POOL_RUNNING)),
      _idle_head(nullptr),
      _idle_tail(nullptr),
      _busy_head(nullptr),
      _min_threads(0),
      _thread_count(0) {}

ThreadPool::~ThreadPool() {
  stopThreads();
  delete _pool_mutex;
  _pool_mutex = nullptr;
}

orv_shared_ptr<ThreadPool> ThreadPool::alloc(int min_threads) {
  orv_shared_ptr<ThreadPool> pool(new ThreadPool());
  pool->_self_weak = pool;
  pool->_min_threads = min_threads;
  pool->_pool_mutex->Lock();
  for (int i = 0; i < min_threads; ++i) pool->addThread("GlobalPool");
  pool->_pool_mutex->Unlock();
  return pool;
}

void ThreadPool::startOnNode(PoolThreadListNode* node) {
  ++node->_use_count;
  node->_runloop->runTaskAsync(&ThreadPool::TaskLauncher, &node->_self, 0);
}

void ThreadPool::addThread(const char* name) {
  NodePtr node(new PoolThreadListNode());
  node->_runloop = AppRunloop::alloc(0, name);
  if (!node->_runloop) return;
  ++_thread_count;
  node->_self = node;
  node->_idle_since = 0;
  node->_use_count = 0;
  push_front(node.getPTR(), &_idle_head, &_idle_tail);
}

PoolThreadListNode* ThreadPool::dequeIdleThreadForWork(const char* name) {
  if (_idle_head == nullptr) addThread(name);
  PoolThreadListNode* node = _idle_head;
  if (node == nullptr) return nullptr;
  unlink_node(node, &_idle_head, &_idle_tail);
  push_front(node, &_busy_head, nullptr);
  return node;
}

bool ThreadPool::runTaskAsync(TaskPtr task, const char* name) {
  _pool_mutex->Lock();
  if (_pool_mutex->_condition != POOL_RUNNING) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:87]runTaskAsync con=%d\n", _pool_mutex->_condition);
    _pool_mutex->Unlock();
    return false;
  }
  PoolTaskPtr pool_task(new ThreadPoolTask(orv_shared_ptr<ThreadPool>(_self_weak), task));
  PoolThreadListNode* node = dequeIdleThreadForWork(name);
  if (node != nullptr) {
    node->_task = pool_task;
    startOnNode(node);
  } else {
    _pending.push_back(pool_task);
  }
  _pool_mutex->Unlock();
  return true;
}

bool ThreadPool::runTaskAsync(void (*function)(orv_shared_ptr_base*), orv_shared_ptr_base* param,
                              const char* name) {
  TaskPtr task(new ASRDispatchTaskBase(function, param != nullptr ? param->getRefPtr() : nullptr));
  return runTaskAsync(task, name);
}

void ThreadPool::TaskLauncher(orv_shared_ptr_base* node_param) {
  NodePtr* node_ptr = static_cast<NodePtr*>(node_param);
  PoolThreadListNode* node = node_ptr->getPTR();
  // Written before this launcher was queued, and otherwise only by this
  // thread: no lock needed to read it. The local copy keeps the pool alive
  // until threadBecameIdle has returned.
  PoolTaskPtr pool_task = node->_task;
  if (!pool_task) return;
  ASRDispatchTaskBase* task = pool_task->_task.getPTR();
  if (task != nullptr) {
    task->execute();
    if (task->_completion != nullptr) {
      task->_completion->Lock();
      task->_completion->unlockWithCondition(TASK_DONE);
    }
  }
  orv_shared_ptr<ThreadPool> pool = pool_task->_pool;
  if (pool) pool->threadBecameIdle(node_ptr);
}

void ThreadPool::threadBecameIdle(NodePtr* node_ptr) {
  PoolThreadListNode* node = node_ptr->getPTR();
  _pool_mutex->Lock();
  node->_task.releaseManagedPointer();

  if (!_pending.empty()) {
    Memory::take_front(_pending, node->_task);
    startOnNode(node);
    _pool_mutex->Unlock();
    return;
  }

  unlink_node(node, &_busy_head, nullptr);
  push_front(node, &_idle_head, &_idle_tail);
  node->_idle_since = get_current_time();

  // No timer is ever started in _reap_timer; the slot stays empty.
  if (_reap_timer.getPTR() != nullptr) _reap_timer->cancel();
  _reap_timer.releaseManagedPointer();

  if (_busy_head != nullptr) {
    _pool_mutex->Unlock();
    return;
  }

  if (_pool_mutex->_condition != POOL_RUNNING) {
    stopThreads();
    _pool_mutex->unlockWithCondition(POOL_STOPPED);
    return;
  }

  removeUnusedThreads(static_cast<unsigned long long>(node->_idle_since));

  if (_thread_count > _min_threads) {
    _pool_mutex->Unlock();
    orv_shared_ptr<Timer> timer;
    _pool_mutex->Lock();
    // Only an empty pointer is ever stored: surplus threads are reaped the
    // next time the pool falls completely idle.
    if (_pool_mutex->_condition == POOL_RUNNING) {
      _reap_timer = timer;
    } else if (timer.getPTR() != nullptr) {
      timer->cancel();
    }
  }
  _pool_mutex->Unlock();
}

void ThreadPool::removeUnusedThreads(unsigned long long now) {
  while (_idle_tail != nullptr && _thread_count > _min_threads &&
         static_cast<int64_t>(now) - _idle_tail->_idle_since > kReapIdleMicroseconds) {
    PoolThreadListNode* node = _idle_tail;
    unlink_node(node, &_idle_head, &_idle_tail);
    orv_shared_ptr<AppRunloop> loop = node->_runloop;
    node->_self.releaseManagedPointer();
    --_thread_count;
    loop->stopRunloop();
  }
}

void ThreadPool::removeUnusedThreadsTimerCallback(orv_shared_ptr_base*) {}

void ThreadPool::stopThreads() {
  PoolThreadListNode* lists[2] = {_idle_head, _busy_head};
  _idle_head = nullptr;
  _idle_tail = nullptr;
  _busy_head = nullptr;
  for (PoolThreadListNode* node : lists) {
    while (node != nullptr) {
      PoolThreadListNode* next = node->_next;
      node->_next = nullptr;
      node->_prev = nullptr;
      orv_shared_ptr<AppRunloop> loop = node->_runloop;
      loop->stopRunloop();
      node->_self.releaseManagedPointer();
      node = next;
    }
  }
  _thread_count = 0;
}

// The stop paths run stopThreads() before releasing _pool_mutex, so nobody
// can see the lists half torn down. Lock order pool, then queue, as on the
// submission path.

void ThreadPool::stop() {
  _pool_mutex->Lock();
  if (_pool_mutex->_condition != POOL_RUNNING) {
    _pool_mutex->Unlock();
    return;
  }
  if (_busy_head == nullptr) {
    stopThreads();
    _pool_mutex->unlockWithCondition(POOL_STOPPED);
    return;
  }
  // A thread is busy: return holding _pool_mutex, state unchanged. Designed
  // behaviour, see the header.
}

void ThreadPool::stop_sync() {
  _pool_mutex->Lock();
  if (_pool_mutex->_condition == POOL_STOPPED) {
    _pool_mutex->Unlock();
    return;
  }
  if (_busy_head == nullptr) {
    stopThreads();
    _pool_mutex->unlockWithCondition(POOL_STOPPED);
    return;
  }
  _pool_mutex->unlockWithCondition(POOL_STOPPING);
  _pool_mutex->lockWhenCondition(POOL_STOPPED);
  _pool_mutex->Unlock();
}

void ThreadPool::cancel() {
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:141]ThreadPool::cancel()\n");
  // Dropped tasks are destroyed after the unlock: their parameters may run
  // code that calls back into the pool.
  std::vector<PoolTaskPtr> dropped;
  _pool_mutex->Lock();
  dropped.swap(_pending);
  if (_pool_mutex->_condition == POOL_STOPPED) {
    _pool_mutex->Unlock();
  } else if (_busy_head != nullptr) {
    _pool_mutex->unlockWithCondition(POOL_STOPPING);
  } else {
    stopThreads();
    _pool_mutex->unlockWithCondition(POOL_STOPPED);
  }
}

void ThreadPool::cancel_sync() {
  std::vector<PoolTaskPtr> dropped;
  _pool_mutex->Lock();
  dropped.swap(_pending);
  if (_pool_mutex->_condition == POOL_STOPPED) {
    _pool_mutex->Unlock();
    return;
  }
  if (_busy_head == nullptr) {
    stopThreads();
    _pool_mutex->unlockWithCondition(POOL_STOPPED);
    return;
  }
  _pool_mutex->unlockWithCondition(POOL_STOPPING);
  // Release the dropped tasks now, not after the wait.
  dropped.clear();
  _pool_mutex->lockWhenCondition(POOL_STOPPED);
  _pool_mutex->Unlock();
}

void ThreadPool::printThreadUsageStats() {
  _pool_mutex->Lock();
  int64_t now = get_current_time();
  int64_t longest_idle = 0;
  uint32_t uses = 0;
  for (PoolThreadListNode* node = _idle_head; node != nullptr; node = node->_next) {
    if (now - node->_idle_since > longest_idle) longest_idle = now - node->_idle_since;
    uses += node->_use_count;
  }
  for (PoolThreadListNode* node = _busy_head; node != nullptr; node = node->_next) {
    uses += node->_use_count;
  }
  (void)longest_idle;
  (void)uses;
  _pool_mutex->Unlock();
}

}  // namespace Threads
}  // namespace orv
