#include "core/utility/Threads/Synchronization/AppLock.h"

namespace orv {
namespace Threads {
namespace Synchronization {

AppLock::AppLock(AppMutex* m) : _mutex_ptr(m) {
  if (_mutex_ptr != nullptr) _mutex_ptr->Lock();
}

AppLock::~AppLock() {
  if (_mutex_ptr != nullptr) _mutex_ptr->Unlock();
}

void AppLock::ReleaseMutex() { _mutex_ptr = nullptr; }

}  // namespace Synchronization
}  // namespace Threads
}  // namespace orv
