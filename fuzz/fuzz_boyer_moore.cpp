// Boyer-Moore search against memmem: the same first match, or none, for any
// text and pattern. Short alphabets are mixed in so that matches and
// near-matches (the good-suffix shifts) come up often.
#include "core/utility/orv_utility.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in(data, size);
  uint8_t mode = in.byte();
  std::string pattern = in.str(64);
  std::string text = in.rest();
  if (mode & 1) {
    // Fold onto a two-letter alphabet.
    for (char& c : pattern) c = static_cast<char>('a' + (c & 1));
    for (char& c : text) c = static_cast<char>('a' + (c & 1));
  }
  if (mode & 2 && !pattern.empty() && text.size() > pattern.size()) {
    // Plant the pattern somewhere in the text.
    size_t at = (mode >> 2) % (text.size() - pattern.size() + 1);
    text.replace(at, pattern.size(), pattern);
  }

  // Exact-size heap copies, so that any read past either end is caught.
  unsigned char* t = static_cast<unsigned char*>(malloc(text.size() + 1));
  unsigned char* p = static_cast<unsigned char*>(malloc(pattern.size() + 1));
  memcpy(t, text.data(), text.size());
  memcpy(p, pattern.data(), pattern.size());

  unsigned char* found = orv::boyer_moore(t, static_cast<unsigned>(text.size()), p,
                                          static_cast<unsigned>(pattern.size()));
  if (text.empty() || pattern.empty()) {
    FUZZ_CHECK(found == nullptr);
  } else {
    void* expected = memmem(t, text.size(), p, pattern.size());
    FUZZ_CHECK(found == expected);
  }
  FUZZ_CHECK(orv::boyer_moore(nullptr, static_cast<unsigned>(text.size()), p,
                              static_cast<unsigned>(pattern.size())) == nullptr);
  FUZZ_CHECK(orv::boyer_moore(t, static_cast<unsigned>(text.size()), nullptr,
                              static_cast<unsigned>(pattern.size())) == nullptr);
  free(t);
  free(p);
  return 0;
}
