#include "support/http_test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <chrono>

#include <curl/curl.h>

namespace orv_test {

bool HttpTestServer::start(bool want_pinned) {
  std::string ready = dir_.file("ready");
  std::string command = "exec python3 '" ORV_HTTP_TEST_SERVER_SCRIPT "' --cert-dir '" + dir_.path() +
                        "' --ready-file '" + ready + "'" + (want_pinned ? " --pinned-port 443" : "") +
                        " >/dev/null";
  // The server ends when this pipe, its standard input, closes: at stop(), or
  // when the test process dies.
  if (stdin_ == nullptr) stdin_ = popen(command.c_str(), "we");
  // Generous: certificate making and interpreter start under sanitizers.
  wait_until([&] { return stdin_ == nullptr || !read_file(ready).empty(); }, std::chrono::seconds(30));
  std::string line = read_file(ready);
  if (sscanf(line.c_str(), "READY http=%d https=%d pinned=%d", &ports_[0], &ports_[1], &ports_[2]) == 3) {
    return true;
  }
  error_ = "the test server did not come up: '" + line + "'";
  stop();
  return false;
}

void HttpTestServer::stop() {
  if (stdin_ != nullptr) pclose(stdin_);
  stdin_ = nullptr;
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

std::string refused_url(const std::string& path) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return HttpTestServer::url("http", ntohs(address.sin_port), path);
}

}  // namespace orv_test
