// Helpers shared by the fuzz targets: a reader that carves typed values out
// of the fuzzer's byte string, and a check that stops the run with a message
// (libFuzzer then saves the input that broke it).
#ifndef ORV_FUZZ_FUZZ_SUPPORT_H
#define ORV_FUZZ_FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#define FUZZ_CHECK(cond)                                                             \
  do {                                                                               \
    if (!(cond)) {                                                                   \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);       \
      abort();                                                                       \
    }                                                                                \
  } while (0)

namespace orv_fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }
  size_t remaining() const { return size_; }

  uint8_t byte() {
    if (size_ == 0) return 0;
    uint8_t b = *data_++;
    --size_;
    return b;
  }
  uint16_t u16() { return static_cast<uint16_t>(byte() | (byte() << 8)); }
  // A string of at most max bytes, its length read first.
  std::string str(size_t max) {
    size_t n = byte() % (max + 1);
    if (n > size_) n = size_;
    std::string s(reinterpret_cast<const char*>(data_), n);
    data_ += n;
    size_ -= n;
    return s;
  }
  // Everything left.
  std::string rest() {
    std::string s(reinterpret_cast<const char*>(data_), size_);
    data_ += size_;
    size_ = 0;
    return s;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace orv_fuzz

#endif  // ORV_FUZZ_FUZZ_SUPPORT_H
