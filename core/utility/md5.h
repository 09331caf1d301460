/// @file
/// MD5 message digest (RFC 1321), streaming interface: md5_init, any number of
/// md5_append calls, then md5_finish for the 16-byte digest.
///
/// A state belongs to one caller at a time; separate states may be used on
/// separate threads freely. MD5 is used for identifiers, not for security.
#ifndef ORV_CORE_UTILITY_MD5_H
#define ORV_CORE_UTILITY_MD5_H

#include <stdint.h>

#include "core/orv_api.h"

namespace orv {

struct md5_state_s {
  uint32_t count[2];  ///< message length in bits, low word first
  uint32_t abcd[4];   ///< digest buffer
  unsigned char buf[64];  ///< pending bytes of the current block
};

ORV_API void md5_init(md5_state_s* state);
/// Null state or data, or nbytes <= 0, appends nothing.
ORV_API void md5_append(md5_state_s* state, const unsigned char* data, int nbytes);
/// Pads, writes the digest and leaves the state finished (call md5_init to reuse).
ORV_API void md5_finish(md5_state_s* state, unsigned char digest[16]);

}  // namespace orv

#endif  // ORV_CORE_UTILITY_MD5_H
