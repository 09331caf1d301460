#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <limits.h>

#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

const unsigned char* bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

TEST(ErrorCodes, PackAndUnpackBothHalvesWithSigns) {
  EXPECT_EQ(orv::encode_error(1, -1), 0x0001FFFF);
  EXPECT_EQ(static_cast<unsigned>(orv::encode_error(-1, 1)), 0xFFFF0001u);
  short high = 0, low = 0;
  orv::decode_error(static_cast<int>(0xFFFF0001u), high, low);
  EXPECT_EQ(high, -1);
  EXPECT_EQ(low, 1);
  for (int h : {-32768, -2, 0, 7, 32767}) {
    for (int l : {-32768, -1, 0, 1, 32767}) {
      orv::decode_error(orv::encode_error(static_cast<short>(h), static_cast<short>(l)), high, low);
      EXPECT_EQ(high, h);
      EXPECT_EQ(low, l);
    }
  }
}

// Strict decoder used as the reference: number of complete, well-formed
// characters in s[0, len).
int reference_utf8_count(const std::vector<unsigned char>& s, size_t len) {
  int count = 0;
  size_t i = 0;
  while (i < len) {
    unsigned char b = s[i];
    size_t n = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    if (i + n > len) break;
    for (size_t k = 1; k < n; ++k) EXPECT_EQ(s[i + k] & 0xC0, 0x80);
    ++count;
    i += n;
  }
  return count;
}

void append_code_point(std::vector<unsigned char>& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<unsigned char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<unsigned char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<unsigned char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<unsigned char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<unsigned char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<unsigned char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<unsigned char>(0x80 | (cp & 0x3F)));
  }
}

TEST(Utf8, CountAndOffsetsMatchAReferenceDecoderOnEveryPrefix) {
  std::mt19937 rng(20240601);
  for (int round = 0; round < 300; ++round) {
    std::vector<unsigned char> text;
    int chars = static_cast<int>(rng() % 40);
    for (int c = 0; c < chars; ++c) {
      uint32_t ranges[4][2] = {{1, 0x7F}, {0x80, 0x7FF}, {0x800, 0xFFFF}, {0x10000, 0x10FFFF}};
      auto& r = ranges[rng() % 4];
      append_code_point(text, r[0] + rng() % (r[1] - r[0] + 1));
    }
    text.push_back(0xAA);  // keeps data() valid for an empty text
    for (size_t len = 0; len + 1 <= text.size(); ++len) {
      int expected = reference_utf8_count(text, len);
      int len_i = static_cast<int>(len);
      ASSERT_EQ(orv::UTF8StrLen(text.data(), len_i), expected) << "round " << round << " len " << len;
      // Every counted character has an address, in order; the next one has none.
      const unsigned char* previous = nullptr;
      for (int k = 0; k < expected; ++k) {
        const unsigned char* p = orv::ptrToUTF8SymbolOffset(k, text.data(), len_i);
        ASSERT_NE(p, nullptr);
        ASSERT_GT(p, previous);
        ASSERT_EQ(orv::UTF8StrLen(text.data(), static_cast<int>(p - text.data())), k);
        previous = p;
      }
      ASSERT_EQ(orv::ptrToUTF8SymbolOffset(expected, text.data(), len_i), nullptr);
    }
  }
}

