/// @file
/// trim_heap: hands the heap memory a transfer freed back to the system
/// (libcurl and OpenSSL allocate and free a lot per transfer). Internal to the
/// library.
///
/// Threading: may be called from any number of threads at once.
#ifndef ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_HEAP_TRIM_INTERNAL_H
#define ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_HEAP_TRIM_INTERNAL_H

#include <malloc.h>

#include <mutex>

namespace orv {
namespace Networking {
namespace detail {

inline void trim_heap() {
  // glibc sets its heap up on first use. Where malloc itself is replaced
  // (sanitizers, other allocators) that first use can be malloc_trim, and two
  // threads making it at once crash: one thread makes the first call (the
  // process's first transfer then trims twice, which costs nothing).
  static std::once_flag heap_ready;
  std::call_once(heap_ready, [] { malloc_trim(0); });
  malloc_trim(0);
}

}  // namespace detail
}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_HEAP_TRIM_INTERNAL_H
