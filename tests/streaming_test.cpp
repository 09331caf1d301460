// Streaming tasks in their three modes against the loopback server: bodies
// fed piece by piece, answers streamed back, how every ending is reported
// (statuses, faults, inactivity time-outs: once, within a bound), and
// release_instance from other threads and from inside a callback.
#include <chrono>
#include <atomic>
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
typedef StreamTask Maker;
typedef orv_shared_ptr<Recorder> User;
typedef std::chrono::milliseconds ms;

const int kPost = kPostMode, kUpload = kUploadMode, kDownload = kDownloadMode;
const std::string kTransportError = "[orv_Chunk_Connection]downStream encouter error.";

// The one end report as "error status message", or how many there were.
std::string end_of(const User& user) {
  std::vector<Final> ends = user->ends();
  if (ends.size() != 1) return std::to_string(ends.size()) + " reports";
  return std::to_string(ends[0].error) + " " + std::to_string(ends[0].status) + " " + ends[0].message;
}

class Streaming : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  void TearDown() override { EXPECT_TRUE(wait_until(refresh_timer_thread_idle)); }

  Maker start(int mode, const std::string& path, orv_shared_ptr_base* to, int timeout_class = 0,
              orv::Networking::orv_http_response_callback callback = &record,
              Maker maker = orv::Networking::orv_http_request_maker::get_instance()) {
    auto request = orv::Networking::orv_HttpRequest::requestWithUrl(path[0] == '/' ? server.http_url(path) : path);
    request->_transfer_mode = mode;
    request->_download_timeout_class = timeout_class;
    request->_headers = {{"X-Orv-Module", "asr"}, {"A-First", "1"}};
    maker->start_request(request, callback, to);
    return maker;
  }
  std::string upload_state(const std::string& id) {
    std::string r = server.upload_result(id);
    size_t at = r.find(" state ");
    return at == std::string::npos ? r : r.substr(at + 7, r.find(' ', at + 7) - at - 7);
  }

  HttpTestServer server;
  User user{new Recorder()};
};

TEST_F(Streaming, UploadArrivesWholeInPiecesOfAnySizeAndNothingBeforeTheStart) {
  Maker maker = orv::Networking::orv_http_request_maker::get_instance();
  send(maker, "ignored before the start", true);
  start(kUpload, "/upload?id=whole", &user, 0, &record, maker);
  const std::string stream = stream_pattern(300000);
  std::thread producer([&] {  // uneven pieces, some larger than libcurl's buffer, some a byte long
    const size_t sizes[] = {1, 7, 1000, 4096, 13, 70001, 2, 65536, 333};
    for (size_t at = 0, i = 0; at < stream.size(); at += sizes[i++ % 9]) {
      send(maker, stream.substr(at, sizes[i % 9]), false);
    }
    send(maker, "", true);
  });
  producer.join();
  ASSERT_TRUE(wait_until([&] { return upload_state("whole") == "done"; }, ms(30000)));
  EXPECT_TRUE(has(server.upload_result("whole"), "bytes 300000 ")) << server.upload_result("whole");
  EXPECT_TRUE(has(server.upload_result("whole"), "state done te chunked ce gzip pattern yes"));
  // The answer is dropped; only the final status is reported, once.
  ASSERT_TRUE(transfer_finished(maker));
  EXPECT_EQ(end_of(user), "0 200 ");
  EXPECT_EQ(user->piece_count(), 0);
  EXPECT_EQ(user->task_seen, maker.getPTR());
  EXPECT_TRUE(release_within(maker));

  Maker idle = start(0, "/echo", &user);  // mode 0: a send queue and nothing else
  EXPECT_TRUE(static_cast<orv::Networking::orv_HttpTask_impl*>(idle.getPTR())->_send_queue);
  ASSERT_TRUE(transfer_finished(idle));
  EXPECT_EQ(server.count("/echo"), 0);
  EXPECT_TRUE(release_within(idle));
}

