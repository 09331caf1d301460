#include "support/http_test_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <vector>

extern char** environ;

namespace orv_test {

const char* const HttpTestServer::kPinnedHost = "speech.orv-pinned.example";
const char* const HttpTestServer::kMismatchHost = "mismatch.orv-pinned.example";

namespace {

// Generous: certificate making and interpreter start under sanitizers.
const int kStartTimeoutMs = 30000;

std::string fetch_plain(int port, const std::string& path) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return std::string();
  timeval limit{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string reply;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    std::string request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(request.size())) {
      char buffer[4096];
      ssize_t n;
      while ((n = recv(fd, buffer, sizeof(buffer), 0)) > 0) reply.append(buffer, n);
    }
  }
  close(fd);
  size_t body = reply.find("\r\n\r\n");
  return body == std::string::npos ? std::string() : reply.substr(body + 4);
}

}  // namespace

HttpTestServer::HttpTestServer()
    : pid_(-1), stdin_fd_(-1), http_port_(-1), https_port_(-1), pinned_port_(-1) {}

HttpTestServer::~HttpTestServer() { stop(); }

bool HttpTestServer::start(bool want_pinned) {
  if (pid_ > 0) return true;
  int in_pipe[2];
  int out_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0) return error_ = "pipe failed", false;
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    close(in_pipe[0]);
    close(in_pipe[1]);
    return error_ = "pipe failed", false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);

  std::vector<std::string> args = {"python3", ORV_HTTP_TEST_SERVER_SCRIPT, "--cert-dir",
                                   dir_.path()};
  if (want_pinned) {
    args.push_back("--pinned-port");
    args.push_back("443");
  }
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_t pid = -1;
  int spawned = posix_spawnp(&pid, "python3", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in_pipe[0]);
  close(out_pipe[1]);
  if (spawned != 0) {
    close(in_pipe[1]);
    close(out_pipe[0]);
    error_ = std::string("cannot start python3: ") + strerror(spawned);
    return false;
  }
  pid_ = pid;
  stdin_fd_ = in_pipe[1];

  // Read the READY line, bounded.
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
  while (line.find('\n') == std::string::npos) {
    int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    deadline - std::chrono::steady_clock::now())
                                    .count());
    if (left <= 0) break;
    pollfd p{out_pipe[0], POLLIN, 0};
    if (poll(&p, 1, left) <= 0) continue;
    char buffer[256];
    ssize_t n = read(out_pipe[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    line.append(buffer, n);
  }
  close(out_pipe[0]);
  if (sscanf(line.c_str(), "READY http=%d https=%d pinned=%d", &http_port_, &https_port_,
             &pinned_port_) != 3) {
    error_ = "test server did not come up: '" + line + "'";
    stop();
    return false;
  }
  return true;
}

void HttpTestServer::stop() {
  if (stdin_fd_ >= 0) {
    close(stdin_fd_);
    stdin_fd_ = -1;
  }
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }
}

std::string HttpTestServer::http_url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(http_port_) + path;
}

std::string HttpTestServer::https_url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(https_port_) + path;
}

std::string HttpTestServer::fetch(const std::string& path) const {
  return fetch_plain(http_port_, path);
}

std::string HttpTestServer::stats() const { return fetch_plain(http_port_, "/_stats"); }

std::string HttpTestServer::upload_result(const std::string& id) const {
  return fetch_plain(http_port_, "/upload_result?id=" + id);
}

std::string stream_pattern(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>((i * 31 + 7 + (i >> 8)) & 0xFF);
  return out;
}

int HttpTestServer::count(const std::string& path) const {
  std::istringstream in(stats());
  std::string word, name;
  int n = 0;
  while (in >> word) {
    if (word == "path") {
      in >> name >> n;
      if (name == path) return n;
    } else {
      std::string rest;
      std::getline(in, rest);
    }
  }
  return 0;
}

bool HttpTestServer::saw_sni(const std::string& name) const {
  return stats().find("\nsni " + name + "\n") != std::string::npos;
}

std::string HttpTestServer::token_url(const std::string& query) const {
  return http_url("/oauth/2.0/token") + (query.empty() ? "" : "?" + query);
}

int HttpTestServer::token_fetches() const { return count("/oauth/2.0/token"); }

int HttpTestServer::token_held() const {
  std::string text = stats();
  size_t at = text.find("\ntoken_held ");
  return at == std::string::npos ? 0 : atoi(text.c_str() + at + 12);
}

void HttpTestServer::release_token() const { fetch_plain(http_port_, "/_token/release"); }

std::string HttpTestServer::last_token_form() const {
  return fetch_plain(http_port_, "/_token/last");
}

RefusedPort::RefusedPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)), port_(-1) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
      getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
    port_ = ntohs(address.sin_port);
  }
}

RefusedPort::~RefusedPort() {
  if (fd_ >= 0) close(fd_);
}

}  // namespace orv_test
