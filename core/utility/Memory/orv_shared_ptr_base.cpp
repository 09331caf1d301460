#include "core/utility/Memory/orv_shared_ptr_base.h"

namespace orv {
namespace Memory {

orv_shared_ptr_base::orv_shared_ptr_base(bool is_strong)
    : _control(nullptr), _deleter(nullptr), _is_strong(is_strong) {}

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

void orv_shared_ptr_base::releaseManagedPointer() { releaseShare(); }

void orv_shared_ptr_base::copyControlObject_base(const orv_shared_ptr_base* other) {
  shareFrom(other);
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
