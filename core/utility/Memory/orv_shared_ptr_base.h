/// @file
/// Reference-counted ownership across threads: orv_shared_ptr<T> (strong),
/// orv_weak_ptr<T> (weak) and their untyped base orv_shared_ptr_base, which is
/// what tasks carry as their one parameter.
///
/// Every count change takes the control object's mutex (one lock and unlock per
/// copy or release; no atomics, by design). A managed object is destroyed
/// exactly once, by the release that drops the last strong reference, and
/// outside the lock, so its destructor may itself take and release pointers to
/// itself. The control object lives until the last pointer of either kind.
///
/// Thread safety: any thread may copy, assign and destroy pointers on the same
/// object concurrently; one pointer variable must not be assigned by two
/// threads at once. getPTR() reads without locking: safe through a strong
/// pointer. A weak pointer has no getPTR(): promote it by constructing an
/// orv_shared_ptr<T> from it and test the result for null.
///
/// Conversions between pointer types share the untyped managed pointer as it
/// is: convert only between a class and its primary (single-inheritance) base.
#ifndef ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_BASE_H
#define ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_BASE_H

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_control_object.h"

namespace orv {
namespace Memory {

class ORV_API orv_shared_ptr_base {
 public:
  explicit orv_shared_ptr_base(bool is_strong);
  /// A new heap pointer of the same kind and type on the same object; the
  /// receiver owns it and deletes it through the virtual destructor.
  virtual orv_shared_ptr_base* getRefPtr() const;
  virtual ~orv_shared_ptr_base() { releaseShare(); }

  /// Drops this pointer's share and leaves it empty.
  void releaseManagedPointer();
  /// Makes this pointer share other's object (null other: becomes empty). The
  /// new share is counted before the old one is released, so self-assignment
  /// is safe; the old share is released with the deleter it was made with.
  void copyControlObject_base(const orv_shared_ptr_base* other);
  bool isEqualToRawPtr(void* p) const;
  bool isEqualToManagedPtr(orv_shared_ptr_base* other) const;
  void enable_reference_trace();
  /// A destructor that leaves the memory alone (string literals, buffers whose
  /// ownership moves elsewhere).
  static void emptyDestructor(void* p);

  orv_shared_ptr_base(const orv_shared_ptr_base&) = delete;
  orv_shared_ptr_base& operator=(const orv_shared_ptr_base&) = delete;

  orv_shared_ptr_control_object* _control;
  void (*_deleter)(orv_shared_ptr_control_object*, void*);
  bool _is_strong;

 protected:
  /// Managed pointer, or null for an empty or expired pointer.
  void* managedPointer() const {
    return _control != nullptr ? _control->_ptr.load(std::memory_order_relaxed) : nullptr;
  }
  /// Gives this empty strong pointer a fresh control object on p (counts 1, 1).
  void adopt(void* p, void (*deleter)(orv_shared_ptr_control_object*, void*),
             void (*destructor)(void*));

  // The two counting paths, inline: a copy or a release made in the caller's
  // code costs the lock and unlock (through the control object's virtual
  // slots) and no call into the library. releaseManagedPointer and
  // copyControlObject_base are these same paths, exported.
  void releaseShare() {
    orv_shared_ptr_control_object* control = _control;
    if (control == nullptr) return;
    // Everything needed is taken from this pointer first: the deleter may
    // destroy the object that contains this very pointer.
    void (*deleter)(orv_shared_ptr_control_object*, void*) = _deleter;
    bool strong = _is_strong;
    _control = nullptr;

    control->Lock();
    if (strong) {
      --control->_strong_count;
      void* object = control->_ptr.load(std::memory_order_relaxed);
      if (control->_strong_count == 0 && object != nullptr) {
        control->_ptr.store(nullptr, std::memory_order_relaxed);
        control->Unlock();
        if (deleter != nullptr) deleter(control, object);
        control->Lock();
      }
    }
    --control->_ref_count;
    if (control->_ref_count == 0) {
      control->Unlock();
      delete control;
    } else {
      control->Unlock();
    }
  }

