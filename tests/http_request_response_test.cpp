#include <string.h>

#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;
using orv_test::body_of;

TEST(HttpResponseTest, GrowthKeepsBytesAndTheEndNul) {
  orv_shared_ptr<orv_HttpResponse> r = orv_HttpResponse::alloc();
  EXPECT_EQ(r->_http_status, 200);
  EXPECT_STREQ(r->_data.getPTR(), "");
  EXPECT_EQ(r->_length, 1u);
  r->receive_new_data("ab", 2);
  r->receive_new_data("c\0d", 1);
  // Bytes are taken as given, NULs included; the block stays NUL-ended.
  r->receive_new_data("\0x", 2);
  EXPECT_EQ(r->_length, 6u);
  EXPECT_EQ(body_of(r), std::string("abc\0x", 5));
  EXPECT_EQ(r->_data.getPTR()[5], '\0');
}

TEST(HttpResponseTest, EmptyAppendsAreLoggedAndErrorsStopAppends) {
  orv::set_log_level(orv::LOG_TRACE);
  orv_shared_ptr<orv_HttpResponse> r = orv_HttpResponse::alloc();
  r->receive_new_data("x", 1);
  orv_test::StderrCapture capture;
  r->receive_new_data("y", 0);
  r->receive_new_data(nullptr, 3);
  std::string log = capture.text();
  const std::string line =
      "][orv_HttpResponse.cpp:33][ASRResponse::receive_new_data] data is NULL or len is 0\n";
  size_t first = log.find(line);
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_NE(log.find(line, first + 1), std::string::npos) << log;
  EXPECT_EQ(log.rfind("[ERROR]-[", 0), 0u) << log;
  EXPECT_EQ(r->_length, 2u);

  r->_error_code = 2;
  orv_test::StderrCapture quiet;
  r->receive_new_data("zz", 2);
  r->receive_new_data(nullptr, 0);
  EXPECT_EQ(quiet.text(), "");
  EXPECT_EQ(body_of(r), "x");
}

TEST(HttpRequestTest, BothFactoriesAndARecursiveLock) {
  std::string url = "http://a";
  orv_shared_ptr<orv_HttpRequest> r = orv_HttpRequest::requestWithUrl(url);
  url.assign("overwritten and longer than before");
  url.clear();
  ASSERT_TRUE(r->_url);
  EXPECT_STREQ(r->_url.getPTR(), "http://a");
  EXPECT_EQ(r->_timeout_ms, -1);
  EXPECT_EQ(r->isCancelled(), 0);
  // The request's mutex is recursive.
  r->_lock->Lock();
  EXPECT_TRUE(r->_lock->tryLock());
  r->_lock->Unlock();
  r->_lock->Unlock();

  // The pointer form shares the caller's block.
  char* block = new char[4];
  strcpy(block, "u:/");
  orv_shared_ptr<char> mine(block, &orv_shared_ptr<char>::arrayDestructor);
  orv_shared_ptr<orv_HttpRequest> shared = orv_HttpRequest::requestWithUrl(mine);
  EXPECT_EQ(shared->_url.getPTR(), block);
  EXPECT_EQ(shared->_url._control, mine._control);
  EXPECT_EQ(mine._control->_strong_count, 2u);
  shared = orv_shared_ptr<orv_HttpRequest>();
  EXPECT_EQ(mine._control->_strong_count, 1u);
}

struct CancelProbe {
  int calls = 0;
  bool got_copy = false;
  bool lock_free_in_callback = false;
  int cancelled_seen = -1;
  orv_HttpRequest* request = nullptr;
  orv_shared_ptr_base* original = nullptr;
};
CancelProbe* g_probe = nullptr;

void on_cancel(orv_shared_ptr_base* param) {
  CancelProbe& p = *g_probe;
  ++p.calls;
  p.got_copy = param != nullptr && param != p.original && param->_control == p.original->_control;
  // Runs outside the request's lock: another thread can take it.
  p.lock_free_in_callback = !orv_test::held_elsewhere(*p.request->_lock);
  p.cancelled_seen = p.request->isCancelled();
}

TEST(HttpRequestTest, CancelCallsTheCallbackOutsideTheLockEachTime) {
  orv_shared_ptr<orv_HttpRequest> plain = orv_HttpRequest::requestWithUrl(std::string("x"));
  plain->cancel();
  EXPECT_EQ(plain->isCancelled(), 1);

  CancelProbe probe;
  g_probe = &probe;
  orv_shared_ptr<int> token(new int(7));
  {
    orv_shared_ptr<orv_HttpRequest> r = orv_HttpRequest::requestWithUrl(std::string("x"));
    probe.request = r.getPTR();
    r->_cancel_callback = &on_cancel;
    r->_cancel_callback_param = token.getRefPtr();
    probe.original = r->_cancel_callback_param;
    EXPECT_EQ(token._control->_strong_count, 2u);
    r->cancel();
    EXPECT_EQ(probe.calls, 1);
    EXPECT_TRUE(probe.got_copy);
    EXPECT_TRUE(probe.lock_free_in_callback);
    EXPECT_EQ(probe.cancelled_seen, 1);
    // The copy handed to the callback is gone again.
    EXPECT_EQ(token._control->_strong_count, 2u);
    r->cancel();
    EXPECT_EQ(probe.calls, 2);
    EXPECT_EQ(r->isCancelled(), 1);
  }
  // The destructor deleted the callback argument.
  EXPECT_EQ(token._control->_strong_count, 1u);
  g_probe = nullptr;
}

}  // namespace
