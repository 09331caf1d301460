// Deadline-ordered insertion shared by Timer and RefreshTimer. Internal.
#ifndef ORV_CORE_UTILITY_THREADS_ORV_TIMER_LIST_INTERNAL_H
#define ORV_CORE_UTILITY_THREADS_ORV_TIMER_LIST_INTERNAL_H

#include <list>

#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/orv_clock.h"

namespace orv {
namespace Threads {
namespace detail {

// Inserts timer before the first timer at or after `from` whose deadline is
// greater than or equal to its own, or at the back: among equal deadlines the
// newest comes first.
template <class T>
void insert_by_deadline(std::list<Memory::orv_shared_ptr<T>>& timers,
                        typename std::list<Memory::orv_shared_ptr<T>>::iterator from,
                        const Memory::orv_shared_ptr<T>& timer) {
  while (from != timers.end() && (*from)->_deadline < timer->_deadline) ++from;
  timers.insert(from, timer);
}

// Removes the first node holding timer; true when there was one.
template <class T>
bool remove_timer(std::list<Memory::orv_shared_ptr<T>>& timers, const T* timer) {
  for (auto it = timers.begin(); it != timers.end(); ++it) {
    if (it->getPTR() == timer) {
      timers.erase(it);
      return true;
    }
  }
  return false;
}

inline uint64_t now_ms() { return static_cast<uint64_t>(get_current_time() / 1000); }

}  // namespace detail
}  // namespace Threads
}  // namespace orv

#endif  // ORV_CORE_UTILITY_THREADS_ORV_TIMER_LIST_INTERNAL_H
