// The address resolver's URL parsing against a model of its rule: protocol
// up to and including "://", the host up to the first '/' (or up to a ':'
// that comes before that '/'), the path from there on; empty parts are null.
// The same resolver parses again and again, so that freeing the previous
// parts is exercised too.
#include "core/utility/Networking/Address_resolver_getaddrinfo/orv_AddressResolver_getaddrinfo.h"
#include "fuzz/fuzz_support.h"

namespace {

void check_part(const char* got, const std::string& want) {
  if (want.empty()) {
    FUZZ_CHECK(got == nullptr);
  } else {
    FUZZ_CHECK(got != nullptr && want == got);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static orv::Networking::orv_address_resolver_imp* resolver =
      new orv::Networking::orv_address_resolver_imp();
  std::string url(reinterpret_cast<const char*>(data), size);
  url = url.substr(0, url.find('\0'));

  size_t scheme = url.find("://");
  size_t host_start = scheme == std::string::npos ? 0 : scheme + 3;
  size_t slash = url.find('/', host_start);
  size_t colon = url.find(':', host_start);
  size_t host_end;
  if (slash != std::string::npos && colon != std::string::npos && colon < slash) {
    host_end = colon;
  } else if (slash != std::string::npos) {
    host_end = slash;
  } else {
    host_end = url.size();
  }

  resolver->parseComponents(url.c_str());
  check_part(resolver->_protocol, url.substr(0, host_start));
  check_part(resolver->_host, url.substr(host_start, host_end - host_start));
  check_part(resolver->_path, url.substr(host_end));

  // A second resolver made and dropped per input: its destructor frees the parts.
  orv::Networking::orv_address_resolver_imp once;
  once.parseComponents(url.c_str());
  once.parseComponents("");
  FUZZ_CHECK(once._protocol == nullptr && once._host == nullptr && once._path == nullptr);
  once.parseComponents(url.c_str());
  return 0;
}
