/// @file
/// The control object shared by every strong and weak pointer on one managed
/// object: the two counts, the managed pointer and an optional custom
/// destructor, all guarded by the control object's own (non-recursive) mutex.
///
/// The counts are changed only under that mutex, never with atomics; _ptr is
/// written under it and may be read without it (a relaxed atomic), which is safe
/// for a holder of a strong pointer. The fields are public so that tools and
/// tests can read the counts (take the lock first when other threads may be
/// copying pointers on the same object).
#ifndef ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_CONTROL_OBJECT_H
#define ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_CONTROL_OBJECT_H

#include <stdint.h>

#include <atomic>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Memory {

class ORV_API orv_shared_ptr_control_object : public Threads::Synchronization::AppMutex {
 public:
  orv_shared_ptr_control_object();
  ~orv_shared_ptr_control_object() override;

  uint32_t _strong_count;     ///< live strong pointers
  uint32_t _ref_count;        ///< live pointers of either kind
  std::atomic<void*> _ptr;    ///< the managed object; null once destroyed
  void (*_destructor)(void*); ///< replaces the type's deletion when set
  bool _trace_references;     ///< stored only
};

}  // namespace Memory
}  // namespace orv

#endif  // ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_CONTROL_OBJECT_H
