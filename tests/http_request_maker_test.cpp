#include <string.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;
using orv_test::body_of;
using orv_test::has;
using orv_test::HttpTestServer;
using orv_test::StderrCapture;

typedef orv_shared_ptr<orv_HttpResponse> Response;
typedef orv_shared_ptr<orv_HttpRequest> Request;

void set_body(const Request& r, const std::string& data) {
  unsigned char* block = new unsigned char[data.size() + 1];
  memcpy(block, data.data(), data.size());
  r->_post_data = orv_shared_ptr<unsigned char>(block, &orv_shared_ptr<unsigned char>::arrayDestructor);
  r->_post_data_len = static_cast<int32_t>(data.size());
}

class HttpRequestMakerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  Response get(const std::string& url) {
    return orv_http_request_maker::execute(orv_HttpRequest::requestWithUrl(url));
  }
  HttpTestServer server;
};

TEST(HttpRequestMakerUrlTest, HostAndPinningHelpers) {
  EXPECT_EQ(orv_http_request_maker::get_host_from_url("https://name:8443/path"), "name:8443");
  EXPECT_EQ(orv_http_request_maker::get_host_from_url("http://name/"), "name");
  EXPECT_EQ(orv_http_request_maker::get_host_from_url("https://name"), "");
  EXPECT_EQ(orv_http_request_maker::get_host_from_url("//name/x"), "");
  EXPECT_EQ(orv_http_request_maker::get_host_from_url("name/x"), "");

  char ip[] = "https://10.1.2.3/v1/asr?x=1";
  EXPECT_EQ(orv_http_request_maker::get_resolve_dns_map("https://speech.example/v1/asr", ip),
            "speech.example:443:10.1.2.3");
  // The pinned port is 443 whatever the URLs say.
  char ip_port[] = "https://10.1.2.3:8443/a";
  EXPECT_EQ(orv_http_request_maker::get_resolve_dns_map("https://n.example:8443/a", ip_port),
            "n.example:8443:443:10.1.2.3:8443");
  EXPECT_EQ(orv_http_request_maker::get_resolve_dns_map("", ip), "");
  EXPECT_EQ(orv_http_request_maker::get_resolve_dns_map("https://n.example", ip), "");
  char no_path[] = "https://10.1.2.3";
  EXPECT_EQ(orv_http_request_maker::get_resolve_dns_map("https://n.example/a", no_path), "");
  EXPECT_EQ(orv_http_request_maker::get_resolve_dns_map("https://n.example/a", nullptr), "");

  EXPECT_EQ(orv_http_request_maker::get_host_url("https://speech.example/v1/asr", ip),
            "https://speech.example/v1/asr?x=1");
  EXPECT_EQ(orv_http_request_maker::get_host_url("https://speech.example/", no_path),
            "https://10.1.2.3");
  char no_slashes[] = "10.1.2.3/a";
  EXPECT_EQ(orv_http_request_maker::get_host_url("https://speech.example/", no_slashes),
            "10.1.2.3/a");
}

TEST(HttpRequestMakerUrlTest, MissingRequestOrUrlGivesNull) {
  orv::set_log_level(orv::LOG_ERROR);
  StderrCapture capture;
  EXPECT_FALSE(orv_http_request_maker::execute(Request()));
  EXPECT_FALSE(orv_http_request_maker::execute(orv_HttpRequest::requestWithUrl(std::string())));
  EXPECT_FALSE(orv_http_request_maker::execute(
      orv_HttpRequest::requestWithUrl(orv_shared_ptr<char>())));
  orv_http_request_maker::network_connect(Request());
  orv_http_request_maker::network_connect(orv_HttpRequest::requestWithUrl(std::string()));
  std::string log = capture.text();
  EXPECT_TRUE(has(log, "][orv_HttpRequestMaker.cpp:100][ASRHttpTask::execute] request is NULL\n"))
      << log;
  size_t first = log.find("][orv_HttpRequestMaker.cpp:106][ASRHttpTask::execute] URL is NULL or empty\n");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_NE(log.find("URL is NULL or empty", first + 10), std::string::npos) << log;
}

