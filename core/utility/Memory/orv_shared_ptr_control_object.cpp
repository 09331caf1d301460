#include "core/utility/Memory/orv_shared_ptr_control_object.h"

namespace orv {
namespace Memory {

orv_shared_ptr_control_object::orv_shared_ptr_control_object()
    : AppMutex(false),
      _strong_count(0),
      _ref_count(0),
      _ptr(nullptr),
      _destructor(nullptr),
      _trace_references(false) {}

orv_shared_ptr_control_object::~orv_shared_ptr_control_object() {}

}  // namespace Memory
}  // namespace orv
