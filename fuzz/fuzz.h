// Shared by the fuzz drivers: a check that stops the run with a message
// (libFuzzer then saves the input that broke it), and a reader that carves
// bytes and strings out of the fuzzer's input.
#ifndef ORV_FUZZ_FUZZ_H
#define ORV_FUZZ_FUZZ_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#define FUZZ_CHECK(c) \
  ((c) ? (void)0 : (fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c), abort()))

namespace orv_fuzz {

struct Input {
  const uint8_t* data;
  size_t size;
  bool empty() const { return size == 0; }
  uint8_t byte() { return size == 0 ? 0 : (--size, *data++); }
  uint16_t u16() {
    uint16_t low = byte();
    return static_cast<uint16_t>(low | byte() << 8);
  }
  std::string take(size_t n) {
    n = std::min(n, size);
    std::string s(reinterpret_cast<const char*>(data), n);
    data += n;
    size -= n;
    return s;
  }
  // At most max bytes, their count read first.
  std::string str(size_t max) { return take(byte() % (max + 1)); }
  std::string rest() { return take(size); }
};

}  // namespace orv_fuzz

#endif  // ORV_FUZZ_FUZZ_H
