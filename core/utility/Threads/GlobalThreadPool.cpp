#include "core/utility/Threads/GlobalThreadPool.h"

#include "core/utility/Threads/Synchronization/AppLock.h"

namespace orv {
namespace Memory {
// Exported through the extern declaration in the header, which the compiler
// saw before the class was complete.
template class Singleton<Threads::GlobalThreadPool>;
}  // namespace Memory

namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Synchronization::AppLock;
using Synchronization::AppMutex;

AppMutex& GlobalThreadPool::poolMutex = *new AppMutex(false);

GlobalThreadPool::GlobalThreadPool() : _pool(ThreadPool::alloc(3)) {}

GlobalThreadPool::~GlobalThreadPool() { _pool.releaseManagedPointer(); }

bool GlobalThreadPool::runTaskAsync(orv_shared_ptr<ASRDispatchTaskBase> task, const char* name) {
  AppLock lock(&poolMutex);
  return _pool->runTaskAsync(task, name);
}

bool GlobalThreadPool::runTaskAsync(void (*function)(orv_shared_ptr_base*),
                                    orv_shared_ptr_base* param, const char* name) {
  AppLock lock(&poolMutex);
  return _pool->runTaskAsync(function, param, name);
}

void GlobalThreadPool::reset() {
  orv_shared_ptr<ThreadPool> old;
  {
    AppLock lock(&poolMutex);
    old = _pool;
  }
  // Outside poolMutex: waits for the running tasks, which may submit more.
  if (old) old->cancel_sync();
  {
    AppLock lock(&poolMutex);
    _pool = ThreadPool::alloc(3);
  }
  // The old pool, if this was its last holder, goes here, outside the lock.
}

void GlobalThreadPool::printThreadUsageStats() {
  AppLock lock(&poolMutex);
  _pool->printThreadUsageStats();
}

}  // namespace Threads
}  // namespace orv
