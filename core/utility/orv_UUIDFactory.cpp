#include "core/utility/orv_UUIDFactory.h"

#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/orv_UUIDFactoryImplLinux.h"

namespace orv {

Threads::Synchronization::AppMutex UUIDFactory::identityLock(false);

std::string UUIDFactory::generateUUID() { return UUIDFactoryImpl::generateUUID(); }

std::string UUIDFactory::getIdentity() {
  Threads::Synchronization::AppLock lock(&identityLock);
  return UUIDFactoryImpl::getIdentity();
}

}  // namespace orv
