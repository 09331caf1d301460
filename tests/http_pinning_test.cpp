// Address pinning against a real HTTPS listener on 127.0.0.1:443 whose host
// names are in no hosts file: the request reaches them only through the
// resolve entry, never through a name lookup.
#include <string>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;
using orv_test::HttpTestServer;
using orv_test::has;

class HttpPinningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start(true)) << server.error();
    if (server.pinned_port() != 443) {
      GTEST_SKIP() << "cannot listen on 127.0.0.1:443 (needs root or CAP_NET_BIND_SERVICE, "
                      "and a free port): address pinning is not tested";
    }
  }
  // Executes https://127.0.0.1<path> pinned under name; log gets stderr.
  orv_shared_ptr<orv_HttpResponse> pinned(const std::string& name, const std::string& path) {
    request = orv_HttpRequest::requestWithUrl("https://127.0.0.1" + path);
    request->_origin_URL = "https://" + name + path;
    orv_test::StderrCapture capture;
    orv_shared_ptr<orv_HttpResponse> r = orv_http_request_maker::execute(request);
    log = capture.text();
    return r;
  }
  HttpTestServer server;
  orv_shared_ptr<orv_HttpRequest> request;
  std::string log;
};

TEST_F(HttpPinningTest, PinnedRequestGoesByNameToTheAddress) {
  orv::set_log_level(orv::LOG_DEBUG);
  std::string name = HttpTestServer::kPinnedHost;
  orv_shared_ptr<orv_HttpResponse> r = pinned(name, "/echo?q=1");
  std::string body = orv_test::body_of(r);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_TRUE(has(body, "\"host\":\"" + name + "\"")) << body;
  EXPECT_TRUE(has(body, "\"sni\":\"" + name + "\"")) << body;
  EXPECT_TRUE(has(body, "\"query\":\"q=1\"")) << body;
  // The log names the working URL, with the address.
  EXPECT_TRUE(has(log, "[ASRHttpTask::execute] url = https://127.0.0.1/echo?q=1\n")) << log;
  EXPECT_EQ(server.count("/echo"), 1);

  // network_connect takes the same way.
  orv_http_request_maker::network_connect(request);
  EXPECT_EQ(server.count("/echo"), 2);
}

TEST_F(HttpPinningTest, CertificateNameIsChecked) {
  orv::set_log_level(orv::LOG_ERROR);
  std::string name = HttpTestServer::kMismatchHost;
  orv_shared_ptr<orv_HttpResponse> r = pinned(name, "/echo");
  // The TLS failure is silent in the response, like every transport error;
  // 60: the peer's certificate failed verification (its name).
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_EQ(r->_length, 1u);
  EXPECT_TRUE(has(log, "[ASRHttpTask::execute][curl_code=60] curl error!\n")) << log;
  // The server was reached under that name, but no request got through.
  EXPECT_TRUE(server.saw_sni(name)) << server.stats();
  EXPECT_EQ(server.count("/echo"), 0);
}

}  // namespace
