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

#define FUZZ_CHECK(c) ((c) ? (void)0 : (fprintf(stderr, "line %d: check failed: %s\n", __LINE__, #c), abort()))

namespace orv_fuzz {

// Taken from the front; past the end, bytes are 0 and strings empty.
struct Input {
  const uint8_t* data;
  size_t size;
  uint8_t byte() { return size == 0 ? 0 : (--size, *data++); }
  std::string take(size_t n) {
    n = std::min(n, size);
    data += n, size -= n;
    return std::string(reinterpret_cast<const char*>(data - n), n);
  }
  std::string str(size_t max) { return take(byte() % (max + 1)); }  // its length first
  std::string rest() { return take(size); }
};

}  // namespace orv_fuzz

#endif  // ORV_FUZZ_FUZZ_H
