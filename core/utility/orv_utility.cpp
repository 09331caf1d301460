#include "core/utility/orv_utility.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>

namespace orv {

// ---- Error codes ----------------------------------------------------------

int encode_error(short high, short low) {
  uint32_t packed = (static_cast<uint32_t>(static_cast<uint16_t>(high)) << 16) |
                    static_cast<uint16_t>(low);
  return static_cast<int>(packed);
}

void decode_error(int code, short& high, short& low) {
  high = static_cast<short>(code >> 16);
  low = static_cast<short>(static_cast<uint16_t>(static_cast<uint32_t>(code) & 0xFFFF));
}

// ---- UTF-8 -----------------------------------------------------------------

namespace {

// Sequence length announced by a lead byte: 1 below 0x80, else its count of
// leading 1 bits (1 for a stray continuation byte, up to 8 for 0xFF).
int utf8_sequence_length(unsigned char lead) {
  if (lead < 0x80) return 1;
  int n = 0;
  while (n < 8 && (lead & (0x80 >> n)) != 0) ++n;
  return n;
}

// Usable range: s non-null, len > 0 and s + len not past the address space.
bool utf8_range_ok(const unsigned char* s, int len) {
  if (s == nullptr || len <= 0) return false;
  uintptr_t start = reinterpret_cast<uintptr_t>(s);
  return start + static_cast<uintptr_t>(len) > start;
}

}  // namespace

int UTF8StrLen(const unsigned char* s, int len) {
  if (!utf8_range_ok(s, len)) return 0;
  int count = 0;
  int i = 0;
  while (i < len && s[i] != 0) {
    int n = utf8_sequence_length(s[i]);
    if (n > len - i) break;
    ++count;
    i += n;
  }
  return count;
}

const unsigned char* ptrToUTF8SymbolOffset(int index, const unsigned char* s, int len) {
  if (!utf8_range_ok(s, len) || index < 0) return nullptr;
  int i = 0;
  for (int k = 0; i < len; ++k) {
    if (s[i] == 0) return s + i;
    int n = utf8_sequence_length(s[i]);
    if (n > len - i) return nullptr;
    if (k == index) return s + i;
    i += n;
  }
  return nullptr;
}

// ---- URLs ------------------------------------------------------------------

namespace {

bool is_unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.' || c == '~';
}

int hex_value(int c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

}  // namespace

std::string URLEncode(const unsigned char* s, unsigned len) {
  std::string out;
  if (s == nullptr || len == 0) return out;
  out.reserve(len);
  for (unsigned i = 0; i < len; ++i) {
    if (is_unreserved(s[i])) {
      out += static_cast<char>(s[i]);
    } else {
      char escape[4];
      snprintf(escape, sizeof escape, "%%%02X", s[i]);
      out += escape;
    }
  }
  return out;
}

std::string URLEncode(const std::string& s) {
  return URLEncode(reinterpret_cast<const unsigned char*>(s.data()), static_cast<unsigned>(s.size()));
}

std::string URLEncodedKEV(const std::string& key, const std::string& value) {
  return URLEncode(key) + "=" + URLEncode(value);
}

bool ishex(int c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::string URLDecode(const char* s, unsigned size) {
  std::string out;
  if (s == nullptr) return out;
  out.reserve(size);
  for (unsigned i = 0; i < size; ++i) {
    char c = s[i];
    if (c == '+') {
      out += ' ';
    } else if (c == '%') {
      if (size - i < 3 || !ishex(static_cast<unsigned char>(s[i + 1])) ||
          !ishex(static_cast<unsigned char>(s[i + 2]))) {
        return std::string();
      }
      out += static_cast<char>(hex_value(s[i + 1]) * 16 + hex_value(s[i + 2]));
      i += 2;
    } else {
      out += c;
    }
  }
  size_t nul = out.find('\0');
  if (nul != std::string::npos) out.resize(nul);
  return out;
}

namespace {

// Start of the host (just after the first "//") and the "/" ending it; false
// when "//" is missing or at position 0, or nothing follows the host.
bool find_host(const std::string& url, size_t& host_start, size_t& host_end) {
  size_t slashes = url.find("//");
  if (slashes == std::string::npos || slashes == 0) return false;
  host_start = slashes + 2;
  host_end = url.find('/', host_start);
  return host_end != std::string::npos;
}

}  // namespace

std::string get_host_from_url(std::string url) {
  size_t start, end;
  if (!find_host(url, start, end)) return std::string();
  return url.substr(start, end - start);
}

void get_url_domain_directory(std::string url, std::string& domain, std::string& directory) {
  domain.clear();
  directory.clear();
  size_t scheme_len;
  if (url.compare(0, 7, "http://") == 0) {
    scheme_len = 7;
  } else if (url.compare(0, 8, "https://") == 0) {
    scheme_len = 8;
  } else {
    return;
  }
  size_t slash = url.find('/', scheme_len);
  if (slash == std::string::npos) return;
  domain = url.substr(scheme_len, slash - scheme_len);
  directory = url.substr(slash);
}

std::string get_resolve_ip_url(std::string url, std::string ip) {
  size_t start, end;
  if (!find_host(url, start, end)) return std::string();
  return url.substr(0, start) + ip + url.substr(end);
}

// ---- Files and strings -----------------------------------------------------

long getFileSize(FILE* f) {
  if (f == nullptr) return -1;
  long old_pos = ftell(f);
  long size;
  if (fseek(f, 0, SEEK_END) == 0) {
    size = ftell(f);
  } else {
    rewind(f);
    char block[2048];
    size = 0;
    for (;;) {
      size_t got = fread(block, 1, sizeof block, f);
      size += static_cast<long>(got);
      if (got < sizeof block) break;
    }
    clearerr(f);
  }
  if (old_pos >= 0) fseek(f, old_pos, SEEK_SET);
  return size;
}

std::string read_all_content(std::string path) {
  if (path.empty()) return std::string();
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return std::string();
  char* buffer = nullptr;
  size_t used = 0;
  for (;;) {
    // One spare byte stays free for the terminator.
    char* grown = static_cast<char*>(realloc(buffer, used + 1024 + 1));
    if (grown == nullptr) {
      free(buffer);
      fclose(f);
      return std::string();
    }
    buffer = grown;
    size_t got = fread(buffer + used, 1, 1024, f);
    used += got;
    if (got < 1024) break;
  }
  fclose(f);
  buffer[used] = '\0';
  std::string content(buffer);
  free(buffer);
  return content;
}

char* clone_str(const char* s) {
  if (s == nullptr) return nullptr;
  size_t n = strlen(s) + 1;
  char* copy = static_cast<char*>(malloc(n));
  if (copy != nullptr) memcpy(copy, s, n);
  return copy;
}

bool str_ends_with(const char* s, unsigned sLen, const char* suffix, unsigned suffixLen) {
  if (s == nullptr || suffix == nullptr || suffixLen > sLen) return false;
  return strncmp(s + (sLen - suffixLen), suffix, suffixLen) == 0;
}

int string_to_int(std::string s) {
  std::stringstream stream;
  stream << s;
  int value = 0;
  stream >> value;
  return value;
}

namespace {

template <class Number>
std::string number_to_string(Number value) {
  std::stringstream stream;
  stream << value;
  std::string word;
  stream >> word;
  return word;
}

}  // namespace

std::string int_to_string(int value) { return number_to_string(value); }

std::string ll_to_string(long long value) { return number_to_string(value); }

std::vector<std::string> split(std::string s, std::string delimiters) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (;;) {
    size_t cut = s.find_first_of(delimiters, start);
    if (cut == std::string::npos) break;
    pieces.push_back(s.substr(start, cut - start));
    start = cut + 1;
  }
  pieces.push_back(s.substr(start));
  return pieces;
}

// ---- Boyer-Moore byte search -----------------------------------------------

void make_delta1(int* delta1, const unsigned char* pattern, int patternLen) {
  for (int c = 0; c < 256; ++c) delta1[c] = patternLen;
  for (int i = 0; i < patternLen - 1; ++i) delta1[pattern[i]] = patternLen - 1 - i;
}

bool is_prefix(const unsigned char* word, int wordLen, int pos) {
  int suffix_len = wordLen - pos;
  for (int i = 0; i < suffix_len; ++i) {
    if (word[i] != word[pos + i]) return false;
  }
  return true;
}

int suffix_length(const unsigned char* word, int wordLen, int pos) {
  int i = 0;
  while (i < pos && word[pos - i] == word[wordLen - 1 - i]) ++i;
  return i;
}

void make_delta2(int* delta2, const unsigned char* pattern, int patternLen) {
  // Case 1: the matched suffix occurs nowhere else; shift so that the longest
  // pattern prefix that is also a suffix lines up.
  int last_prefix = patternLen - 1;
  for (int p = patternLen - 1; p >= 0; --p) {
    if (is_prefix(pattern, patternLen, p + 1)) last_prefix = p + 1;
    delta2[p] = last_prefix + (patternLen - 1 - p);
  }
  // Case 2: the matched suffix occurs again, preceded by another byte.
  for (int p = 0; p < patternLen - 1; ++p) {
    int len = suffix_length(pattern, patternLen, p);
    if (pattern[p - len] != pattern[patternLen - 1 - len]) {
      delta2[patternLen - 1 - len] = patternLen - 1 - p + len;
    }
  }
}

unsigned char* boyer_moore(unsigned char* text, unsigned textLen, unsigned char* pattern,
                           unsigned patternLen) {
  if (text == nullptr || pattern == nullptr || textLen == 0 || patternLen == 0) return nullptr;
  // The tables hold ints: longer patterns cannot be searched.
  if (patternLen > static_cast<unsigned>(INT32_MAX) || patternLen > textLen) return nullptr;
  int plen = static_cast<int>(patternLen);
  int delta1[256];
  make_delta1(delta1, pattern, plen);
  int* delta2 = static_cast<int*>(malloc(sizeof(int) * patternLen));
  if (delta2 == nullptr) return nullptr;
  make_delta2(delta2, pattern, plen);

  unsigned char* found = nullptr;
  // i: text position compared with pattern position j.
  uint64_t i = patternLen - 1;
  while (i < textLen) {
    int j = plen - 1;
    while (j >= 0 && text[i] == pattern[j]) {
      --j;
      if (j >= 0) --i;
    }
    if (j < 0) {
      found = text + i;
      break;
    }
    int bad_char = delta1[text[i]];
    i += static_cast<uint64_t>(bad_char > delta2[j] ? bad_char : delta2[j]);
  }
  free(delta2);
  return found;
}

// ---- JSON ------------------------------------------------------------------

cJSON* read_json(const char* text) {
  if (text == nullptr || text[0] == '\0') return nullptr;
  return cJSON_Parse(text);
}

cJSON* get_json_item(cJSON* obj, const char* key) {
  if (obj == nullptr || key == nullptr) return nullptr;
  return cJSON_GetObjectItem(obj, key);
}

cJSON* get_json_array_item(cJSON* arr, unsigned index) {
  if (arr == nullptr || index > static_cast<unsigned>(INT32_MAX)) return nullptr;
  return cJSON_GetArrayItem(arr, static_cast<int>(index));
}

namespace {

// Parses json, finds the array json[key] and hands each element to take.
// The return value follows json_to_int_vector.
template <class Take>
int for_each_json_element(const std::string& json, const std::string& key, Take take) {
  cJSON* root = read_json(json.c_str());
  if (root == nullptr) return 0;
  cJSON* array = get_json_item(root, key.c_str());
  int size = array != nullptr ? cJSON_GetArraySize(array) : 0;
  if (size <= 0) {
    cJSON_Delete(root);
    return 0;
  }
  for (int i = 0; i < size; ++i) {
    cJSON* element = cJSON_GetArrayItem(array, i);
    if (element == nullptr) break;
    take(element);
  }
  cJSON_Delete(root);
  return 1;
}

}  // namespace

int json_to_int_vector(std::string json, std::string key, std::vector<int>& out) {
  return for_each_json_element(json, key, [&out](cJSON* element) {
    out.push_back(cJSON_IsNumber(element) ? element->valueint : 0);
  });
}

int json_to_str_vector(std::string json, std::string key, std::vector<std::string>& out) {
  return for_each_json_element(json, key, [&out](cJSON* element) {
    const char* text = cJSON_IsString(element) ? element->valuestring : nullptr;
    out.push_back(text != nullptr ? text : "");
  });
}

// ---- Wake-up words ---------------------------------------------------------

void decode_wakeup_words(const std::string& path, std::vector<std::string>& words) {
  std::string content = read_all_content(path);
  if (content.empty()) return;
  for (char& c : content) c = static_cast<char>(~static_cast<unsigned char>(c));
  size_t nul = content.find('\0');
  if (nul != std::string::npos) content.resize(nul);
  size_t line_end = content.find("\r\n");
  if (line_end == std::string::npos) return;
  std::vector<std::string> pieces = split(content.substr(0, line_end), ",");
  words.insert(words.end(), pieces.begin(), pieces.end());
}

}  // namespace orv
