/// @file
/// GlobalThreadPool: the process-wide thread pool, reached through
/// Singleton<GlobalThreadPool>::instance(). The first call creates a pool of
/// three threads named "GlobalPool"; dispatch queues, timers, the resolver,
/// HTTP tasks and the token refresher all run their work on it.
///
/// Threading contract: every operation may be called from any thread;
/// poolMutex guards _pool and is taken before the pool's own mutex. reset()
/// cancels the current pool and waits for its running tasks before installing
/// a fresh one: tasks offered while it cancels are refused, tasks offered
/// while it installs the new pool wait on poolMutex. Do not call reset() from
/// a pool task.
#ifndef ORV_CORE_UTILITY_THREADS_GLOBALTHREADPOOL_H
#define ORV_CORE_UTILITY_THREADS_GLOBALTHREADPOOL_H

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/Threads/ThreadPool.h"

namespace orv {
namespace Threads {

class GlobalThreadPool;

}  // namespace Threads

namespace Memory {
/// Instantiated once, inside liborv, so that every library shares one pool.
extern template class ORV_API Singleton<Threads::GlobalThreadPool>;
}  // namespace Memory

namespace Threads {

class ORV_API GlobalThreadPool : public Memory::Singleton<GlobalThreadPool> {
 public:
  /// Use Singleton<GlobalThreadPool>::instance().
  GlobalThreadPool();
  ~GlobalThreadPool() override;

  /// The same calls on the current pool, under poolMutex.
  bool runTaskAsync(Memory::orv_shared_ptr<ASRDispatchTaskBase> task, const char* name);
  bool runTaskAsync(void (*function)(Memory::orv_shared_ptr_base*),
                    Memory::orv_shared_ptr_base* param, const char* name);
  /// cancel_sync() on the current pool, then a fresh pool of three threads.
  void reset();
  void printThreadUsageStats();

  Memory::orv_shared_ptr<ThreadPool> _pool;
  /// Never destroyed: pool threads may still submit work while the static
  /// destructors run at process exit.
  static Synchronization::AppMutex& poolMutex;
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_GLOBALTHREADPOOL_H
