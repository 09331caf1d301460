#include "core/utility/md5.h"

#include <string.h>

namespace orv {

namespace {

// Per-round shift amounts, four per round.
const int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// floor(abs(sin(i + 1)) * 2^32), i = 0..63.
const uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline uint32_t rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// One 64-byte block into the digest buffer. Bytes are read little-endian
// explicitly so the result does not depend on the host byte order.
void process_block(uint32_t abcd[4], const unsigned char* block) {
  uint32_t x[16];
  for (int i = 0; i < 16; ++i) {
    x[i] = static_cast<uint32_t>(block[4 * i]) | (static_cast<uint32_t>(block[4 * i + 1]) << 8) |
           (static_cast<uint32_t>(block[4 * i + 2]) << 16) |
           (static_cast<uint32_t>(block[4 * i + 3]) << 24);
  }
  uint32_t a = abcd[0], b = abcd[1], c = abcd[2], d = abcd[3];
  for (int i = 0; i < 64; ++i) {
    uint32_t f;
    int k;
    switch (i >> 4) {
      case 0:
        f = (b & c) | (~b & d);
        k = i;
        break;
      case 1:
        f = (b & d) | (c & ~d);
        k = (5 * i + 1) & 15;
        break;
      case 2:
        f = b ^ c ^ d;
        k = (3 * i + 5) & 15;
        break;
      default:
        f = c ^ (b | ~d);
        k = (7 * i) & 15;
        break;
    }
    uint32_t next = b + rotl(a + f + kSine[i] + x[k], kShift[i >> 4][i & 3]);
    a = d;
    d = c;
    c = b;
    b = next;
  }
  abcd[0] += a;
  abcd[1] += b;
  abcd[2] += c;
  abcd[3] += d;
}

}  // namespace

void md5_init(md5_state_s* state) {
  if (state == nullptr) return;
  state->count[0] = state->count[1] = 0;
  state->abcd[0] = 0x67452301;
  state->abcd[1] = 0xefcdab89;
  state->abcd[2] = 0x98badcfe;
  state->abcd[3] = 0x10325476;
  memset(state->buf, 0, sizeof state->buf);
}

void md5_append(md5_state_s* state, const unsigned char* data, int nbytes) {
  if (state == nullptr || data == nullptr || nbytes <= 0) return;
  size_t pending = (state->count[0] >> 3) & 63;
  uint32_t bits = static_cast<uint32_t>(nbytes) << 3;
  state->count[1] += static_cast<uint32_t>(nbytes) >> 29;
  state->count[0] += bits;
  if (state->count[0] < bits) state->count[1]++;

  size_t left = static_cast<size_t>(nbytes);
  if (pending != 0) {
    size_t take = 64 - pending < left ? 64 - pending : left;
    memcpy(state->buf + pending, data, take);
    data += take;
    left -= take;
    if (pending + take < 64) return;
    process_block(state->abcd, state->buf);
  }
  for (; left >= 64; data += 64, left -= 64) process_block(state->abcd, data);
  if (left != 0) memcpy(state->buf, data, left);
}

void md5_finish(md5_state_s* state, unsigned char digest[16]) {
  if (state == nullptr || digest == nullptr) return;
  unsigned char length[8];
  for (int i = 0; i < 8; ++i) length[i] = static_cast<unsigned char>(state->count[i >> 2] >> (8 * (i & 3)));
  // A single 1 bit, zeros up to 56 bytes mod 64, then the bit length.
  static const unsigned char kPad[64] = {0x80};
  size_t pending = (state->count[0] >> 3) & 63;
  size_t pad = pending < 56 ? 56 - pending : 120 - pending;
  md5_append(state, kPad, static_cast<int>(pad));
  md5_append(state, length, 8);
  for (int i = 0; i < 16; ++i) digest[i] = static_cast<unsigned char>(state->abcd[i >> 2] >> (8 * (i & 3)));
}

}  // namespace orv
