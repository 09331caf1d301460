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

using namespace orv;
using namespace orv::Networking;
const size_t npos = std::string::npos;

// The host follows the first "//" (not at the start) up to the next '/', and
// an address put in its place keeps the rest; with an http(s) scheme the
// domain is the host and the directory the rest. The request maker agrees.
void url_pieces(std::string url) {
  const size_t slashes = url.find("//"), start = slashes + 2, end = url.find('/', start);
  const bool found = slashes != npos && slashes != 0 && end != npos;
  const bool http = found && (url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0);
  const std::string host = found ? url.substr(start, end - start) : "";
  std::string domain = "x", directory = "x";
  get_url_domain_directory(url, domain, directory);
  FUZZ_CHECK(get_host_from_url(url) == host && orv_http_request_maker::get_host_from_url(url) == host);
  FUZZ_CHECK(get_resolve_ip_url(url, "10.1.2.3") == (found ? url.substr(0, start) + "10.1.2.3" + url.substr(end) : ""));
  FUZZ_CHECK(domain == (http ? host : "") && directory == (http ? url.substr(end) : ""));
}

// Unreserved bytes stay, every other byte becomes "%XX" (uppercase), and
// decoding gives the text back up to a NUL. Decoding arbitrary text is left
// to the sanitizers.
void url_codec(std::string text) {
  std::string encoded;
  const char* hex = "0123456789ABCDEF";
  for (unsigned char c : text)
    encoded += isalnum(c) || (c && strchr("-_.~", c)) ? std::string(1, c) : std::string{'%', hex[c >> 4], hex[c & 15]};
  FUZZ_CHECK(URLEncode(text) == encoded);
  FUZZ_CHECK(URLDecode(encoded.c_str(), encoded.size()) == text.substr(0, text.find('\0')));
  URLDecode(std::vector<char>(text.begin(), text.end()).data(), text.size());
}

// A response header line counts if it holds a ':'; the name is what comes
// before, the value what follows past blanks and tabs, up to CR, LF or NUL;
// a repeated name keeps its last value. Lines are cut at LF.
void header_lines(std::string all) {
  auto response = orv_HttpResponse::alloc();
  std::map<std::string, std::string> model;
  while (!all.empty()) {
    const std::string line = all.substr(0, all.find('\n') == npos ? npos : all.find('\n') + 1);
    all.erase(0, line.size());
    response->receive_header_line(std::vector<char>(line.begin(), line.end()).data(), line.size());
    const size_t colon = line.find(':'), value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
    if (colon != npos)
      model[line.substr(0, colon)] = line.substr(value, line.find_first_of(std::string("\r\n\0", 3), value) - value);
  }
  FUZZ_CHECK(response->_headers == model && response->_length == 1 && response->_http_status == 200);
}

// The protocol runs through "://", the host to the first '/' (or a ':'
// before it), the path from there; empty parts are null. One resolver parses
// again and again, so that freeing the previous parts is exercised too.
bool part_is(const char* got, const std::string& want) { return want.empty() ? !got : got && want == got; }
void resolver_parse(std::string url) {
  static auto* resolver = new orv_address_resolver_imp();
  url = url.substr(0, url.find('\0'));
  const size_t scheme = url.find("://"), start = scheme == npos ? 0 : scheme + 3, slash = url.find('/', start);
  const size_t end = slash == npos ? url.size() : std::min(slash, url.find(':', start));
  resolver->parseComponents(url.c_str());
  FUZZ_CHECK(part_is(resolver->_protocol, url.substr(0, start)) && part_is(resolver->_path, url.substr(end)));
  FUZZ_CHECK(part_is(resolver->_host, url.substr(start, end - start)));
}

// A byte below 0x80 is a character; another leads a sequence as long as its
// count of leading 1 bits; a cut-off sequence does not count; a NUL stops.
void utf8(std::string text) {
  const std::vector<unsigned char> s(text.begin(), text.end());  // exact size: over-reads are caught
  const unsigned char* p = s.data();
  const int len = static_cast<int>(s.size());
  std::vector<int> starts;
  int i = 0;
  for (int n; i < len && s[i] != 0 && (n = s[i] < 0x80 ? 1 : __builtin_clz(~(s[i] * 0x1000000u))) <= len - i; i += n)
    starts.push_back(i);
  FUZZ_CHECK(UTF8StrLen(p, len) == static_cast<int>(starts.size()));
  for (size_t k = 0; k < starts.size(); ++k) FUZZ_CHECK(ptrToUTF8SymbolOffset(k, p, len) == p + starts[k]);
  FUZZ_CHECK(ptrToUTF8SymbolOffset(starts.size(), p, len) == (i < len && s[i] == 0 ? p + i : nullptr));
  FUZZ_CHECK(ptrToUTF8SymbolOffset(-1, p, len) == nullptr);
}

// The stored text up to a NUL, each byte complemented, up to a NUL again;
// its first line (ended by CR LF) split at every ','.
void wakeup_words(std::string stored) {
  static const std::string path = "/tmp/orv_fuzz_wakeup_" + std::to_string(getpid());
  FILE* f = fopen(path.c_str(), "wb");
  FUZZ_CHECK(f != nullptr && fwrite(stored.data(), 1, stored.size(), f) == stored.size() && fclose(f) == 0);
  std::string text;  // (0xFF complemented is a NUL)
  for (char c : stored.substr(0, stored.find_first_of(std::string("\0\xff", 2)))) text += static_cast<char>(~c);
  const size_t eol = text.find("\r\n");
  const std::string line = text.substr(0, eol);
  std::vector<std::string> want{"before"}, words{"before"};
  for (size_t from = 0, comma = 0; eol != npos && comma != npos; from = comma + 1)
    want.push_back(line.substr(from, (comma = line.find(',', from)) - from));
  decode_wakeup_words(path, words);
  unlink(path.c_str());
  FUZZ_CHECK(words == want);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in{data, size};
  const int parser = in.byte() % 7;
  if (parser == 6) {  // both vector readers find the same array, or none (0, nothing appended)
    std::string key = in.str(16), json = in.rest();
    std::vector<int> ints;
    std::vector<std::string> strs;
    const int found = json_to_int_vector(json, key, ints);
    FUZZ_CHECK(json_to_str_vector(json, key, strs) == found && ints.size() == strs.size() && found == !ints.empty());
    return 0;
  }
  void (*const parsers[])(std::string) = {url_pieces, url_codec, header_lines, resolver_parse, utf8, wakeup_words};
  parsers[parser](in.rest());
  return 0;
}