  void shareFrom(const orv_shared_ptr_base* other) {
    orv_shared_ptr_control_object* control = other != nullptr ? other->_control : nullptr;
    void (*deleter)(orv_shared_ptr_control_object*, void*) = nullptr;
    if (control != nullptr) {
      control->Lock();
      ++control->_ref_count;
      if (_is_strong) {
        ++control->_strong_count;
        deleter = other->_deleter;
      }
      control->Unlock();
    }
    releaseShare();
    _control = control;
    if (control != nullptr && _is_strong) _deleter = deleter;
  }
};

template <class T>
class orv_shared_ptr : public orv_shared_ptr_base {
 public:
  orv_shared_ptr() : orv_shared_ptr_base(true) {}
  explicit orv_shared_ptr(T* p) : orv_shared_ptr_base(true) {
    if (p != nullptr) adopt(p, &deleteManagedPointer, nullptr);
  }
  orv_shared_ptr(T* p, void (*destructor)(void*)) : orv_shared_ptr_base(true) {
    if (p != nullptr) adopt(p, &deleteManagedPointer, destructor);
  }
  orv_shared_ptr(const orv_shared_ptr& other) : orv_shared_ptr_base(true) { share(other); }
  /// From any pointer, strong or weak, of any type: from a weak pointer this is
  /// the promotion, null when the object has gone.
  orv_shared_ptr(const orv_shared_ptr_base& other) : orv_shared_ptr_base(true) { share(other); }

  orv_shared_ptr& operator=(const orv_shared_ptr& other) {
    share(other);
    return *this;
  }
  orv_shared_ptr& operator=(const orv_shared_ptr_base& other) {
    share(other);
    return *this;
  }

  orv_shared_ptr_base* getRefPtr() const override { return new orv_shared_ptr<T>(*this); }
  ~orv_shared_ptr() override {}

  T* getPTR() const { return static_cast<T*>(managedPointer()); }
  T* operator->() const { return getPTR(); }
  T& operator*() const { return *getPTR(); }
  explicit operator bool() const { return getPTR() != nullptr; }

  static void deleteManagedPointer(orv_shared_ptr_control_object* control, void* p) {
    if (control != nullptr && control->_destructor != nullptr) {
      control->_destructor(p);
    } else if (p != nullptr) {
      delete static_cast<T*>(p);
    }
  }
  /// For buffers made with new[] (char, unsigned char).
  static void arrayDestructor(void* p) {
    if (p != nullptr) delete[] static_cast<T*>(p);
  }

 private:
  void share(const orv_shared_ptr_base& other) {
    shareFrom(&other);
    _deleter = &deleteManagedPointer;
  }
};

template <class T>
class orv_weak_ptr : public orv_shared_ptr_base {
 public:
  orv_weak_ptr() : orv_shared_ptr_base(false) {}
  orv_weak_ptr(const orv_weak_ptr& other) : orv_shared_ptr_base(false) { shareFrom(&other); }
  orv_weak_ptr(const orv_shared_ptr_base& other) : orv_shared_ptr_base(false) {
    shareFrom(&other);
  }
  orv_weak_ptr& operator=(const orv_weak_ptr& other) {
    shareFrom(&other);
    return *this;
  }
  orv_weak_ptr& operator=(const orv_shared_ptr_base& other) {
    shareFrom(&other);
    return *this;
  }

  /// Made through a temporary strong pointer, as designed: the strong count
  /// goes up and down by one around the copy.
  orv_shared_ptr_base* getRefPtr() const override {
    orv_shared_ptr<T> strong(*this);
    return new orv_weak_ptr<T>(strong);
  }
  ~orv_weak_ptr() override {}
};

}  // namespace Memory
}  // namespace orv

#endif  // ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_BASE_H
