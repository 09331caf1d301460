// Streaming tasks in their three modes against the loopback server: bodies
// fed piece by piece, request shapes, how every ending is reported (statuses,
// faults, inactivity time-outs: once, within a bound), and release_instance
// from other threads and from inside a callback.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/streaming_recorder.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv_test;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Networking::orv_HttpResponse;
typedef orv_shared_ptr<Recorder> User;
typedef std::chrono::milliseconds ms;

const int kPost = kPostMode, kUpload = kUploadMode, kDownload = kDownloadMode;
const std::string kTransportError = "4 200 [orv_Chunk_Connection]downStream encouter error.";

StreamTask new_task() { return orv::Networking::orv_http_request_maker::get_instance(); }

class Streaming : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  // The refresh timer's thread ends before the process does (it uses a static of the library).
  void TearDown() override { EXPECT_TRUE(wait_until([] { return timer_thread_state<orv::Threads::RefreshTimer>() == 0; })); }

  StreamTask start(int mode, const std::string& path, orv_shared_ptr_base* to, int timeout_class = 0,
                   orv::Networking::orv_http_response_callback callback = &record, StreamTask task = new_task()) {
    auto request = orv::Networking::orv_HttpRequest::requestWithUrl(path[0] == '/' ? server.http_url(path) : path);
    request->_transfer_mode = mode;
    request->_download_timeout_class = timeout_class;
    request->_headers = {{"X-Orv-Module", "asr"}, {"A-First", "1"}};
    task->start_request(request, callback, to);
    return task;
  }
  HttpTestServer server;
};

// All at once, each with its own task: what each ending reports, once, and
// what came ("~": a part of it); every task goes once released. Upload and
// post rows send 3000 bytes as their last piece; "&die" rows keep sending
// pieces without a last one (a transfer waiting for data notices a dead
// connection only then); "&hang" rows never end by themselves: no libcurl
// time-out in the feeding modes, and a redirect (302, 303) is followed with a
// body-less GET that still announces a chunked body, so the server waits. 307
// cannot send the body again and fails. "&inside" rows call release_instance
// from inside their first callback: it returns in every mode (on the task's
// own queue it must not wait for itself), and nothing comes after it.
TEST_F(Streaming, EveryEndingIsReportedOnceInEveryMode) {
  const std::string p = stream_pattern(40 * 3001), nowhere = "http://127.0.0.1:1/x", to = "&h=Location:%20/upload";
  const std::string timeout = "1 200 [orv_httptask_impl] downStream timeout.";
  const struct {
    int mode;
    std::string path;
    int timeout_class;
    std::string end, received;
  } cases[] = {
      // Download: a POST of one zero byte with its own header lines only. Post:
      // the request's headers in key order, then the chunked-body lines.
      {kDownload, "/echo", 0, "6 200 ", "~{\"body\":\"\\u0000\",\"headers\":[\"Accept: */*\",\"Content-Type: "
       "application/octet-stream\",\"Accept-Encoding: gzip,deflate\",\"Content-Length: 1\"],"},
      {kPost, "/echo", 0, "0 200 ", "~\",\"headers\":[\"Accept: */*\",\"A-First: 1\",\"X-Orv-Module: asr\","
       "\"Transfer-Encoding: chunked\",\"Content-Encoding: gzip\",\"Content-Type: application/x-www-form-urlencoded\"],"},
      {kDownload, "/stream?n=40&size=3001&interval=2", 0, "6 200 ", p},  // 200 ends a download as 6
      {kDownload, "/body?status=204", 0, "none", ""}, {kDownload, "/body?status=201", 0, "none", ""},
      {kDownload, "/stream?n=2&size=10&status=299", 0, "none", p.substr(0, 20)},
      {kDownload, "/body?status=500&body=no", 0, "0 500 ", "no"}, {kDownload, "/fault/reset", 0, kTransportError, ""},
      {kDownload, "/body?n=100&length=1000", 0, kTransportError, p.substr(0, 100)},  // what came goes first
      // Class 1: 2000 ms of silence end a download; each piece starts them anew.
      {kDownload, "/stream?n=8&size=1&interval=400", 1, "6 200 ", p.substr(0, 8)},
      {kDownload, "/stream?n=4&size=100&stall_after=2&stall=8000", 1, timeout, p.substr(0, 200)},
      {kDownload, "/fault/stall?delay=30", 1, timeout, ""}, {kDownload, nowhere, 0, kTransportError, ""},
      {kUpload, "/body?status=204", 0, "none", ""}, {kUpload, "/body?status=500", 0, "0 500 ", ""},
      {kUpload, "/fault/reset", 0, kTransportError, ""},
      {kUpload, "/fault/reset?after=2000&die", 0, kTransportError, ""},  // the server dies mid-upload
      {kUpload, "/fault/stall?delay=30&hang", 0, "none", ""}, {kUpload, "/body?status=303&hang" + to, 0, "none", ""},
      {kPost, "/fault/reset?after=2000&die", 0, kTransportError, ""},
      {kPost, "/stream?n=6&size=1&interval=50", 0, "0 200 ", p.substr(0, 6)},
      {kPost, "/body?status=302&hang" + to, 0, "none", ""}, {kPost, "/body?status=307" + to, 0, kTransportError, ""},
      {kDownload, "/stream?n=500&size=10&interval=5&inside", 0, "none", p.substr(0, 10)},
      {kUpload, "/body?status=500&inside", 0, "0 500 ", ""},
      {kPost, "/stream?n=6&size=1&interval=50&inside", 0, "none", p.substr(0, 1)}, };
  const size_t n = sizeof(cases) / sizeof(cases[0]);
  std::vector<User> users(n);
  std::vector<StreamTask> tasks(n);
  for (size_t i = 0; i < n; ++i) {
    users[i] = User(new Recorder());
    users[i]->release_inside = has(cases[i].path, "&inside");
    tasks[i] = start(cases[i].mode, cases[i].path, &users[i], cases[i].timeout_class);
    if (cases[i].mode != kDownload && !has(cases[i].path, "&die")) send(tasks[i], p.substr(0, 3000), true);
  }
  auto ended = [&](size_t i) {  // post mode runs on a pool thread, with no queue to drain
    const std::string& path = cases[i].path;
    if (has(path, "&hang")) return true;
    if (has(path, "&inside")) return wait_until([&] { return users[i]->release_returned.load(); });
    if (cases[i].mode != kPost && !has(path, "&die")) return transfer_finished(tasks[i]);
    return wait_until([&] {
      if (has(path, "&die")) send(tasks[i], p.substr(0, 1000), false);
      return users[i]->end() != "none";
    }, ms(20000));
  };
  for (size_t i = 0; i < n; ++i) EXPECT_TRUE(ended(i)) << cases[i].path;
  EXPECT_TRUE(wait_until([&] { return server.count("/upload") == 2 && server.count("/fault/stall") == 2; }));
  EXPECT_TRUE(wait_until([] { return timer_thread_state<orv::Threads::RefreshTimer>() == 0; }));  // ended, no timer left
  EXPECT_FALSE(wait_until([&] {
    return std::any_of(users.begin(), users.end(), [](const User& u) { return u->ends().size() > 1; });
  }, ms(300)));
  for (size_t i = 0; i < n; ++i) {
    SCOPED_TRACE(cases[i].path + " in mode " + std::to_string(cases[i].mode));
    EXPECT_TRUE(release_within(tasks[i]) && dropped_and_gone(tasks[i]));  // the end of the "&hang" rows
    EXPECT_EQ(users[i]->end() + " " + std::to_string(users[i]->late_calls), cases[i].end + " 0");
    const std::string &want = cases[i].received, got = users[i]->received();
    EXPECT_TRUE(want[0] == '~' ? has(got, want.substr(1)) : got == want) << got.substr(0, 400);
  }
}

