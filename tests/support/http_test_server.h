// Loopback HTTP/HTTPS server for tests and benchmarks: starts
// tests/support/http_test_server.py (see its header for the endpoints) on
// ports the system picks, waits (bounded) for it to listen, and ends it.
//
// With want_pinned, the server also serves HTTPS on 127.0.0.1:443 under
// kPinnedHost, a name that is in no hosts file and is never looked up:
// clients reach it only through a pinned address. Binding port 443 needs
// privileges; pinned_port() is -1 when that failed.
//
// Free of GoogleTest, so that benchmarks can use it too.
#ifndef ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H
#define ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H

#include <sys/types.h>

#include <string>

#include "orv/orv.h"
#include "support/test_support.h"

namespace orv_test {

class HttpTestServer {
 public:
  // The name the server's certificate is made for.
  static const char* const kPinnedHost;
  // Asked for by SNI, this name is served a certificate of an unrelated name.
  static const char* const kMismatchHost;

  HttpTestServer();
  ~HttpTestServer();

  // Starts the server; false (with error()) when it did not come up within
  // the bound.
  bool start(bool want_pinned = false);
  // Ends the server and waits for it. Also done by the destructor.
  void stop();

  int http_port() const { return http_port_; }
  int https_port() const { return https_port_; }
  int pinned_port() const { return pinned_port_; }
  const std::string& error() const { return error_; }

  // "http://127.0.0.1:<port>" + path, and the same for https.
  std::string http_url(const std::string& path) const;
  std::string https_url(const std::string& path) const;

  // The body of a GET of path on the plain port, fetched over a plain socket
  // (not through liborv); "" on failure.
  std::string fetch(const std::string& path) const;
  // The /_stats text.
  std::string stats() const;
  // The /upload record of id ("none" before the upload began).
  std::string upload_result(const std::string& id) const;
  // Requests seen on path so far (all listeners together).
  int count(const std::string& path) const;
  // Whether some TLS client asked for name by SNI.
  bool saw_sni(const std::string& name) const;

  // The client-credentials token endpoint: http_url("/oauth/2.0/token") with
  // "?" + query when query is not empty (answer=, token=, description=, body=,
  // status=, delay=, hold=1, client_id=, client_secret=; see the script).
  std::string token_url(const std::string& query = std::string()) const;
  // Token requests seen so far.
  int token_fetches() const;
  // Token requests now waiting for release_token() (hold=1).
  int token_held() const;
  // Lets every held token request answer.
  void release_token() const;
  // The form body of the last token request.
  std::string last_token_form() const;

 private:
  TempDir dir_;
  pid_t pid_;
  int stdin_fd_;
  int http_port_;
  int https_port_;
  int pinned_port_;
  std::string error_;
};

// The body of a response, without the terminating NUL.
inline std::string body_of(const orv::Memory::orv_shared_ptr<orv::Networking::orv_HttpResponse>& r) {
  return std::string(r->_data.getPTR(), r->_length - 1);
}

// A loopback port that refuses connections: bound, never listening, so no
// other process gets it while the object lives.
// The bytes the /stream endpoint sends for a total of n bytes.
std::string stream_pattern(size_t n);

class RefusedPort {
 public:
  RefusedPort();
  ~RefusedPort();
  int port() const { return port_; }

 private:
  int fd_;
  int port_;
};

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H
