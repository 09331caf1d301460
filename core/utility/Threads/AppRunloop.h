/// @file
/// Tasks and run loops.
///
/// ASRDispatchTaskBase is the unit of deferred work: a function
/// void (*)(orv_shared_ptr_base*) with one owned parameter (always a getRefPtr()
/// copy, deleted by the task). ASRDispatchTaskWithResPointer<T> calls a member
/// function on an object it keeps alive. Parameters are released under one
/// static recursive mutex, so releasing may run code that releases further
/// parameters.
///
/// AppRunloop is an AppThread serving a fixed number of priority queues, one
/// task at a time: queue 0 first, first in first out within a queue. Any thread
/// may queue; only the loop thread runs tasks, and never while holding the
/// queue mutex, so a task may queue further tasks on its own loop.
/// runTaskSync called on the loop's own thread runs the work inline.
///
/// Ending: stopRunloop lets everything already queued run first; cancel drops
/// the queued tasks (their parameters are released, their synchronous callers
/// return false) and lets only a running task finish. The _sync forms join the
/// thread; do not call them from a task of the same loop. Tasks still queued
/// when a loop object is destroyed do not report to their synchronous callers:
/// cancel a loop before dropping it if such callers may wait.
#ifndef ORV_CORE_UTILITY_THREADS_APPRUNLOOP_H
#define ORV_CORE_UTILITY_THREADS_APPRUNLOOP_H

#include <stdint.h>

#include <vector>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/AppThread.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Threads {

/// Values of a synchronous caller's completion word. The caller waits until
/// bit 0 is clear.
const int TASK_PENDING = 1;
const int TASK_DONE = 2;
const int TASK_REMOVED = 4;

class ORV_API ASRDispatchTaskBase {
 public:
  ASRDispatchTaskBase();
  /// Takes ownership of param (a getRefPtr() copy, or null).
  ASRDispatchTaskBase(void (*function)(Memory::orv_shared_ptr_base*),
                      Memory::orv_shared_ptr_base* param);
  /// Releases the parameter.
  virtual ~ASRDispatchTaskBase();
  /// Calls _function(_param) when a function is set; keeps the parameter.
  virtual void execute();
  /// Deletes _param under _param_mutex and sets it to null.
  virtual void releaseResource();

  ASRDispatchTaskBase(const ASRDispatchTaskBase&) = delete;
  ASRDispatchTaskBase& operator=(const ASRDispatchTaskBase&) = delete;

  bool _release_after_execute;
  bool _is_stop_marker;
  Synchronization::AppConditionMutex* _completion;
  void (*_function)(Memory::orv_shared_ptr_base*);
  Memory::orv_shared_ptr_base* _param;

  /// Shared by all tasks, recursive. Never destroyed: threads that outlive
  /// the static destructors at process exit may still release parameters.
  static Synchronization::AppMutex& _param_mutex;
};

template <class T>
class ASRDispatchTaskWithResPointer : public ASRDispatchTaskBase {
 public:
  ASRDispatchTaskWithResPointer(Memory::orv_shared_ptr<T> resource,
                                void (T::*method)(Memory::orv_shared_ptr_base*),
                                Memory::orv_shared_ptr_base* param)
      : ASRDispatchTaskBase(nullptr, param), _resource(resource), _method(method) {}
  ~ASRDispatchTaskWithResPointer() override {
    releaseResource();
    _resource.releaseManagedPointer();
  }
  /// Calls the method on the resource, then releases the parameter when
  /// _release_after_execute is set.
  void execute() override {
    T* object = _resource.getPTR();
    if (object != nullptr && _method != nullptr) (object->*_method)(_param);
    if (_release_after_execute) releaseResource();
  }

  Memory::orv_shared_ptr<T> _resource;
  void (T::*_method)(Memory::orv_shared_ptr_base*);
};

class ORV_API AppRunloop : public AppThread {
 public:
  /// Creates and starts a loop with max_priority + 1 queues on a thread named
  /// name. Empty pointer when the thread could not be started.
  static Memory::orv_shared_ptr<AppRunloop> alloc(unsigned char max_priority, const char* name);
  ~AppRunloop() override;
  void threadMain() override;

  /// Queues function with a getRefPtr() copy of param (null stays null); the
  /// caller keeps its own pointer. False when the priority is out of range or
  /// the loop is stopped.
  bool runTaskAsync(void (*function)(Memory::orv_shared_ptr_base*),
                    Memory::orv_shared_ptr_base* param, unsigned char priority);
  bool runTaskAsync(Memory::orv_shared_ptr<ASRDispatchTaskBase> task, unsigned char priority);
  /// Runs the work on the loop thread and waits for it: true when it ran,
  /// false when refused or removed by cancel/removeTasks.
  bool runTaskSync(void (*function)(Memory::orv_shared_ptr_base*),
                   Memory::orv_shared_ptr_base* param, unsigned char priority);
  bool runTaskSync(Memory::orv_shared_ptr<ASRDispatchTaskBase> task, unsigned char priority);

  bool pushTask(Memory::orv_shared_ptr<ASRDispatchTaskBase> task, unsigned char priority);
  /// Loop thread only: blocks until a task is queued and takes it.
  Memory::orv_shared_ptr<ASRDispatchTaskBase> popTask();
  /// Drops every queued task; synchronous callers get TASK_REMOVED.
  void removeTasks();

  void stopRunloop();
  void stopRunloop_sync();
  void cancel();
  void cancel_sync();

  bool _stopped;
  Synchronization::AppConditionMutex* _queue_mutex;
  uint16_t _queue_count;
  std::vector<Memory::orv_shared_ptr<ASRDispatchTaskBase> >* _queues;

 protected:
  AppRunloop();

 private:
  /// Appends a stop marker to queue index; caller holds _queue_mutex.
  void appendStopMarker(unsigned index);
  void requestStop();
  void requestCancel();
};

}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_APPRUNLOOP_H
