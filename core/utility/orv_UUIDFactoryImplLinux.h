/// @file
/// UUIDFactoryImpl: the Linux work behind UUIDFactory (libuuid for UUIDs, the
/// identity file under the library data path). Takes no lock: call
/// UUIDFactory::getIdentity() unless the caller serialises identity lookups
/// itself.
///
/// Thread safety: generateUUID() may run on any thread; getIdentity() here is
/// not serialised (two threads may each write a new identity).
#ifndef ORV_CORE_UTILITY_ORV_UUIDFACTORYIMPLLINUX_H
#define ORV_CORE_UTILITY_ORV_UUIDFACTORYIMPLLINUX_H

#include <string>

#include "core/orv_api.h"

namespace orv {

class ORV_API UUIDFactoryImpl {
 public:
  static std::string generateUUID();
  static std::string getIdentity();
};

}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_UUIDFACTORYIMPLLINUX_H
