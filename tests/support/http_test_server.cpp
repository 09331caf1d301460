#include "support/http_test_server.h"

#include <stdlib.h>

namespace orv_test {

bool HttpTestServer::start(bool want_pinned) {
  std::vector<std::string> pinned = {"--pinned-port", "443", "--host-name", kPinnedHost};
  // Generous: certificate making and interpreter start under sanitizers.
  return process_.start("python3", ORV_HTTP_TEST_SERVER_SCRIPT, dir_.path(), 30000, error_,
                        want_pinned ? pinned : std::vector<std::string>());
}

int HttpTestServer::count(const std::string& path) const {
  std::string text = read_file(dir_.file("counts")), key = "\n" + path + " ";
  size_t at = text.find(key);
  return at == std::string::npos ? 0 : atoi(text.c_str() + at + key.size());
}

std::string stream_pattern(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>((i * 31 + 7 + (i >> 8)) & 0xFF);
  return out;
}

int occurrences(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

}  // namespace orv_test
