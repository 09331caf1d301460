// The loopback HTTP/HTTPS server of tests and benchmarks: the embedded speech
// service with the test routes of tests/support/http_test_server.py (its header
// lists them), started as a child process on ports the system picks and ended
// with this object. Free of GoogleTest, so that benchmarks can use it too.
//
// With want_pinned the server also serves HTTPS on 127.0.0.1:443 for
// kPinnedHost, a name in no hosts file that is never looked up: clients reach
// it only through a pinned address. Binding port 443 needs privileges;
// pinned_port() is -1 when that failed.
#ifndef ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H
#define ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H

#include <string>

#include "examples/host/service_process.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace orv_test {

class HttpTestServer {
 public:
  static constexpr const char* kPinnedHost = "speech.orv-pinned.example";

  // False (with error()) when the server did not come up within the bound.
  bool start(bool want_pinned = false);
  int pinned_port() const { return process_.pinnedPort(); }
  const std::string& error() const { return error_; }
  std::string http_url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(process_.port()) + path; }

  // Requests to path so far.
  int count(const std::string& path) const;
  // The service's record of /upload?id=id (or /duplex?id=id), "" before.
  std::string upload_result(const std::string& id) const { return read_file(dir_.file("upload-" + id)); }
  std::string token_url(const std::string& query = "") const {
    return http_url("/oauth/2.0/token") + (query.empty() ? "" : "?" + query);
  }
  

 private:
  TempDir dir_;  // outlives the process: its certificate is there
  orv_host::ServiceProcess process_;
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

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_HTTP_TEST_SERVER_H
