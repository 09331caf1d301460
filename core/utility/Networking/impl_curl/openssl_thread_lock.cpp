#include "core/utility/Networking/impl_curl/openssl_thread_lock.h"

#include <openssl/crypto.h>
#include <pthread.h>
#include <signal.h>

#include "core/utility/orv_log.h"

namespace orv {
namespace Networking {

using Threads::Synchronization::AppMutex;

std::vector<AppMutex*> OpensslThreadLock::_s_lock_array;
bool OpensslThreadLock::_s_has_initialized = false;

void OpensslThreadLock::init_locks() {
  if (_s_has_initialized) return;
  // A peer closing a TLS connection must not kill the process; threads made
  // later by this one inherit the mask.
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  if (pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr) != 0) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:42]pthread_sigmask SIGPIPE failed\n");
  }
  int count = CRYPTO_num_locks();
  for (int i = 0; i < count; ++i) _s_lock_array.push_back(new AppMutex(false));
  CRYPTO_set_id_callback(id_callback);
  CRYPTO_set_locking_callback(lock_callback);
  _s_has_initialized = true;
}

void OpensslThreadLock::clean_locks() {
  if (!_s_has_initialized) return;
  CRYPTO_set_locking_callback(NULL);
  for (AppMutex* mutex : _s_lock_array) delete mutex;
  _s_lock_array.clear();
  _s_has_initialized = false;
}

unsigned long OpensslThreadLock::id_callback() {
  return static_cast<unsigned long>(pthread_self());
}

void OpensslThreadLock::lock_callback(int mode, int n, const char*, int) {
  if ((mode & CRYPTO_LOCK) != 0) {
    _s_lock_array[n]->Lock();
  } else {
    _s_lock_array[n]->Unlock();
  }
}

}  // namespace Networking
}  // namespace orv