// No libcurl time-out in the feeding modes: an open body, or a whole body
// whose answer never comes, waits until a cancel.
TEST_F(Streaming, PiecesGoOutOneByOneAndOnlyACancelEndsAWait) {
  User stalled_user(new Recorder());
  Maker stalled = start(kUpload, "/fault/stall?delay=30", &stalled_user);
  send(stalled, "all of it", true);
  Maker open = start(kUpload, "/upload?id=open", &user);
  size_t sent = 0;
  for (int i = 1; i <= 5; ++i) {
    send(open, stream_pattern(sent + 100 * i).substr(sent), false);
    sent += 100 * i;
    std::string want = "bytes " + std::to_string(sent) + " chunks " + std::to_string(i) + " ";
    ASSERT_TRUE(wait_until([&] { return has(server.upload_result("open"), want); })) << want;
  }
  ASSERT_TRUE(wait_until([&] { return server.count("/fault/stall") == 1; }));
  EXPECT_FALSE(transfer_finished(open, ms(300)) || transfer_finished(stalled, ms(1)));

  orv::set_log_level(orv::LOG_DEBUG);
  StderrCapture capture;
  open->cancel();
  open->cancel();
  stalled->cancel();
  std::string log = capture.text();
  EXPECT_EQ(occurrences(log, "][asr_http_task_CURL.cpp:731][asr_http_task_CURL::cancel] this="), 3);
  EXPECT_EQ(occurrences(log, "][asr_http_task_CURL.cpp:743][asr_http_task_CURL::cancel] -\n"), 3);
  ASSERT_TRUE(transfer_finished(open) && transfer_finished(stalled));
  EXPECT_TRUE(wait_until([&] { return upload_state("open") != "running"; }));
  EXPECT_TRUE(has(server.upload_result("open"), "bytes " + std::to_string(sent) + " "));
  // A cancel reports no transport error; an ending status may still come.
  for (const Final& f : user->ends()) EXPECT_EQ(f.error, 0);
  EXPECT_TRUE(stalled_user->ends().empty());
  EXPECT_TRUE(release_within(open) && release_within(stalled));
}

TEST_F(Streaming, RequestShapesAndADuplexAnswer) {
  // Download: a POST of one zero byte with its own header lines only.
  Maker down = start(kDownload, "/echo", &user);
  ASSERT_TRUE(transfer_finished(down));
  std::string echo = user->received();
  EXPECT_TRUE(has(echo, "\"method\":\"POST\"") && has(echo, "\"body\":\"\\u0000\"") &&
              has(echo, "\"Content-Type: application/octet-stream\",\"Accept-Encoding: gzip,deflate\"") &&
              !has(echo, "Expect") && !has(echo, "Transfer-Encoding") && !has(echo, "A-First")) << echo;
  // Post: the request's headers in key order, then the chunked-body lines.
  User post_user(new Recorder());
  Maker post = start(kPost, "/echo", &post_user);
  send(post, "hello ", false);
  send(post, "world", true);
  ASSERT_TRUE(wait_until([&] { return !post_user->ends().empty(); }));
  echo = post_user->received();
  EXPECT_TRUE(has(echo, "\"body\":\"hello world\"") && !has(echo, "Expect") &&
              has(echo, "\"A-First: 1\",\"X-Orv-Module: asr\",\"Transfer-Encoding: chunked\","
                        "\"Content-Encoding: gzip\"")) << echo;
  EXPECT_TRUE(release_within(down) && release_within(post));

  // The transfer thread waits inside the read callback for the next piece,
  // so the answer to one piece is read when the next one is handed over.
  User duplex_user(new Recorder());
  Maker duplex = start(kPost, "/duplex?id=duplex", &duplex_user);
  const std::string sent = stream_pattern(15300);
  for (size_t i = 0, at = 0; i < 6; at += 50 + 1000 * i++) {
    send(duplex, sent.substr(at, 50 + 1000 * i), false);
    std::string want = "bytes " + std::to_string(at + 50 + 1000 * i) + " ";
    ASSERT_TRUE(wait_until([&] { return has(server.upload_result("duplex"), want); }));
    ASSERT_TRUE(wait_until([&] { return duplex_user->received_size() >= at; })) << i;
  }
  EXPECT_TRUE(duplex_user->ends().empty());
  send(duplex, "", true);
  ASSERT_TRUE(wait_until([&] { return !duplex_user->ends().empty(); }));
  EXPECT_EQ(duplex_user->received(), sent);
  EXPECT_EQ(end_of(duplex_user), "0 200 ");
  EXPECT_TRUE(release_within(duplex));
}

