// UTF-8 counting and offsets against a model of the stepping rule: a byte
// below 0x80 is one character, any other byte leads a sequence as long as its
// count of leading 1 bits; a cut-off sequence is not counted; a NUL stops.
#include "core/utility/orv_utility.h"
#include "fuzz/fuzz_support.h"

namespace {

int sequence_length(unsigned char lead) {
  if (lead < 0x80) return 1;
  int n = 0;
  while (n < 8 && (lead & (0x80 >> n)) != 0) ++n;
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  // A private copy, so that reading one byte past the range is caught.
  unsigned char* s = static_cast<unsigned char*>(malloc(size == 0 ? 1 : size));
  if (size > 0) memcpy(s, data, size);
  int len = static_cast<int>(size);

  // Starts of the complete characters, and where scanning stopped.
  int starts[4096];
  int count = 0;
  int i = 0;
  bool nul = false;
  while (i < len) {
    if (s[i] == 0) {
      nul = true;
      break;
    }
    int n = sequence_length(s[i]);
    if (n > len - i) break;
    starts[count++] = i;
    i += n;
  }

  FUZZ_CHECK(orv::UTF8StrLen(s, len) == (len > 0 ? count : 0));
  FUZZ_CHECK(orv::UTF8StrLen(nullptr, len) == 0);
  for (int k = 0; k < count; ++k) {
    FUZZ_CHECK(orv::ptrToUTF8SymbolOffset(k, s, len) == s + starts[k]);
  }
  const unsigned char* past = orv::ptrToUTF8SymbolOffset(count, s, len);
  FUZZ_CHECK(past == (nul ? s + i : nullptr));
  FUZZ_CHECK(orv::ptrToUTF8SymbolOffset(-1, s, len) == nullptr);
  FUZZ_CHECK(orv::ptrToUTF8SymbolOffset(0, nullptr, len) == nullptr);
  // Every prefix counts no more than the whole.
  if (len > 0) {
    int cut = static_cast<int>(data[0]) % (len + 1);
    FUZZ_CHECK(orv::UTF8StrLen(s, cut) <= count || cut == 0);
  }
  free(s);
  return 0;
}
