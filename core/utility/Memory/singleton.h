/// @file
/// Singleton<T>: a lazily created process-wide instance, held weakly so that it
/// can die and be created again. T derives from Singleton<T>. instance() may be
/// called from any thread: it is serialised by a recursive mutex (constructors
/// and childInit may call instance() again); childInit() runs once per new
/// instance. The strong reference that keeps the instance alive is released
/// only by the static destructors. A singleton used by several libraries must
/// be instantiated once, in the library that owns it (explicit instantiation
/// there, extern template elsewhere): each shared object otherwise gets its
/// own statics.
#ifndef ORV_CORE_UTILITY_MEMORY_SINGLETON_H
#define ORV_CORE_UTILITY_MEMORY_SINGLETON_H

#include <stddef.h>

#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/orv_assert.h"

namespace orv {
namespace Memory {

template <class T>
class Singleton {
 public:
  static orv_shared_ptr<T> instance();
  /// Runs once, right after a new instance has been created and published.
  virtual void childInit() {}
  virtual ~Singleton() {}

  static Threads::Synchronization::AppMutex mutex_;
  static orv_weak_ptr<T> instanceWeakRef;
  static orv_shared_ptr<T> instanceStrongRef;
};

template <class T>
orv_shared_ptr<T> Singleton<T>::instance() {
  Threads::Synchronization::AppLock lock(&mutex_);
  orv_shared_ptr<T> ref(instanceWeakRef);
  if (ref.getPTR() == NULL) {
    T* object = new T();
    instanceStrongRef.releaseManagedPointer();
    instanceStrongRef = orv_shared_ptr<T>(object);
    ref = instanceStrongRef;
    instanceWeakRef = ref;
    if (ref.getPTR() != NULL) ref->childInit();
  }
  if (instanceStrongRef.getPTR() == NULL) {
    instanceStrongRef = instanceWeakRef;
  }
  /// The failure report names this header and line 53; keep it there.
  ORV_ASSERT(ref.getPTR() != NULL); static_assert(__LINE__ == 53, "assertion moved");
  return ref;
}

template <class T>
Threads::Synchronization::AppMutex Singleton<T>::mutex_(true);
template <class T>
orv_weak_ptr<T> Singleton<T>::instanceWeakRef;
template <class T>
orv_shared_ptr<T> Singleton<T>::instanceStrongRef;

}  // namespace Memory
}  // namespace orv

#endif  // ORV_CORE_UTILITY_MEMORY_SINGLETON_H