// All at once, each with its own task: what each ending reports, once; a
// cancel afterwards adds nothing. Upload and post rows send 3000 bytes as
// their last piece; with "die" they keep sending pieces without a last one
// (a transfer waiting for data notices a dead connection only then).
TEST_F(Streaming, EveryEndingIsReportedOnceInEveryMode) {
  const std::string p = stream_pattern(40 * 3001), nowhere = refused_url("/x");
  struct Case {
    int mode;
    std::string path;
    int timeout_class, error, status;  // error -1: no report
    std::string received;
  };
  const Case cases[] = {
      {kDownload, "/stream?n=40&size=3001&interval=2", 0, 6, 200, p},  // 200 ends a download as 6
      {kDownload, "/body?status=204", 0, -1, 0, ""},
      {kDownload, "/body?status=201", 0, -1, 0, ""},
      {kDownload, "/stream?n=2&size=10&status=299", 0, -1, 0, p.substr(0, 20)},
      {kDownload, "/body?status=500&body=no", 0, 0, 500, "no"},
      {kDownload, "/fault/reset", 0, 4, 200, ""},
      {kDownload, "/fault/garbage", 0, 4, 200, ""},
      {kDownload, "/body?n=100&length=1000", 0, 4, 200, p.substr(0, 100)},  // what came goes first
      {kDownload, "/fault/huge?count=100", 0, 6, 200, "big"},
      {kDownload, "/fault/huge?count=1&size=1000000", 0, 4, 200, ""},  // beyond any client's limit
      // Class 1: 2000 ms of silence end a download; each piece starts them anew.
      {kDownload, "/stream?n=8&size=1&interval=400", 1, 6, 200, p.substr(0, 8)},
      {kDownload, "/stream?n=4&size=100&stall_after=2&stall=8000", 1, 1, 200, p.substr(0, 200)},
      {kDownload, "/fault/stall?delay=30", 1, 1, 200, ""},
      {kDownload, nowhere, 0, 4, 200, ""},
      {kUpload, "/upload?id=a&status=204", 0, -1, 0, ""},
      {kUpload, "/upload?id=b&status=500", 0, 0, 500, ""},
      {kUpload, "/fault/reset", 0, 4, 200, ""},
      {kUpload, "/fault/garbage", 0, 4, 200, ""},
      {kUpload, "/fault/reset?after=2000&die", 0, 4, 200, ""},  // the server dies mid-upload
      {kUpload, nowhere, 0, 4, 200, ""},
      {kPost, nowhere, 0, 4, 200, ""},
      {kPost, "/fault/reset?after=2000&die", 0, 4, 200, ""},
      {kPost, "/stream?n=6&size=1&interval=50", 0, 0, 200, p.substr(0, 6)},
  };
  const size_t n = sizeof(cases) / sizeof(cases[0]);
  std::vector<User> users(n);
  std::vector<Maker> tasks(n);
  for (size_t i = 0; i < n; ++i) {
    users[i] = User(new Recorder());
    tasks[i] = start(cases[i].mode, cases[i].path, &users[i], cases[i].timeout_class);
    if (cases[i].mode != kDownload && !has(cases[i].path, "&die")) send(tasks[i], p.substr(0, 3000), true);
  }
  auto reports = [&](size_t i) { return users[i]->ends().size(); };
  for (size_t i = 0; i < n; ++i) {  // post mode runs on a pool thread, with no queue to drain
    bool dies = has(cases[i].path, "&die");
    EXPECT_TRUE(cases[i].mode == kPost || dies ? wait_until([&] {
      if (dies) send(tasks[i], p.substr(0, 1000), false);
      return reports(i) > 0;
    }, ms(20000)) : transfer_finished(tasks[i])) << cases[i].path;
  }
  EXPECT_FALSE(wait_until([&] {
    for (size_t i = 0; i < n; ++i) {
      if (reports(i) > (cases[i].error < 0 ? 0u : 1u)) return true;
    }
    return false;
  }, ms(300)));
  for (size_t i = 0; i < n; ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.path + " in mode " + std::to_string(c.mode));
    tasks[i]->cancel();
    EXPECT_EQ(end_of(users[i]), c.error < 0 ? "0 reports" : std::to_string(c.error) + " " + std::to_string(c.status) +
              " " + (c.error == 4 ? kTransportError : c.error == 1 ? "[orv_httptask_impl] downStream timeout." : ""));
    EXPECT_TRUE(users[i]->received() == c.received) << users[i]->received_size();
    EXPECT_TRUE(release_within(tasks[i]));
  }
}