// A post callback that waits for the thread releasing its task (a host handing
// the piece to the loop that releases the task) does not hold up
// release_instance; it finishes afterwards on a task that is still alive.
TEST_F(Streaming, PostReleaseReturnsWhileACallbackWaitsForIt) {
  struct Blocked {
    std::atomic<int> calls{0};
    Gate open;
    static void callback(StreamTask& task, orv_shared_ptr<orv_HttpResponse>&, orv_shared_ptr_base* user) {
      Blocked* b = static_cast<orv_shared_ptr<Blocked>*>(user)->getPTR();
      b->calls++;
      b->open.wait();
      task->cancel();  // the task is still there, whoever dropped it
    }
  };
  orv_shared_ptr<Blocked> blocked(new Blocked());
  StreamTask task = new_task();
  send(task, "ignored before the start", true);
  start(kPost, "/duplex?id=blocked", &blocked, 0, &Blocked::callback, task);
  send(task, "ping", false);
  ASSERT_TRUE(wait_until([&] { return has(server.upload_result("blocked"), "bytes 4 "); }));
  send(task, "pong", false);  // the answer to "ping" is read by now, or with this
  ASSERT_TRUE(wait_until([&] { return blocked->calls == 1; }));
  orv::set_log_level(orv::LOG_DEBUG);
  StderrCapture capture;
  ASSERT_TRUE(release_within(task, ms(5000)));
  task->cancel();  // a second cancel logs, and does nothing more
  std::string log = capture.text();
  EXPECT_EQ(occurrences(log, "][asr_http_task_CURL.cpp:731][asr_http_task_CURL::cancel] this="), 2);
  EXPECT_EQ(occurrences(log, "][asr_http_task_CURL.cpp:743][asr_http_task_CURL::cancel] -\n"), 2);
  EXPECT_EQ(occurrences(log, "][asr_http_task_CURL.cpp:749][orv_HttpTask_impl::release_instance] cancel m_managerMain\n"), 1);
  send(task, "after the release", true);
  blocked->open.open();
  ASSERT_TRUE(dropped_and_gone(task));
  // No piece was delivered after the cancel, and the body ended there ("pong"
  // went out only if the transfer thread was waiting for data, not already
  // reading the answer, when it came).
  EXPECT_EQ(blocked->calls, 1);
  std::string sent = server.upload_result("blocked");
  EXPECT_TRUE(has(sent, "bytes 4 ") || has(sent, "bytes 8 ")) << sent;
}

}  // namespace
