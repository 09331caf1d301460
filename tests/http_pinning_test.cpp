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

std::string body(const orv_shared_ptr<orv_HttpResponse>& r) {
  return std::string(r->_data.getPTR(), r->_length - 1);
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class HttpPinningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start(true)) << server.error();
    if (server.pinned_port() != 443) {
      GTEST_SKIP() << "cannot listen on 127.0.0.1:443 (needs root or CAP_NET_BIND_SERVICE, "
                      "and a free port): address pinning is not tested";
    }
  }
  HttpTestServer server;
};

TEST_F(HttpPinningTest, PinnedRequestGoesByNameToTheAddress) {
  orv::set_log_level(orv::LOG_DEBUG);
  std::string name = HttpTestServer::kPinnedHost;
  orv_shared_ptr<orv_HttpRequest> req = orv_HttpRequest::requestWithUrl("https://127.0.0.1/echo?q=1");
  req->_origin_URL = "https://" + name + "/echo?q=1";
  orv_test::StderrCapture capture;
  orv_shared_ptr<orv_HttpResponse> r = orv_http_request_maker::execute(req);
  std::string log = capture.text();
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_TRUE(has(body(r), "\"host\":\"" + name + "\"")) << body(r);
  EXPECT_TRUE(has(body(r), "\"sni\":\"" + name + "\"")) << body(r);
  EXPECT_TRUE(has(body(r), "\"query\":\"q=1\"")) << body(r);
  // The log names the working URL, with the address.
  EXPECT_TRUE(has(log, "[ASRHttpTask::execute] url = https://127.0.0.1/echo?q=1\n")) << log;
  EXPECT_EQ(server.count("/echo"), 1);

  // network_connect takes the same way.
  orv_http_request_maker::network_connect(req);
  EXPECT_EQ(server.count("/echo"), 2);
}

TEST_F(HttpPinningTest, CertificateNameIsChecked) {
  orv::set_log_level(orv::LOG_ERROR);
  std::string name = HttpTestServer::kMismatchHost;
  orv_shared_ptr<orv_HttpRequest> req = orv_HttpRequest::requestWithUrl("https://127.0.0.1/echo");
  req->_origin_URL = "https://" + name + "/echo";
  orv_test::StderrCapture capture;
  orv_shared_ptr<orv_HttpResponse> r = orv_http_request_maker::execute(req);
  std::string log = capture.text();
  // The TLS failure is silent in the response, like every transport error.
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_EQ(r->_length, 1u);
  EXPECT_TRUE(has(log, "[ASRHttpTask::execute][curl_code=")) << log;
  EXPECT_TRUE(has(log, "] curl error!\n")) << log;
  // 60: the peer's certificate failed verification (its name).
  EXPECT_TRUE(has(log, "[curl_code=60] curl error!")) << log;
  // The server was reached under that name, but no request got through.
  EXPECT_TRUE(server.saw_sni(name)) << server.stats();
  EXPECT_EQ(server.count("/echo"), 0);
}

}  // namespace
