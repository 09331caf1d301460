// Backlogs of strong pointers kept in a std::vector, first in, first out
// (run loops, the thread pool, dispatch queues). Library-internal.
//
// Taking the front with erase(begin()) would copy every later element down
// one place, and a copy of an orv_shared_ptr is a lock and unlock of its
// control object plus another pair for the release: a long backlog paid that
// for each element on every take, under the owner's lock. take_front moves
// the shares down as raw fields instead: a share that changes slots keeps its
// counts, so no control object is touched. The caller holds the backlog's
// lock, as for any access to the vector.
#ifndef ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_BACKLOG_INTERNAL_H
#define ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_BACKLOG_INTERNAL_H

#include <stddef.h>

#include <utility>
#include <vector>

#include "core/utility/Memory/orv_shared_ptr_base.h"

namespace orv {
namespace Memory {

// Exchanges the shares held by two strong pointers of one type; no count
// changes.
template <class T>
void swap_shares(orv_shared_ptr<T>& a, orv_shared_ptr<T>& b) {
  std::swap(a._control, b._control);
  std::swap(a._deleter, b._deleter);
}

// Removes the first element of a non-empty backlog into out (whose previous
// share is released first), keeping the order of the rest.
template <class T>
void take_front(std::vector<orv_shared_ptr<T> >& backlog, orv_shared_ptr<T>& out) {
  out.releaseManagedPointer();
  swap_shares(out, backlog[0]);
  for (size_t i = 1; i < backlog.size(); ++i) swap_shares(backlog[i - 1], backlog[i]);
  backlog.pop_back();  // empty after the shifts: destroying it touches nothing
}

}  // namespace Memory
}  // namespace orv

#endif  // ORV_CORE_UTILITY_MEMORY_ORV_SHARED_PTR_BACKLOG_INTERNAL_H
