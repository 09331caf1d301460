// URL encoding and decoding: encode then decode gives the input back (cut at
// its first NUL), the encoding uses only unreserved bytes and "%XX" with
// uppercase digits, and decoding arbitrary text matches a reference decoder.
#include <ctype.h>

#include "core/utility/orv_utility.h"
#include "fuzz/fuzz_support.h"

namespace {

bool unreserved(unsigned char c) {
  return isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~';
}

int hexval(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string reference_decode(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '+') {
      out += ' ';
    } else if (s[i] == '%') {
      if (i + 2 >= s.size()) return std::string();
      int hi = hexval(s[i + 1]);
      int lo = hexval(s[i + 2]);
      if (hi < 0 || lo < 0) return std::string();
      out += static_cast<char>(hi * 16 + lo);
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out.substr(0, out.find('\0'));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);

  std::string encoded = orv::URLEncode(data, static_cast<unsigned>(size));
  FUZZ_CHECK(orv::URLEncode(input) == encoded);
  size_t plain = 0;
  for (size_t i = 0; i < encoded.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(encoded[i]);
    if (c == '%') {
      FUZZ_CHECK(i + 2 < encoded.size());
      for (int k = 1; k <= 2; ++k) {
        char d = encoded[i + k];
        FUZZ_CHECK((d >= '0' && d <= '9') || (d >= 'A' && d <= 'F'));
      }
      i += 2;
    } else {
      FUZZ_CHECK(unreserved(c));
    }
    ++plain;
  }
  FUZZ_CHECK(plain == size);

  std::string decoded = orv::URLDecode(encoded.c_str(), static_cast<unsigned>(encoded.size()));
  FUZZ_CHECK(decoded == input.substr(0, input.find('\0')));

  FUZZ_CHECK(orv::URLDecode(input.data(), static_cast<unsigned>(input.size())) ==
             reference_decode(input));
  return 0;
}
