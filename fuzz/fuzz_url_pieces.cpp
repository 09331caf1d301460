// URL pieces (host, domain and directory, host replaced by an address)
// against models of their rules, and the request maker's own host rule and
// pinning helpers against the same models.
#include "core/utility/Networking/orv_HttpRequestMaker.h"
#include "core/utility/orv_utility.h"
#include "fuzz/fuzz_support.h"

namespace {

// Start of the host and the "/" after it; false when "//" is missing or at
// position 0, or no "/" follows.
bool host_range(const std::string& url, size_t* start, size_t* end) {
  size_t slashes = url.find("//");
  if (slashes == std::string::npos || slashes == 0) return false;
  *start = slashes + 2;
  *end = url.find('/', *start);
  return *end != std::string::npos;
}

std::string model_host(const std::string& url) {
  size_t start, end;
  if (!host_range(url, &start, &end)) return std::string();
  return url.substr(start, end - start);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in(data, size);
  std::string ip = in.str(40);
  std::string url = in.rest();

  std::string host = orv::get_host_from_url(url);
  FUZZ_CHECK(host == model_host(url));
  FUZZ_CHECK(orv::Networking::orv_http_request_maker::get_host_from_url(url) == host);

  size_t start, end;
  bool has_host = host_range(url, &start, &end);
  std::string resolved = orv::get_resolve_ip_url(url, ip);
  if (has_host) {
    FUZZ_CHECK(resolved == url.substr(0, start) + ip + url.substr(end));
  } else {
    FUZZ_CHECK(resolved.empty());
  }

  std::string domain = "unchanged", directory = "unchanged";
  orv::get_url_domain_directory(url, domain, directory);
  bool scheme = url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0;
  if (scheme && has_host) {
    size_t host_start = url[4] == 's' ? 8 : 7;
    size_t slash = url.find('/', host_start);
    FUZZ_CHECK(domain == url.substr(host_start, slash - host_start));
    FUZZ_CHECK(directory == url.substr(slash));
    FUZZ_CHECK(domain + directory == url.substr(host_start));
  } else {
    FUZZ_CHECK(domain.empty() && directory.empty());
  }

  // Pinning helpers: origin URL = the fuzzed URL, address URL made from it.
  // (handed over as a C string, so cut at its first NUL)
  std::string ip_url = "https://" + ip.substr(0, ip.find('\0')) + "/p";
  std::string map = orv::Networking::orv_http_request_maker::get_resolve_dns_map(
      url, const_cast<char*>(ip_url.c_str()));
  std::string ip_host = model_host(ip_url);
  if (!host.empty() && !ip_host.empty()) {
    FUZZ_CHECK(map == host + ":443:" + ip_host);
  } else {
    FUZZ_CHECK(map.empty());
  }
  std::string by_name = orv::Networking::orv_http_request_maker::get_host_url(
      url, const_cast<char*>(ip_url.c_str()));
  if (ip_url.find('/', 8) == ip_url.size() - 2) {
    FUZZ_CHECK(by_name == "https://" + host + "/p");
  }
  return 0;
}
