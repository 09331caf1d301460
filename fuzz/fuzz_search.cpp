// Boyer-Moore search against memmem: the same first match, or none. A
// two-letter alphabet and a planted pattern make matches and near-matches
// (the good-suffix shifts) common.
#include <vector>

#include "core/utility/orv_utility.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in{data, size};
  const uint8_t mode = in.byte();
  std::string pattern = in.str(64), text = in.rest();
  for (std::string* s : {&pattern, &text})
    for (char& c : *s) c = mode & 1 ? static_cast<char>('a' + (c & 1)) : c;
  if (mode & 2 && !pattern.empty() && text.size() > pattern.size())
    text.replace((mode >> 2) % (text.size() - pattern.size() + 1), pattern.size(), pattern);
  // Exact-size copies: a read past either end is caught.
  std::vector<unsigned char> t(text.begin(), text.end()), p(pattern.begin(), pattern.end());
  void* found = orv::boyer_moore(t.data(), t.size(), p.data(), p.size());
  FUZZ_CHECK(found == (t.empty() || p.empty() ? nullptr : memmem(t.data(), t.size(), p.data(), p.size())));
  return 0;
}