// A post callback that waits for the thread releasing its task (a host handing
// the piece to the loop that releases the task) does not hold up
// release_instance; it finishes afterwards on a task that is still alive.
TEST_F(Streaming, PostReleaseReturnsWhileACallbackWaitsForIt) {
  struct Blocked {
    std::atomic<int> calls{0};
    Gate open;
    static void callback(Maker& task, orv_shared_ptr<orv_HttpResponse>&, orv_shared_ptr_base* user) {
      Blocked* b = static_cast<orv_shared_ptr<Blocked>*>(user)->getPTR();
      b->calls++;
      b->open.wait();
      task->cancel();  // the task is still there, whoever dropped it
    }
  };
  orv_shared_ptr<Blocked> blocked(new Blocked());
  Maker maker = start(kPost, "/duplex?id=blocked", &blocked, 0, &Blocked::callback);
  send(maker, "ping", false);
  ASSERT_TRUE(wait_until([&] { return has(server.upload_result("blocked"), "bytes 4 "); }));
  send(maker, "pong", false);  // the answer to "ping" is read now
  ASSERT_TRUE(wait_until([&] { return blocked->calls == 1; }));
  ASSERT_TRUE(release_within(maker, ms(5000)));
  send(maker, "after the release", true);
  blocked->open.open();
  ASSERT_TRUE(dropped_and_gone(maker));
  // No piece was delivered after the cancel, and the body ended there.
  EXPECT_EQ(blocked->calls, 1);
  EXPECT_TRUE(has(server.upload_result("blocked"), "bytes 8 ")) << server.upload_result("blocked");
}

// release_instance from inside a callback of its own transfer returns in every
// mode (on the task's own queue it must not wait for itself), and nothing is
// reported after it.
TEST_F(Streaming, ReleaseFromInsideACallbackInEachMode) {
  struct Local {
    static void release_on_first(Maker& maker, orv_shared_ptr<orv_HttpResponse>& response,
                                 orv_shared_ptr_base* user) {
      record(maker, response, user);
      Recorder* r = static_cast<User*>(user)->getPTR();
      if (r->released.exchange(true)) return;
      maker->release_instance();
      r->release_returned = true;
    }
  };
  // (In upload mode the one callback is the end report.)
  for (const char* path : {"/duplex?id=inside", "/upload?id=inside", "/stream?n=500&size=10&interval=5"}) {
    SCOPED_TRACE(path);
    int mode = path[1] == 'd' ? kPost : path[1] == 'u' ? kUpload : kDownload;
    User mine(new Recorder());
    Maker maker = start(mode, path, &mine, 0, &Local::release_on_first);
    send(maker, "ping", mode == kUpload);
    if (mode == kPost) {
      ASSERT_TRUE(wait_until([&] { return has(server.upload_result("inside"), "bytes 4 "); }));
      send(maker, "pong", false);
    }
    ASSERT_TRUE(wait_until([&] { return mine->release_returned.load(); }));
    ASSERT_TRUE(dropped_and_gone(maker));
    EXPECT_EQ(mine->late_calls.load(), 0);
    EXPECT_EQ(mine->piece_count() + static_cast<int>(mine->ends().size()), 1);
  }
}

// Released from another thread while the transfer runs: a download on its
// queue has ended when release_instance returns. A redirect of a streamed body
// (302, 303) is followed with a body-less GET that still announces a chunked
// body, so the server waits and nothing is reported until the release, which
// ends it at once; 307 cannot send the body again and fails.
TEST_F(Streaming, ReleasedFromAnotherThreadWhileTheTransferRuns) {
  const struct {
    int mode, status, error;  // error -1: no report
  } cases[] = {{kDownload, 200, -1}, {kPost, 302, -1}, {kUpload, 302, -1}, {kPost, 307, 4}, {kUpload, 303, -1}};
  for (const auto& c : cases) {
    std::string id = "redirected-" + std::to_string(c.mode) + "-" + std::to_string(c.status);
    SCOPED_TRACE(id);
    User mine(new Recorder());
    Maker maker = start(c.mode, c.mode == kDownload ? "/stream?n=2000&size=100&interval=5"
                        : "/body?status=" + std::to_string(c.status) + "&h=Location:%20/upload%3Fid%3D" + id, &mine);
    send(maker, "body", true);
    ASSERT_TRUE(wait_until([&] {
      return c.mode == kDownload ? mine->received_size() >= 300
             : c.error < 0 ? has(server.upload_result(id), "bytes 0 chunks 0 ") &&
                               has(server.upload_result(id), " state running ")
                           : !mine->ends().empty();
    })) << server.upload_result(id);
    ASSERT_TRUE(release_within(maker, ms(5000)));
    mine->released = true;
    ASSERT_TRUE(dropped_and_gone(maker, ms(5000)));
    EXPECT_EQ(mine->late_calls.load(), 0);
    EXPECT_EQ(end_of(mine), c.error < 0 ? "0 reports" : "4 200 " + kTransportError);
    if (c.mode != kDownload) {
      EXPECT_EQ(mine->piece_count(), 0);
    }
  }
}

}  // namespace
