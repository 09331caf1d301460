#include "core/utility/Memory/orv_shared_ptr_base.h"

namespace orv {
namespace Memory {

orv_shared_ptr_base::orv_shared_ptr_base(bool is_strong)
    : _control(nullptr), _deleter(nullptr), _is_strong(is_strong) {}

orv_shared_ptr_base::~orv_shared_ptr_base() { releaseManagedPointer(); }

orv_shared_ptr_base* orv_shared_ptr_base::getRefPtr() const {
  orv_shared_ptr_base* copy = new orv_shared_ptr_base(_is_strong);
  copy->copyControlObject_base(this);
  return copy;
}

void orv_shared_ptr_base::adopt(void* p, void (*deleter)(orv_shared_ptr_control_object*, void*),
                                void (*destructor)(void*)) {
  orv_shared_ptr_control_object* control = new orv_shared_ptr_control_object();
  control->_ptr.store(p, std::memory_order_relaxed);
  control->_destructor = destructor;
  control->_strong_count = 1;
  control->_ref_count = 1;
  _control = control;
  _deleter = deleter;
}

void orv_shared_ptr_base::releaseManagedPointer() {
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

void orv_shared_ptr_base::copyControlObject_base(const orv_shared_ptr_base* other) {
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
  releaseManagedPointer();
  _control = control;
  if (control != nullptr && _is_strong) _deleter = deleter;
}

bool orv_shared_ptr_base::isEqualToRawPtr(void* p) const { return managedPointer() == p; }

bool orv_shared_ptr_base::isEqualToManagedPtr(orv_shared_ptr_base* other) const {
  void* theirs = other != nullptr ? other->managedPointer() : nullptr;
  return managedPointer() == theirs;
}

void orv_shared_ptr_base::enable_reference_trace() {
  if (_control == nullptr) return;
  _control->Lock();
  _control->_trace_references = true;
  _control->Unlock();
}

void orv_shared_ptr_base::emptyDestructor(void*) {}

}  // namespace Memory
}  // namespace orv