TEST(Utf8, TruncationNulAndBadArguments) {
  const unsigned char two[] = {0xC3, 0xA9};  // e acute
  EXPECT_EQ(orv::UTF8StrLen(nullptr, 5), 0);
  EXPECT_EQ(orv::UTF8StrLen(two, 0), 0);
  EXPECT_EQ(orv::UTF8StrLen(two, -1), 0);
  // A range whose end would pass the end of the address space.
  EXPECT_EQ(orv::UTF8StrLen(reinterpret_cast<const unsigned char*>(UINTPTR_MAX - 3), 10), 0);

  const unsigned char with_nul[] = {'a', 0xC3, 0xA9, 0, 'b', 'c'};
  EXPECT_EQ(orv::UTF8StrLen(with_nul, 6), 2);
  EXPECT_EQ(orv::ptrToUTF8SymbolOffset(1, with_nul, 6), with_nul + 1);
  EXPECT_EQ(orv::ptrToUTF8SymbolOffset(2, with_nul, 6), with_nul + 3);
  EXPECT_EQ(orv::ptrToUTF8SymbolOffset(5, with_nul, 6), with_nul + 3);
  EXPECT_EQ(orv::ptrToUTF8SymbolOffset(0, nullptr, 6), nullptr);
  EXPECT_EQ(orv::ptrToUTF8SymbolOffset(0, with_nul, 0), nullptr);
  EXPECT_EQ(orv::ptrToUTF8SymbolOffset(-1, with_nul, 6), nullptr);

  // Lead bytes are trusted: 0xFF announces 8 bytes, a stray continuation one.
  const unsigned char odd[] = {0xFF, 1, 2, 3, 4, 5, 6, 7, 0x80, 'x'};
  EXPECT_EQ(orv::UTF8StrLen(odd, 10), 3);
  EXPECT_EQ(orv::UTF8StrLen(odd, 7), 0);
}

TEST(Url, EncodeEveryByteValueAndDecodeItBack) {
  for (int b = 0; b < 256; ++b) {
    unsigned char byte = static_cast<unsigned char>(b);
    std::string encoded = orv::URLEncode(&byte, 1);
    bool unreserved = isalnum(b) || b == '-' || b == '_' || b == '.' || b == '~';
    if (unreserved) {
      EXPECT_EQ(encoded, std::string(1, static_cast<char>(b)));
    } else {
      char expected[4];
      snprintf(expected, sizeof expected, "%%%02X", b);
      EXPECT_EQ(encoded, expected) << b;
    }
    std::string decoded = orv::URLDecode(encoded.c_str(), static_cast<unsigned>(encoded.size()));
    EXPECT_EQ(decoded, b == 0 ? std::string() : std::string(1, static_cast<char>(b))) << b;
  }
  std::string all;
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  std::string encoded = orv::URLEncode(all);
  EXPECT_EQ(orv::URLDecode(encoded.c_str(), static_cast<unsigned>(encoded.size())), all);

  EXPECT_EQ(orv::URLEncode(bytes("a b&c~"), 6), "a%20b%26c~");
  EXPECT_EQ(orv::URLEncode(nullptr, 4), "");
  EXPECT_EQ(orv::URLEncode(bytes("abc"), 0), "");
  EXPECT_EQ(orv::URLEncodedKEV("k y", "v=1/2"), "k%20y=v%3D1%2F2");
}

TEST(Url, DecodePlusMalformedEscapesAndNul) {
  EXPECT_EQ(orv::URLDecode("a+b%41", 6), "a bA");
  EXPECT_EQ(orv::URLDecode("%6a%6A", 6), "jj");
  EXPECT_EQ(orv::URLDecode("50%", 3), "");
  EXPECT_EQ(orv::URLDecode("50%4", 4), "");
  EXPECT_EQ(orv::URLDecode("a%zzb", 5), "");
  EXPECT_EQ(orv::URLDecode("a%+1b", 5), "");
  // The size bounds the escape: "%41" cut after "%4" is malformed.
  EXPECT_EQ(orv::URLDecode("x%41", 3), "");
  EXPECT_EQ(orv::URLDecode("ab%00cd", 7), "ab");
  EXPECT_EQ(orv::URLDecode("ab\0cd", 5), "ab");
  EXPECT_EQ(orv::URLDecode(nullptr, 3), "");
  EXPECT_EQ(orv::URLDecode("abc", 0), "");
  for (int c = 0; c < 256; ++c) {
    EXPECT_EQ(orv::ishex(c), strchr("0123456789abcdefABCDEF", c) != nullptr && c != 0) << c;
  }
}

