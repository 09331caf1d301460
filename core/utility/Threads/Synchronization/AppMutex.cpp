#include "core/utility/Threads/Synchronization/AppMutex.h"

#include <stdlib.h>

#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {
namespace Synchronization {

AppMutex::AppMutex(bool recursive) {
  pthread_mutexattr_t attr;
  if (pthread_mutexattr_init(&attr) != 0) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:16]%s, Error: mutexattr_init failed\n\n", "AppMutex");
    exit(-1);
  }
  pthread_mutexattr_settype(&attr, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT);
  int result = pthread_mutex_init(&_mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (result != 0) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:31]%s, Error: mutex_init failed\n\n", "AppMutex");
    exit(-1);
  }
}

AppMutex::~AppMutex() { pthread_mutex_destroy(&_mutex); }

int AppMutex::Lock() { return pthread_mutex_lock(&_mutex); }

int AppMutex::Unlock() { return pthread_mutex_unlock(&_mutex); }

bool AppMutex::tryLock() { return pthread_mutex_trylock(&_mutex) == 0; }

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv
