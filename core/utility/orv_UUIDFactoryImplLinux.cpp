#include "core/utility/orv_UUIDFactoryImplLinux.h"

#include <stdio.h>
#include <string.h>

#include <uuid/uuid.h>

#include "core/utility/md5.h"
#include "core/utility/orv_PlatformPathDefinitions.h"

namespace orv {

namespace {

const size_t kIdentityLength = 32;

}  // namespace

std::string UUIDFactoryImpl::generateUUID() {
  uuid_t bytes;
  uuid_generate(bytes);
  std::string text;
  text.reserve(36);
  for (int i = 0; i < 16; ++i) {
    char hex[3];
    snprintf(hex, sizeof hex, "%02X", bytes[i]);
    text += hex;
    if (i == 3 || i == 5 || i == 7 || i == 9) text += '-';
  }
  return text;
}

std::string UUIDFactoryImpl::getIdentity() {
  std::string path = PlatformPaths::getWriteableLibraryDataPath() + "ORV_Ident.dat";

  char stored[kIdentityLength + 1];
  memset(stored, 0, sizeof stored);
  FILE* f = fopen(path.c_str(), "rb");
  if (f != nullptr) {
    // A short read (or a directory under that name) leaves zeros behind.
    size_t got = fread(stored, 1, kIdentityLength, f);
    (void)got;
    fclose(f);
  }
  if (strlen(stored) == kIdentityLength) return std::string(stored);

  std::string uuid = generateUUID();
  md5_state_s state;
  md5_init(&state);
  md5_append(&state, reinterpret_cast<const unsigned char*>(uuid.data()), static_cast<int>(uuid.size()));
  unsigned char digest[16];
  md5_finish(&state, digest);
  std::string identity;
  identity.reserve(kIdentityLength);
  for (unsigned char byte : digest) {
    char hex[3];
    snprintf(hex, sizeof hex, "%02x", byte);
    identity += hex;
  }

  f = fopen(path.c_str(), "w+b");
  if (f != nullptr) {
    fwrite(identity.data(), 1, identity.size(), f);
    fclose(f);
  }
  return identity;
}

}  // namespace orv