TEST(Url, HostDomainDirectoryAndIpRewrite) {
  EXPECT_EQ(orv::get_host_from_url("https://host.example:8443/a/b?c"), "host.example:8443");
  EXPECT_EQ(orv::get_host_from_url("http://host.example"), "");
  EXPECT_EQ(orv::get_host_from_url("//host/x"), "");
  EXPECT_EQ(orv::get_host_from_url("host/x"), "");
  EXPECT_EQ(orv::get_host_from_url("ftp://h/"), "h");

  std::string domain = "old", directory = "old";
  orv::get_url_domain_directory("https://h.example:80/p/q?x=1", domain, directory);
  EXPECT_EQ(domain, "h.example:80");
  EXPECT_EQ(directory, "/p/q?x=1");
  orv::get_url_domain_directory("http://h.example/", domain, directory);
  EXPECT_EQ(domain, "h.example");
  EXPECT_EQ(directory, "/");
  for (const char* url : {"http://h.example", "ftp://h.example/x", "h.example/x", ""}) {
    domain = directory = "old";
    orv::get_url_domain_directory(url, domain, directory);
    EXPECT_EQ(domain, "") << url;
    EXPECT_EQ(directory, "") << url;
  }

  EXPECT_EQ(orv::get_resolve_ip_url("https://h.example:8443/a?b", "127.0.0.1"),
            "https://127.0.0.1/a?b");
  EXPECT_EQ(orv::get_resolve_ip_url("http://h.example", "127.0.0.1"), "");
  EXPECT_EQ(orv::get_resolve_ip_url("//h/x", "127.0.0.1"), "");
}

TEST(Files, SizeReadAllAndBadPaths) {
  orv_test::TempDir dir;
  std::string big(5000, 'x');
  big[3000] = 'y';
  orv_test::write_file(dir.file("big"), big);
  FILE* f = fopen(dir.file("big").c_str(), "rb");
  ASSERT_NE(f, nullptr);
  fseek(f, 123, SEEK_SET);
  EXPECT_EQ(orv::getFileSize(f), 5000);
  EXPECT_EQ(ftell(f), 123);
  fclose(f);
  EXPECT_EQ(orv::getFileSize(nullptr), -1);

  // A pipe cannot seek: counted by reading.
  FILE* pipe = popen("head -c 4100 /dev/zero", "r");
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(orv::getFileSize(pipe), 4100);
  pclose(pipe);

  // Exact multiples of the read step, a NUL cut and empty files.
  for (size_t n : {size_t{0}, size_t{1}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{2048}, size_t{5000}}) {
    std::string content(n, 'a');
    for (size_t i = 0; i < n; ++i) content[i] = static_cast<char>('a' + i % 26);
    orv_test::write_file(dir.file("n"), content);
    EXPECT_EQ(orv::read_all_content(dir.file("n")), content) << n;
  }
  orv_test::write_file(dir.file("nul"), std::string("ab\0cd", 5));
  EXPECT_EQ(orv::read_all_content(dir.file("nul")), "ab");
  EXPECT_EQ(orv::read_all_content(""), "");
  EXPECT_EQ(orv::read_all_content(dir.file("missing")), "");
  EXPECT_EQ(orv::read_all_content(dir.path()), "");                // a directory
  EXPECT_EQ(orv::read_all_content(dir.file("big") + "/x"), "");    // parent is a file
}

TEST(Strings, CloneEndsWithConversionsAndSplit) {
  char* copy = orv::clone_str("hello");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "hello");
  free(copy);
  copy = orv::clone_str("");
  EXPECT_STREQ(copy, "");
  free(copy);
  EXPECT_EQ(orv::clone_str(nullptr), nullptr);

  EXPECT_TRUE(orv::str_ends_with("lib.so", 6, ".so", 3));
  EXPECT_FALSE(orv::str_ends_with("lib.sa", 6, ".so", 3));
  EXPECT_TRUE(orv::str_ends_with("lib.so", 6, "", 0));
  EXPECT_FALSE(orv::str_ends_with("so", 2, ".so", 3));
  EXPECT_FALSE(orv::str_ends_with(nullptr, 6, ".so", 3));
  EXPECT_FALSE(orv::str_ends_with("lib.so", 6, nullptr, 0));
  // The lengths given decide, not the NUL.
  EXPECT_TRUE(orv::str_ends_with("lib.so.1", 6, ".so", 3));

  EXPECT_EQ(orv::string_to_int("  42abc"), 42);
  EXPECT_EQ(orv::string_to_int("-17"), -17);
  EXPECT_EQ(orv::string_to_int("abc"), 0);
  EXPECT_EQ(orv::string_to_int(""), 0);
  EXPECT_EQ(orv::string_to_int("99999999999"), INT_MAX);
  EXPECT_EQ(orv::int_to_string(0), "0");
  EXPECT_EQ(orv::int_to_string(INT_MIN), "-2147483648");
  EXPECT_EQ(orv::ll_to_string(LLONG_MAX), "9223372036854775807");
  EXPECT_EQ(orv::ll_to_string(-5), "-5");

  using V = std::vector<std::string>;
  EXPECT_EQ(orv::split("a,b;c", ",;"), (V{"a", "b", "c"}));
  EXPECT_EQ(orv::split(",a,,b,", ","), (V{"", "a", "", "b", ""}));
  EXPECT_EQ(orv::split("", ","), (V{""}));
  EXPECT_EQ(orv::split("abc", ""), (V{"abc"}));
  EXPECT_EQ(orv::split("abc", ","), (V{"abc"}));
}

