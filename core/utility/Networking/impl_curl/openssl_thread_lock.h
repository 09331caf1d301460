/// @file
/// OpensslThreadLock: installs OpenSSL's static locking and thread-id callbacks
/// (the interface of OpenSSL releases before 1.1.0; later releases lock for
/// themselves and turn the installing calls into no-ops) and blocks SIGPIPE in
/// the calling thread, so that HTTPS transfers may run on several threads.
///
/// Threading: init_locks and clean_locks are not guarded; call them from one
/// thread while no TLS work runs. lock_callback runs on any thread that uses
/// OpenSSL and indexes the lock array without bounds checks.
#ifndef ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_OPENSSL_THREAD_LOCK_H
#define ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_OPENSSL_THREAD_LOCK_H

#include <vector>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Networking {

class ORV_API OpensslThreadLock {
 public:
  /// Blocks SIGPIPE in this thread, makes one mutex per OpenSSL lock number
  /// and installs the callbacks. Does nothing while installed.
  static void init_locks();
  /// Removes the locking callback and frees the mutexes (the id callback
  /// stays). Does nothing while not installed.
  static void clean_locks();
  static unsigned long id_callback();
  /// Locks mutex n when bit 0 of mode (lock) is set, else unlocks it.
  static void lock_callback(int mode, int n, const char* file, int line);

  static std::vector<Threads::Synchronization::AppMutex*> _s_lock_array;
  static bool _s_has_initialized;
};

}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_OPENSSL_THREAD_LOCK_H
