// The loopback HTTP/HTTPS server of tests and benchmarks: starts
// tests/support/http_test_server.py (its header lists the routes) on ports the
// system picks, waits (bounded) until it listens, and ends it by closing its
// standard input. Free of GoogleTest, so that benchmarks can use it too.
//
// With want_pinned the server also serves HTTPS on 127.0.0.1:443 for
// kPinnedHost, a name in no hosts file that is never looked up: clients reach
// it only through a pinned address. Binding port 443 needs privileges;
// pinned_port() is -1 when that failed.
#ifndef ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H
#define ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H

#include <stdio.h>

#include <string>

#include "orv/orv.h"
#include "support/test_support.h"

namespace orv_test {

class HttpTestServer {
 public:
  // The name of the server's certificate.
  static constexpr const char* kPinnedHost = "speech.orv-pinned.example";

  ~HttpTestServer() { stop(); }
  // False (with error()) when the server did not come up within the bound.
  bool start(bool want_pinned = false);
  void stop();

  int http_port() const { return ports_[0]; }
  int https_port() const { return ports_[1]; }
  int pinned_port() const { return ports_[2]; }
  const std::string& error() const { return error_; }
  std::string http_url(const std::string& path) const { return url("http", ports_[0], path); }
  std::string https_url(const std::string& path) const { return url("https", ports_[1], path); }

  // The body of a GET of path on the plain port, made with libcurl directly
  // (not through liborv, and logging nothing); "" on failure.
  std::string fetch(const std::string& path) const;
  // A number of /_stats: "count <path>", "held" (token requests waiting for
  // release_token()); 0 when absent.
  int stat(const std::string& key) const;
  int count(const std::string& path) const { return stat("count " + path); }
  // The record of /upload?id=id ("none" before the upload began).
  std::string upload_result(const std::string& id) const { return fetch("/upload_result?id=" + id); }

  // The token endpoint, with "?" + query when query is not empty.
  std::string token_url(const std::string& query = "") const {
    return http_url("/oauth/2.0/token") + (query.empty() ? "" : "?" + query);
  }
  int token_fetches() const { return count("/oauth/2.0/token"); }
  // Lets every held token request answer.
  void release_token() const { fetch("/_release"); }

  static std::string url(const std::string& scheme, int port, const std::string& path) {
    return scheme + "://127.0.0.1:" + std::to_string(port) + path;
  }

 private:
  TempDir dir_;
  FILE* stdin_ = nullptr;
  int ports_[3] = {-1, -1, -1};
  std::string error_;
};

// The body of a response, without the terminating NUL.
inline std::string body_of(const orv::Memory::orv_shared_ptr<orv::Networking::orv_HttpResponse>& r) {
  return std::string(r->_data.getPTR(), r->_length - 1);
}

// The bytes of the server's /body?n= and /stream routes, n of them.
std::string stream_pattern(size_t n);

// How often part occurs in text.
int occurrences(const std::string& text, const std::string& part);

// A loopback URL whose port refuses connections: bound, never listening, so
// no other process gets it (the socket stays open until the process ends).
std::string refused_url(const std::string& path);

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H
