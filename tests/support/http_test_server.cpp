#include "support/http_test_server.h"

#include <stdlib.h>

#include <curl/curl.h>

namespace orv_test {

bool HttpTestServer::start(bool want_pinned) {
  std::vector<std::string> pinned = {"--pinned-port", "443", "--host-name", kPinnedHost};
  // Generous: certificate making and interpreter start under sanitizers.
  return process_.start("python3", ORV_HTTP_TEST_SERVER_SCRIPT, dir_.path(), 30000, error_,
                        want_pinned ? pinned : std::vector<std::string>());
}

std::string HttpTestServer::fetch(const std::string& path) const {
  std::string body;
  auto append = [](char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  };
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, http_url(path).c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(append));
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  CURLcode code = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  return code == CURLE_OK ? body : std::string();
}

int HttpTestServer::stat(const std::string& key) const {
  std::string text = fetch("/_stats");
  size_t at = text.find("\n" + key + " ");
  return at == std::string::npos ? 0 : atoi(text.c_str() + at + key.size() + 2);
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
