#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"

namespace {

std::string hex(const unsigned char* digest) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < 16; ++i) {
    out += kDigits[digest[i] >> 4];
    out += kDigits[digest[i] & 15];
  }
  return out;
}

// Random lengths around the block and padding boundaries, appended in random
// pieces, against OpenSSL's MD5.
TEST(Md5, MatchesOpenSslOnRandomInputsAndSplits) {
  std::mt19937 rng(7);
  for (int round = 0; round < 2000; ++round) {
    size_t len = round < 200 ? static_cast<size_t>(round) : rng() % 5000;
    std::vector<unsigned char> data(len);
    for (auto& b : data) b = static_cast<unsigned char>(rng());

    unsigned char expected[EVP_MAX_MD_SIZE];
    unsigned int expected_len = 0;
    ASSERT_EQ(EVP_Digest(data.data(), len, expected, &expected_len, EVP_md5(), nullptr), 1);
    ASSERT_EQ(expected_len, 16u);

    orv::md5_state_s state;
    orv::md5_init(&state);
    size_t at = 0;
    while (at < len) {
      size_t piece = std::min(len - at, static_cast<size_t>(rng() % 130));
      orv::md5_append(&state, data.data() + at, static_cast<int>(piece));
      at += piece;
    }
    unsigned char digest[16];
    orv::md5_finish(&state, digest);
    ASSERT_EQ(hex(digest), hex(expected)) << "length " << len;
  }
}

TEST(Md5, BadArgumentsAppendNothing) {
  orv::md5_state_s state;
  orv::md5_init(&state);
  orv::md5_append(&state, nullptr, 10);
  orv::md5_append(&state, reinterpret_cast<const unsigned char*>("abc"), 0);
  orv::md5_append(&state, reinterpret_cast<const unsigned char*>("abc"), -3);
  orv::md5_append(nullptr, reinterpret_cast<const unsigned char*>("abc"), 3);
  orv::md5_init(nullptr);
  orv::md5_finish(nullptr, nullptr);
  unsigned char digest[16];
  orv::md5_finish(&state, digest);
  EXPECT_EQ(hex(digest), "d41d8cd98f00b204e9800998ecf8427e");  // MD5 of nothing
}

}  // namespace