TEST(BoyerMoore, AgreesWithMemmemOnSeededRandomTexts) {
  std::mt19937 rng(12345);
  for (int round = 0; round < 20000; ++round) {
    // Small alphabets give many partial matches and repeated suffixes.
    int alphabet = 1 + static_cast<int>(rng() % (round % 3 == 0 ? 256 : 4));
    size_t text_len = 1 + rng() % 300;
    size_t pattern_len = 1 + rng() % (round % 5 == 0 ? 40 : 8);
    std::vector<unsigned char> text(text_len), pattern(pattern_len);
    for (auto& c : text) c = static_cast<unsigned char>('a' + rng() % alphabet);
    for (auto& c : pattern) c = static_cast<unsigned char>('a' + rng() % alphabet);
    // Plant the pattern now and then so that matches are common.
    if (round % 2 == 0 && pattern_len <= text_len) {
      size_t at = rng() % (text_len - pattern_len + 1);
      memcpy(text.data() + at, pattern.data(), pattern_len);
    }
    void* expected = memmem(text.data(), text_len, pattern.data(), pattern_len);
    unsigned char* got = orv::boyer_moore(text.data(), static_cast<unsigned>(text_len), pattern.data(),
                                          static_cast<unsigned>(pattern_len));
    ASSERT_EQ(static_cast<void*>(got), expected) << "round " << round;
  }
}

TEST(BoyerMoore, TablesAndBadArguments) {
  unsigned char text[] = "here is a simple example";
  unsigned char pattern[] = "example";
  EXPECT_EQ(orv::boyer_moore(text, 24, pattern, 7), text + 17);
  EXPECT_EQ(orv::boyer_moore(text, 24, pattern, 0), nullptr);
  EXPECT_EQ(orv::boyer_moore(text, 0, pattern, 7), nullptr);
  EXPECT_EQ(orv::boyer_moore(nullptr, 24, pattern, 7), nullptr);
  EXPECT_EQ(orv::boyer_moore(text, 24, nullptr, 7), nullptr);
  EXPECT_EQ(orv::boyer_moore(text, 3, pattern, 7), nullptr);
  EXPECT_EQ(orv::boyer_moore(text, 24, text, 24), text);

  int delta1[256];
  orv::make_delta1(delta1, pattern, 7);
  EXPECT_EQ(delta1[static_cast<unsigned char>('z')], 7);
  EXPECT_EQ(delta1[static_cast<unsigned char>('l')], 1);
  EXPECT_EQ(delta1[static_cast<unsigned char>('e')], 6);  // last occurrence before the final byte
  EXPECT_EQ(delta1[static_cast<unsigned char>('x')], 5);

  const unsigned char* abcab = bytes("abcab");
  EXPECT_TRUE(orv::is_prefix(abcab, 5, 3));
  EXPECT_FALSE(orv::is_prefix(abcab, 5, 2));
  const unsigned char* dabcab = bytes("dabcab");
  EXPECT_EQ(orv::suffix_length(dabcab, 6, 2), 2);
  EXPECT_EQ(orv::suffix_length(dabcab, 6, 3), 0);
  EXPECT_EQ(orv::suffix_length(abcab, 5, 1), 1);  // capped at pos
  int delta2[5];
  orv::make_delta2(delta2, abcab, 5);
  // Mismatch at the last byte: shift by one. A matched "ab" re-aligns on the
  // prefix "ab".
  EXPECT_EQ(delta2[4], 1);
  EXPECT_EQ(delta2[2], 5);
}

