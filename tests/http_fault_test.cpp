// Faults on loopback for the one-shot HTTP path: servers that reset the
// connection, answer garbage, stall, drip, send huge headers, close in the
// middle of the body or die in the middle of the upload. A transport failure
// is told only by the log and the (partial) body: status stays 200 and the
// error code 0. A cancel gives 2.
// Every case has a request time-out and must end well within its bound.
#include <string.h>

#include <chrono>
#include <string>
#include <thread>

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
using orv_test::StderrCapture;
typedef orv_shared_ptr<orv_HttpResponse> Response;
typedef std::chrono::steady_clock Clock;

std::string body(const Response& r) { return std::string(r->_data.getPTR(), r->_length - 1); }

class HttpFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start()) << server.error();
    orv::set_log_level(orv::LOG_DEBUG);
  }
  void TearDown() override { orv::set_log_level(0); }

  // Runs one request with a time-out; gives the response, the log and the
  // time it took (checked against the time-out plus a generous margin).
  Response run(const std::string& path, int timeout_ms, std::string* log) {
    orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(server.http_url(path));
    request->_timeout_ms = timeout_ms;
    StderrCapture capture;
    Clock::time_point start = Clock::now();
    Response response = orv_http_request_maker::execute(request);
    elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    *log = capture.text();
    EXPECT_LT(elapsed_ms, timeout_ms + 10000) << path << " outlived its time-out";
    ++faults;
    return response;
  }
  // The silent transport-failure outcome.
  static void expect_transport_error(const Response& r, const std::string& log) {
    ASSERT_TRUE(r);
    EXPECT_EQ(r->_http_status, 200);
    EXPECT_EQ(r->_error_code, 0);
    EXPECT_NE(log.find("curl error!"), std::string::npos) << log;
  }

  HttpTestServer server;
  long long elapsed_ms = 0;
  int faults = 0;
};

TEST_F(HttpFaultTest, ResetGarbageAndStallAreSilentTransportErrors) {
  std::string log;
  Response reset = run("/fault/reset", 5000, &log);
  expect_transport_error(reset, log);
  EXPECT_EQ(body(reset), "");

  Response garbage = run("/fault/garbage", 5000, &log);
  expect_transport_error(garbage, log);
  EXPECT_EQ(body(garbage), "");

  Response stall = run("/fault/stall?delay=20", 700, &log);
  expect_transport_error(stall, log);
  EXPECT_NE(log.find("[curl_code=28] curl error!"), std::string::npos) << log;
  EXPECT_GE(elapsed_ms, 600);
  EXPECT_EQ(body(stall), "");

  // A reset server does not poison the next request.
  Response after = run("/body?text=fine", 5000, &log);
  EXPECT_EQ(body(after), "fine");
  EXPECT_EQ(log.find("curl error!"), std::string::npos) << log;
  ::testing::Test::RecordProperty("faults", faults);
}

TEST_F(HttpFaultTest, DripsCompleteOrTimeOutKeepingWhatArrived) {
  std::string log;
  Response slow = run("/fault/drip?n=12&interval=0.02", 10000, &log);
  ASSERT_TRUE(slow);
  EXPECT_EQ(slow->_http_status, 200);
  EXPECT_EQ(slow->_error_code, 0);
  EXPECT_EQ(body(slow), "abcdefghijkl");
  EXPECT_EQ(log.find("curl error!"), std::string::npos) << log;

  // Cut by the time-out: the bytes that came are kept, nothing else tells.
  Response cut = run("/fault/drip?n=200&interval=0.02", 800, &log);
  expect_transport_error(cut, log);
  EXPECT_NE(log.find("[curl_code=28] curl error!"), std::string::npos) << log;
  std::string part = body(cut);
  EXPECT_LT(part.size(), 200u);
  for (size_t i = 0; i < part.size(); ++i) {
    ASSERT_EQ(part[i], static_cast<char>('a' + i % 26)) << "byte " << i;
  }
}

TEST_F(HttpFaultTest, TruncatedBodyKeepsThePartThatCame) {
  std::string log;
  Response r = run("/fault/truncate?length=1000&sent=100", 5000, &log);
  expect_transport_error(r, log);
  EXPECT_NE(log.find("[curl_code=18] curl error!"), std::string::npos) << log;
  EXPECT_EQ(body(r), std::string(100, 't'));
  EXPECT_EQ(r->_length, 101u);
}

TEST_F(HttpFaultTest, HugeHeadersAreAllKeptOrFailTheTransfer) {
  std::string log;
  // Many headers of ordinary size: all in the map, body intact.
  Response many = run("/fault/huge_headers?count=2000&size=40", 10000, &log);
  ASSERT_TRUE(many);
  if (log.find("curl error!") == std::string::npos) {
    EXPECT_EQ(many->_http_status, 200);
    EXPECT_EQ(body(many), "big");
    EXPECT_EQ(many->_headers.count("X-Big-0"), 1u);
    EXPECT_EQ(many->_headers["X-Big-1999"], std::string(40, 'v'));
  } else {
    expect_transport_error(many, log);  // the client's header limit was reached
  }

  // One header far beyond any client's limit: refused, silently, no body.
  Response giant = run("/fault/huge_headers?count=1&size=1000000", 10000, &log);
  expect_transport_error(giant, log);
  EXPECT_EQ(body(giant), "");
  EXPECT_EQ(giant->_headers.count("X-Big-0"), 0u);
}

TEST_F(HttpFaultTest, ServerDyingMidUploadIsASilentTransportError) {
  orv_shared_ptr<orv_HttpRequest> request =
      orv_HttpRequest::requestWithUrl(server.http_url("/fault/die?after=65536"));
  request->_timeout_ms = 10000;
  const size_t size = 4 << 20;
  unsigned char* block = new unsigned char[size];
  memset(block, 'u', size);
  request->_post_data =
      orv_shared_ptr<unsigned char>(block, &orv_shared_ptr<unsigned char>::arrayDestructor);
  request->_post_data_len = static_cast<int32_t>(size);
  StderrCapture capture;
  Response r = orv_http_request_maker::execute(request);
  std::string log = capture.text();
  expect_transport_error(r, log);
  EXPECT_EQ(body(r), "");
  EXPECT_EQ(server.count("/fault/die"), 1);
}

TEST_F(HttpFaultTest, CancelEndsAStalledTransferWithCode2) {
  orv_shared_ptr<orv_HttpRequest> request =
      orv_HttpRequest::requestWithUrl(server.http_url("/fault/stall?delay=20"));
  request->_timeout_ms = 15000;
  std::thread canceller([&] {
    orv_test::wait_until([&] { return server.count("/fault/stall") == 1; }, std::chrono::seconds(10));
    request->cancel();
  });
  StderrCapture capture;
  Clock::time_point start = Clock::now();
  Response r = orv_http_request_maker::execute(request);
  long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  canceller.join();
  std::string log = capture.text();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->_error_code, 2);
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_NE(log.find("curl is aborted by call back"), std::string::npos) << log;
  EXPECT_LT(ms, 12000);
}

}  // namespace