TEST_F(HttpRequestMakerTest, GetPostAndTheBodyLengthRule) {
  Response r = get(server.http_url("/echo"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_TRUE(has(body_of(r), "\"method\":\"GET\"")) << body_of(r);
  // The empty Expect header suppresses the header altogether.
  EXPECT_FALSE(has(body_of(r), "Expect")) << body_of(r);

  Request post = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  set_body(post, std::string("a=1\0&b", 6));
  r = orv_http_request_maker::execute(post);
  EXPECT_TRUE(has(body_of(r), "\"method\":\"POST\"")) << body_of(r);
  EXPECT_TRUE(has(body_of(r), "\"body_length\":6")) << body_of(r);
  EXPECT_TRUE(has(body_of(r), "\"body\":\"a=1\\u0000&b\"")) << body_of(r);
  EXPECT_FALSE(has(body_of(r), "Expect")) << body_of(r);

  // A body pointer with length 0 (or below) is a GET.
  Request empty = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  set_body(empty, "ignored");
  empty->_post_data_len = 0;
  r = orv_http_request_maker::execute(empty);
  EXPECT_TRUE(has(body_of(r), "\"method\":\"GET\"")) << body_of(r);
  EXPECT_TRUE(has(body_of(r), "\"body_length\":0")) << body_of(r);
  empty->_post_data_len = -5;
  r = orv_http_request_maker::execute(empty);
  EXPECT_TRUE(has(body_of(r), "\"method\":\"GET\"")) << body_of(r);
  EXPECT_EQ(server.count("/echo"), 4);
}

TEST_F(HttpRequestMakerTest, HeadersBothWays) {
  Request req = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  req->_headers["X-Zeta"] = "last";
  req->_headers["Content-Type"] = "application/json";
  req->_headers["X-Alpha"] = "first value";
  set_body(req, "{}");
  Response r = orv_http_request_maker::execute(req);
  std::string echoed = body_of(r);
  size_t content_type = echoed.find("\"Content-Type: application/json\"");
  size_t alpha = echoed.find("\"X-Alpha: first value\"");
  size_t zeta = echoed.find("\"X-Zeta: last\"");
  ASSERT_NE(content_type, std::string::npos) << echoed;
  ASSERT_NE(alpha, std::string::npos) << echoed;
  ASSERT_NE(zeta, std::string::npos) << echoed;
  EXPECT_LT(content_type, alpha);
  EXPECT_LT(alpha, zeta);
  // Replacing libcurl's own Content-Type: it is sent once.
  EXPECT_FALSE(has(echoed, "x-www-form-urlencoded")) << echoed;

  r = get(server.http_url(
      "/headers?h=X-Tab:%09%20tabbed&h=X-Dup:%20one&h=X-Dup:two&h=X-Colon:%20a:b%20&h=X-Empty:"));
  ASSERT_EQ(body_of(r), "headers");
  std::map<std::string, std::string>& h = r->_headers;
  EXPECT_EQ(h["X-Tab"], "tabbed");
  EXPECT_EQ(h["X-Dup"], "two");
  EXPECT_EQ(h["X-Colon"], "a:b ");
  EXPECT_EQ(h["X-Empty"], "");
  EXPECT_EQ(h["Content-Length"], "7");
  EXPECT_EQ(h["Server"], "orv-test ");
  // The status line and the blank end line hold no ':' and leave no entry.
  for (const auto& entry : h) {
    EXPECT_NE(entry.first.rfind("HTTP/", 0), 0u) << entry.first;
    EXPECT_FALSE(entry.first.empty());
    EXPECT_FALSE(has(entry.first, "\r") || has(entry.first, "\n")) << entry.first;
  }
  EXPECT_EQ(h.size(), 8u);
}

TEST_F(HttpRequestMakerTest, StatusesAndSmallBodies) {
  struct {
    const char* path;
    int status;
    const char* body;
  } cases[] = {
      {"/status/404?body=missing", 404, "missing"},
      {"/status/503", 503, ""},
      {"/body?text=x", 200, "x"},
      {"/body?text=", 200, ""},
      {"/status/302?body=moved", 302, "moved"},  // a redirect is not followed
  };
  for (const auto& c : cases) {
    Response r = get(server.http_url(c.path));
    EXPECT_EQ(r->_http_status, c.status) << c.path;
    EXPECT_EQ(r->_error_code, 0) << c.path;
    EXPECT_EQ(r->_length, strlen(c.body) + 1) << c.path;
    EXPECT_STREQ(r->_data.getPTR(), c.body) << c.path;
  }
}

TEST_F(HttpRequestMakerTest, LargeBodyArrivesWhole) {
  const int n = 300000;
  Response r = get(server.http_url("/body?n=300000&chunk=4093"));
  ASSERT_EQ(r->_length, static_cast<uint32_t>(n + 1));
  std::string expected;
  while (expected.size() < static_cast<size_t>(n)) expected += "abcdefghijklmnopqrstuvwxyz";
  expected.resize(n);
  EXPECT_TRUE(body_of(r) == expected);
  EXPECT_EQ(r->_data.getPTR()[n], '\0');
}

TEST_F(HttpRequestMakerTest, OutcomeLogLines) {
  orv::set_log_level(orv::LOG_DEBUG);
  std::string url = server.http_url("/body?text=hi");
  StderrCapture capture;
  Response r = get(url);
  std::string log = capture.text();
  EXPECT_EQ(body_of(r), "hi");
  EXPECT_TRUE(has(log, "[DEBUG]-[")) << log;
  EXPECT_TRUE(has(log, "][orv_HttpRequestMaker.cpp:121][ASRHttpTask::execute] url = " + url + "\n"))
      << log;
  EXPECT_TRUE(has(log,
                  "][orv_HttpRequestMaker.cpp:167][ASRHttpTask::execute][curl_code=0, "
                  "http_stauts=200, response_len=2] receive response: hi\n"))
      << log;
  EXPECT_FALSE(has(log, "[ERROR]")) << log;
}

TEST_F(HttpRequestMakerTest, TransportErrorsStaySilent) {
  orv::set_log_level(orv::LOG_DEBUG);
  orv_test::RefusedPort refused;
  ASSERT_GT(refused.port(), 0);
  StderrCapture capture;
  Response r = get("http://127.0.0.1:" + std::to_string(refused.port()) + "/echo");
  std::string log = capture.text();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_EQ(r->_length, 1u);
  EXPECT_TRUE(has(log,
                  "][orv_HttpRequestMaker.cpp:167][ASRHttpTask::execute][curl_code=7, "
                  "http_stauts=0, response_len=0] receive response: \n"))
      << log;
  EXPECT_TRUE(has(log, "[ERROR]-[")) << log;
  EXPECT_TRUE(has(log, "][orv_HttpRequestMaker.cpp:175][ASRHttpTask::execute][curl_code=7] curl error!\n"))
      << log;

  // A time-out is silent too; the request's time-out reaches libcurl.
  Request slow = orv_HttpRequest::requestWithUrl(server.http_url("/slow?status=503&delay=30"));
  slow->_timeout_ms = 300;
  r = orv_http_request_maker::execute(slow);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_error_code, 0);
  EXPECT_EQ(r->_length, 1u);
}

struct Cancelled {
  std::atomic<int> calls{0};
};
Cancelled g_cancelled;
void count_cancel(orv::Memory::orv_shared_ptr_base* param) {
  if (param == nullptr) g_cancelled.calls++;
}

TEST_F(HttpRequestMakerTest, CancelAbortsTheTransfer) {
  orv::set_log_level(orv::LOG_DEBUG);
  // The server answers 503 with a first piece, then stalls.
  Request req = orv_HttpRequest::requestWithUrl(
      server.http_url("/slow?status=503&first=partial&delay=60"));
  req->_cancel_callback = &count_cancel;
  StderrCapture capture;
  std::future<Response> done =
      std::async(std::launch::async, [req] { return orv_http_request_maker::execute(req); });
  ASSERT_TRUE(orv_test::wait_until([&] { return server.count("/slow") == 1; }));
  req->cancel();
  ASSERT_EQ(done.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  Response r = done.get();
  std::string log = capture.text();
  EXPECT_EQ(g_cancelled.calls.load(), 1);
  EXPECT_EQ(r->_error_code, 2);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_TRUE(body_of(r) == "" || body_of(r) == "partial") << body_of(r);
  EXPECT_TRUE(has(log, "][orv_HttpRequestMaker.cpp:172][ASRHttpTask::execute] curl is aborted by call back\n"))
      << log;
  EXPECT_TRUE(has(log, "[curl_code=42, ")) << log;
  EXPECT_FALSE(has(log, "curl error!")) << log;

  // A request cancelled beforehand is aborted at once.
  Request early = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  early->cancel();
  r = orv_http_request_maker::execute(early);
  EXPECT_EQ(r->_error_code, 2);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_EQ(r->_length, 1u);
}

TEST_F(HttpRequestMakerTest, HttpsWithoutPinning) {
  // Empty origin: requested unchanged; the self-signed chain is accepted, the
  // address name in the certificate matches.
  Response r = get(server.https_url("/echo"));
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_TRUE(has(body_of(r), "\"tls\":true")) << body_of(r);
  EXPECT_TRUE(has(body_of(r), "\"host\":\"127.0.0.1:" + std::to_string(server.https_port())))
      << body_of(r);

  // An origin without a path gives no resolve entry: also unchanged.
  Request req = orv_HttpRequest::requestWithUrl(server.https_url("/echo"));
  req->_origin_URL = "https://localhost";
  r = orv_http_request_maker::execute(req);
  EXPECT_TRUE(has(body_of(r), "\"host\":\"127.0.0.1:" + std::to_string(server.https_port())))
      << body_of(r);
}

TEST_F(HttpRequestMakerTest, HttpsLaterInTheUrlIsPlain) {
  // Were this taken for a secure URL, it would be rewritten to localhost:443.
  Request req = orv_HttpRequest::requestWithUrl(server.http_url("/echo?next=https://x/y"));
  req->_origin_URL = "https://localhost/echo";
  Response r = orv_http_request_maker::execute(req);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_TRUE(has(body_of(r), "\"host\":\"127.0.0.1:" + std::to_string(server.http_port())))
      << body_of(r);
  EXPECT_TRUE(has(body_of(r), "\"tls\":false")) << body_of(r);
}

TEST_F(HttpRequestMakerTest, NetworkConnectRunsTheRequestQuietly) {
  orv::set_log_level(orv::LOG_TRACE);
  Request req = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  set_body(req, "body is not sent");
  req->_timeout_ms = 1;  // not used either
  StderrCapture capture;
  orv_http_request_maker::network_connect(req);
  orv_http_request_maker::network_connect(orv_HttpRequest::requestWithUrl(server.https_url("/echo")));
  EXPECT_EQ(capture.text(), "");
  EXPECT_EQ(server.count("/echo"), 2);
}

// Also the process's first transfers ending on several threads at once: under
// the sanitizers their first heap trims raced glibc's heap set-up and crashed.
TEST_F(HttpRequestMakerTest, ManyThreadsAtOnce) {
  const int threads = 4;
  const int rounds = 6;
  std::atomic<int> good{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < rounds; ++i) {
        std::string mark = "t" + std::to_string(t) + "r" + std::to_string(i);
        std::string url = (i % 2 == 0 ? server.http_url("/echo") : server.https_url("/echo"));
        Request req = orv_HttpRequest::requestWithUrl(url);
        req->_headers["X-Mark"] = mark;
        set_body(req, mark);
        Response r = orv_http_request_maker::execute(req);
        if (r && r->_http_status == 200 && has(body_of(r), "\"body\":\"" + mark + "\"") &&
            has(body_of(r), "\"X-Mark: " + mark + "\"")) {
          good++;
        }
      }
    });
  }
  for (std::thread& w : workers) w.join();
  EXPECT_EQ(good.load(), threads * rounds);
  EXPECT_EQ(server.count("/echo"), threads * rounds);
}

}  // namespace