TEST(Json, AccessorsAndVectors) {
  EXPECT_EQ(orv::read_json(nullptr), nullptr);
  EXPECT_EQ(orv::read_json(""), nullptr);
  EXPECT_EQ(orv::read_json("{bad"), nullptr);
  orv::cJSON* root = orv::read_json(R"({"a":{"b":[10,"x",true]}})");
  ASSERT_NE(root, nullptr);
  orv::cJSON* b = orv::get_json_item(orv::get_json_item(root, "a"), "b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(orv::get_json_array_item(b, 0)->valueint, 10);
  EXPECT_STREQ(orv::get_json_array_item(b, 1)->valuestring, "x");
  EXPECT_EQ(orv::get_json_array_item(b, 3), nullptr);
  EXPECT_EQ(orv::get_json_array_item(b, 0x80000000u), nullptr);
  EXPECT_EQ(orv::get_json_array_item(nullptr, 0), nullptr);
  EXPECT_EQ(orv::get_json_item(nullptr, "a"), nullptr);
  EXPECT_EQ(orv::get_json_item(root, nullptr), nullptr);
  EXPECT_EQ(orv::get_json_item(root, "missing"), nullptr);
  orv::cJSON_Delete(root);

  std::vector<int> ints{7};
  EXPECT_EQ(orv::json_to_int_vector(R"({"k":[1,-2,3.9,"s"]})", "k", ints), 1);
  EXPECT_EQ(ints, (std::vector<int>{7, 1, -2, 3, 0}));
  for (const char* json : {"", "{", R"({"k":[]})", R"({"j":[1]})", R"({"k":5})"}) {
    std::vector<int> out;
    EXPECT_EQ(orv::json_to_int_vector(json, "k", out), 0) << json;
    EXPECT_TRUE(out.empty());
  }
  std::vector<std::string> strs;
  EXPECT_EQ(orv::json_to_str_vector(R"({"k":["a","",5,"c"]})", "k", strs), 1);
  EXPECT_EQ(strs, (std::vector<std::string>{"a", "", "", "c"}));
  strs.clear();
  EXPECT_EQ(orv::json_to_str_vector(R"({"k":[]})", "k", strs), 0);
}

std::string complemented(const std::string& s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(~static_cast<unsigned char>(c));
  return out;
}

TEST(WakeupWords, FirstLineSplitOnCommas) {
  orv_test::TempDir dir;
  struct Case {
    std::string plain;
    std::vector<std::string> words;
  } cases[] = {
      {"hi,hello\r\nmore,text\r\n", {"hi", "hello"}},
      {"one\r\n", {"one"}},
      {",a,,\r\n", {"", "a", "", ""}},
      {"\r\nlater", {""}},
      {"no line end", {}},
      {"", {}},
      // A decoded NUL ends the text before its "\r\n"; so does a stored NUL
      // (plain 0xFF), which cuts the file as it is read.
      {std::string("cut\0off\r\n", 9), {}},
      {"cut\xff" "off\r\n", {}},
  };
  for (const Case& c : cases) {
    orv_test::write_file(dir.file("words"), complemented(c.plain));
    std::vector<std::string> words{"kept"};
    orv::decode_wakeup_words(dir.file("words"), words);
    std::vector<std::string> expected{"kept"};
    expected.insert(expected.end(), c.words.begin(), c.words.end());
    EXPECT_EQ(words, expected) << c.plain;
  }
  std::vector<std::string> words;
  orv::decode_wakeup_words(dir.file("missing"), words);
  orv::decode_wakeup_words(dir.path(), words);
  EXPECT_TRUE(words.empty());
}

}  // namespace
