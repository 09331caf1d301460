/// @file
/// UUIDFactory: fresh UUID strings and the device identity.
///
/// generateUUID() gives 36 characters, uppercase hex in the 8-4-4-4-12 layout.
/// getIdentity() gives the device's 32-character lowercase hex identity: read
/// from "ORV_Ident.dat" under PlatformPaths::getWriteableLibraryDataPath()
/// (plain concatenation), or, when that file does not hold 32 non-zero bytes,
/// made afresh (MD5 of a new UUID string) and written there. A write that
/// fails is silent: the new identity is returned and the next call makes
/// another one.
///
/// Thread safety: getIdentity() holds identityLock for the whole call, so
/// concurrent callers in one process share one new identity. generateUUID()
/// needs no lock. UUIDFactoryImpl is the platform work without the lock.
#ifndef ORV_CORE_UTILITY_ORV_UUIDFACTORY_H
#define ORV_CORE_UTILITY_ORV_UUIDFACTORY_H

#include <string>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {

class ORV_API UUIDFactory {
 public:
  static std::string generateUUID();
  static std::string getIdentity();

  /// Non-recursive; serialises getIdentity().
  static Threads::Synchronization::AppMutex identityLock;
};

}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_UUIDFACTORY_H
