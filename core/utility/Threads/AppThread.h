/// @file
/// AppThread: the one place where liborv creates POSIX threads.
///
/// A thread runs either _entry(_entry_param) (the default threadMain) or an
/// overriding threadMain. Every thread gets at least 1 MiB of stack: a smaller
/// process default is raised to exactly 1048576 bytes, a larger one is kept.
///
/// Ownership: an AppThread is held by orv_shared_ptr<AppThread>, and the creator
/// sets _self_weak right after wrapping it. run() makes the object hold itself
/// (_self_strong) until the new thread has taken its own reference, so a
/// creator may drop its pointer as soon as run() returns. The thread keeps the
/// object alive until threadMain returns; if it holds the last reference, the
/// object is destroyed on the thread itself, which is why the destructor
/// detaches instead of joining.
///
/// Threading contract: run, detach and join are serialised by _thread_mutex;
/// join waits without holding it. Joining a thread from itself is not guarded
/// against. Call run() while holding a strong pointer to the object.
#ifndef ORV_CORE_UTILITY_THREADS_APPTHREAD_H
#define ORV_CORE_UTILITY_THREADS_APPTHREAD_H

#include <pthread.h>

#include <string>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Threads {

class ORV_API AppThread {
 public:
  AppThread();
  virtual ~AppThread();
  /// The body of the thread. The default calls _entry(_entry_param) when an
  /// entry is set, then deletes the parameter.
  virtual void threadMain();

  /// Starts the thread, named name when non-null (at most 15 characters are
  /// kept by the system). True when a thread was created by this call; false
  /// when it was already started or creation failed (the object may then be
  /// run again).
  bool run(const char* name);
  /// The start routine handed to pthread_create; thread is the AppThread.
  static void* threadLauncher(void* thread);
  /// True when the thread is detached, was never started, or was joined.
  bool detach();
  /// Waits for the thread; returns at once when it is detached, already
  /// joined or was never started.
  void join();
  bool isCurrentThread();
  /// Decimal text of pthread_self() of the calling thread.
  static std::string getCurrentThreadIdentifier();
  /// usleep(1000 * milliseconds).
  static void sleep(int milliseconds);

  AppThread(const AppThread&) = delete;
  AppThread& operator=(const AppThread&) = delete;

  Memory::orv_weak_ptr<AppThread> _self_weak;
  bool _started;
  bool _detached;
  bool _joinable;
  pthread_t _thread;
  Synchronization::AppMutex* _thread_mutex;
  void (*_entry)(Memory::orv_shared_ptr_base*);
  Memory::orv_shared_ptr_base* _entry_param;
  Memory::orv_shared_ptr<AppThread> _self_strong;
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_APPTHREAD_H
