// The text parsers on arbitrary input, each checked against a model of its
// rule or an invariant; the first byte picks the parser. Inputs are handed
// over in exact-size copies where the parser takes a length, so that reading
// past the end is caught.
#include <ctype.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "core/utility/Networking/Address_resolver_getaddrinfo/orv_AddressResolver_getaddrinfo.h"
#include "core/utility/Networking/orv_HttpRequestMaker.h"
#include "core/utility/Networking/orv_HttpResponse.h"
#include "core/utility/orv_utility.h"
#include "fuzz/fuzz.h"

namespace {

const size_t npos = std::string::npos;

// The host follows the first "//" (not at the start) up to the next '/', and
// an address put in its place keeps the rest; with an http(s) scheme the
// domain is the host and the directory the rest. The request maker agrees.
void url_pieces(orv_fuzz::Input& in) {
  std::string url = in.rest();
  size_t slashes = url.find("//"), start = slashes + 2, end = url.find('/', start);
  bool has_host = slashes != npos && slashes != 0 && end != npos;
  std::string host = has_host ? url.substr(start, end - start) : "", domain = "x", directory = "x";
  FUZZ_CHECK(orv::get_host_from_url(url) == host);
  FUZZ_CHECK(orv::Networking::orv_http_request_maker::get_host_from_url(url) == host);
  std::string resolved = has_host ? url.substr(0, start) + "10.1.2.3" + url.substr(end) : "";
  FUZZ_CHECK(orv::get_resolve_ip_url(url, "10.1.2.3") == resolved);
  orv::get_url_domain_directory(url, domain, directory);
  bool http = has_host && (url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0);
  FUZZ_CHECK(domain == (http ? host : "") && directory == (http ? url.substr(end) : ""));
}

// Unreserved bytes stay, every other byte becomes "%XX" (uppercase), and
// decoding gives the text back up to a NUL. Decoding arbitrary text is left
// to the sanitizers.
void url_codec(orv_fuzz::Input& in) {
  std::string text = in.rest(), encoded;
  for (unsigned char c : text) {
    char hex[4];
    snprintf(hex, sizeof hex, "%%%02X", c);
    encoded += isalnum(c) || (c != 0 && strchr("-_.~", c) != nullptr) ? std::string(1, c) : hex;
  }
  FUZZ_CHECK(orv::URLEncode(text) == encoded);
  FUZZ_CHECK(orv::URLDecode(encoded.c_str(), encoded.size()) == text.substr(0, text.find('\0')));
  orv::URLDecode(std::vector<char>(text.begin(), text.end()).data(), text.size());
}

// A response header line counts if it holds a ':'; the name is what comes
// before, the value what follows past blanks and tabs, up to CR, LF or NUL;
// a repeated name keeps its last value. Lines are cut at LF.
void header_lines(orv_fuzz::Input& in) {
  auto response = orv::Networking::orv_HttpResponse::alloc();
  std::map<std::string, std::string> model;
  for (std::string all = in.rest(); !all.empty();) {
    std::string line = all.substr(0, all.find('\n') == npos ? npos : all.find('\n') + 1);
    all.erase(0, line.size());
    response->receive_header_line(std::vector<char>(line.begin(), line.end()).data(), line.size());
    size_t colon = line.find(':'),
           value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
    if (colon == npos) continue;
    model[line.substr(0, colon)] =
        line.substr(value, line.find_first_of(std::string("\r\n\0", 3), value) - value);
  }
  FUZZ_CHECK(response->_headers == model && response->_length == 1 &&
             response->_http_status == 200);
}

// The protocol runs through "://", the host to the first '/' (or a ':'
// before it), the path from there; empty parts are null. One resolver parses
// again and again, so that freeing the previous parts is exercised too.
bool part_is(const char* got, const std::string& want) {
  return want.empty() ? got == nullptr : got != nullptr && want == got;
}
void resolver_parse(orv_fuzz::Input& in) {
  static auto* resolver = new orv::Networking::orv_address_resolver_imp();
  std::string url = in.rest();
  url = url.substr(0, url.find('\0'));
  size_t scheme = url.find("://"), start = scheme == npos ? 0 : scheme + 3;
  size_t slash = url.find('/', start),
         end = slash == npos ? url.size() : std::min(slash, url.find(':', start));
  resolver->parseComponents(url.c_str());
  FUZZ_CHECK(part_is(resolver->_protocol, url.substr(0, start)) &&
             part_is(resolver->_path, url.substr(end)));
  FUZZ_CHECK(part_is(resolver->_host, url.substr(start, end - start)));
}

// A byte below 0x80 is a character; another leads a sequence as long as its
// count of leading 1 bits; a cut-off sequence does not count; a NUL stops.
void utf8(orv_fuzz::Input& in) {
  std::string text = in.rest();
  std::vector<unsigned char> s(text.begin(), text.end());  // exact size: over-reads are caught
  const unsigned char* p = s.data();
  const int len = static_cast<int>(s.size());
  std::vector<int> starts;
  int i = 0;
  while (i < len && s[i] != 0) {
    int n = s[i] < 0x80 ? 1 : __builtin_clz(~(s[i] * 0x1000000u));  // its leading 1 bits
    if (n > len - i) break;
    starts.push_back(i);
    i += n;
  }
  FUZZ_CHECK(orv::UTF8StrLen(p, len) == static_cast<int>(starts.size()));
  for (size_t k = 0; k < starts.size(); ++k)
    FUZZ_CHECK(orv::ptrToUTF8SymbolOffset(k, p, len) == p + starts[k]);
  FUZZ_CHECK(orv::ptrToUTF8SymbolOffset(starts.size(), p, len) ==
             (i < len && s[i] == 0 ? p + i : nullptr));
  FUZZ_CHECK(orv::ptrToUTF8SymbolOffset(-1, p, len) == nullptr);
}

// The stored text up to a NUL, each byte complemented, up to a NUL again;
// its first line (ended by CR LF) split at every ','.
void wakeup_words(orv_fuzz::Input& in) {
  static const std::string path = "/tmp/orv_fuzz_wakeup_" + std::to_string(getpid());
  std::string stored = in.rest(), text;
  FILE* f = fopen(path.c_str(), "wb");
  FUZZ_CHECK(f != nullptr && fwrite(stored.data(), 1, stored.size(), f) == stored.size() &&
             fclose(f) == 0);
  for (char c : stored.substr(0, stored.find('\0'))) text += static_cast<char>(~c);
  text = text.substr(0, text.find('\0'));
  std::vector<std::string> want{"before"}, words{"before"};
  size_t eol = text.find("\r\n");
  std::string line = text.substr(0, eol);
  for (size_t from = 0, comma = 0; eol != npos && comma != npos; from = comma + 1) {
    comma = line.find(',', from);
    want.push_back(line.substr(from, comma - from));
  }
  orv::decode_wakeup_words(path, words);
  unlink(path.c_str());
  FUZZ_CHECK(words == want);
}

// Both vector readers find the same array, or none (then they return 0 and
// append nothing).
void json_vectors(orv_fuzz::Input& in) {
  std::string key = in.str(16), json = in.rest();
  std::vector<int> ints;
  std::vector<std::string> strs;
  int found = orv::json_to_int_vector(json, key, ints);
  FUZZ_CHECK(orv::json_to_str_vector(json, key, strs) == found && ints.size() == strs.size());
  FUZZ_CHECK(found == (ints.empty() ? 0 : 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  void (*const parsers[])(orv_fuzz::Input&) = {
      url_pieces, url_codec, header_lines, resolver_parse, utf8, wakeup_words, json_vectors};
  orv_fuzz::Input in{data, size};
  parsers[in.byte() % 7](in);
  return 0;
}
