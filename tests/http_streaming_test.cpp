#include <openssl/evp.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/streaming_recorder.h"
#include "support/test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;
using orv::Networking::orv_HttpTask_impl;
using orv_test::Final;
using orv_test::HttpTestServer;
using orv_test::noise;
using orv_test::record;
using orv_test::Recorder;
using orv_test::release_within;
using orv_test::send;
using orv_test::transfer_finished;
using orv_test::wait_until;
using std::chrono::milliseconds;

typedef orv_test::StreamTask Maker;
typedef orv_shared_ptr<orv_HttpRequest> Request;

const int kPost = orv_test::kPostMode;
const int kUpload = orv_test::kUploadMode;
const int kDownload = orv_test::kDownloadMode;

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string sha256_hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr);
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < size; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

class HttpStreamingTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  void TearDown() override { EXPECT_TRUE(wait_until(orv_test::refresh_timer_thread_idle)); }

  Maker start(int mode, const std::string& url, int timeout_class = 0,
              const std::map<std::string, std::string>& headers = {}) {
    Request request = orv_HttpRequest::requestWithUrl(url);
    request->_origin_URL = url;
    request->_transfer_mode = mode;
    request->_download_timeout_class = timeout_class;
    request->_headers = headers;
    Maker maker = orv_http_request_maker::get_instance();
    maker->start_request(request, &record, &user);
    return maker;
  }

  std::string upload_state(const std::string& id) {
    std::string r = server.upload_result(id);
    size_t at = r.find(" state ");
    return at == std::string::npos ? r : r.substr(at + 7, r.find(' ', at + 7) - at - 7);
  }

  HttpTestServer server;
  orv_shared_ptr<Recorder> user{new Recorder()};
};

TEST_F(HttpStreamingTest, UploadFedFromAnotherThreadArrivesWhole) {
  Maker maker = start(kUpload, server.http_url("/upload?id=whole"));
  const std::string stream = noise(300000, 7);
  // Uneven pieces, some larger than libcurl's buffer, some a byte long.
  const size_t sizes[] = {1, 7, 1000, 4096, 13, 70001, 2, 65536, 333, 1};
  std::thread producer([&] {
    size_t at = 0;
    for (size_t i = 0; at < stream.size(); ++i) {
      size_t n = std::min(sizes[i % (sizeof(sizes) / sizeof(sizes[0]))], stream.size() - at);
      send(maker, stream.substr(at, n), false);
      at += n;
    }
    orv_shared_ptr<unsigned char> none;
    maker->send_data(none, 0, true);
  });
  producer.join();

  ASSERT_TRUE(wait_until([&] { return upload_state("whole") == "done"; }, milliseconds(30000)))
      << server.upload_result("whole");
  std::string result = server.upload_result("whole");
  EXPECT_TRUE(has(result, "bytes 300000 ")) << result;
  EXPECT_TRUE(has(result, "sha256 " + sha256_hex(stream) + " ")) << result;
  EXPECT_TRUE(has(result, "te chunked ce gzip")) << result;

  // The answer is dropped; only the final status 200 is reported, once.
  ASSERT_TRUE(wait_until([&] { return user->ends().size() == 1; }));
  ASSERT_TRUE(transfer_finished(maker));
  std::vector<Final> ends = user->ends();
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].status, 200);
  EXPECT_EQ(ends[0].error, 0);
  EXPECT_EQ(user->piece_count(), 0);
  EXPECT_EQ(user->self_seen, maker.getPTR());
  EXPECT_TRUE(release_within(maker));
}

TEST_F(HttpStreamingTest, EachPieceGoesOutWithoutWaitingForMore) {
  Maker maker = start(kUpload, server.http_url("/upload?id=steps"));
  std::string all;
  for (int i = 0; i < 5; ++i) {
    std::string piece = noise(100 + 37 * i, 100 + i);
    all += piece;
    send(maker, piece, false);
    std::string want = "bytes " + std::to_string(all.size()) + " chunks " + std::to_string(i + 1);
    ASSERT_TRUE(wait_until([&] { return has(server.upload_result("steps"), want); }))
        << server.upload_result("steps");
  }
  orv_shared_ptr<unsigned char> none;
  maker->send_data(none, 0, true);
  ASSERT_TRUE(wait_until([&] { return upload_state("steps") == "done"; }));
  EXPECT_TRUE(has(server.upload_result("steps"), "chunks 5 sha256 " + sha256_hex(all)));
  EXPECT_TRUE(release_within(maker));
}

TEST_F(HttpStreamingTest, UploadWithoutLastEndsOnlyAtCancel) {
  Maker maker = start(kUpload, server.http_url("/upload?id=open"));
  send(maker, noise(1000, 3), false);
  ASSERT_TRUE(wait_until([&] { return has(server.upload_result("open"), "bytes 1000 "); }));
  // Nothing more to send and no last piece: the transfer stays open.
  EXPECT_FALSE(wait_until([&] { return upload_state("open") != "running"; }, milliseconds(500)));
  EXPECT_TRUE(user->ends().empty());

  orv::set_log_level(orv::LOG_DEBUG);
  orv_test::StderrCapture capture;
  maker->cancel();
  maker->cancel();
  std::string log = capture.text();
  orv::set_log_level(0);
  // Both calls log their pair; only the first acts.
  size_t first = log.find("[asr_http_task_CURL::cancel] this=");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_NE(log.find("[asr_http_task_CURL::cancel] this=", first + 1), std::string::npos) << log;

  ASSERT_TRUE(transfer_finished(maker));
  // The server sees the body end (or the connection close) a moment later.
  EXPECT_TRUE(wait_until([&] { return upload_state("open") != "running"; }));
  EXPECT_TRUE(has(server.upload_result("open"), "bytes 1000 "));
  // Ended by the cancel: no transport error is reported for it.
  for (const Final& f : user->ends()) EXPECT_NE(f.error, 4);
  EXPECT_TRUE(release_within(maker));
}

TEST_F(HttpStreamingTest, DownloadPiecesConcatenateToTheStream) {
  Maker maker = start(kDownload, server.http_url("/stream?n=40&size=3001&interval=2"));
  ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }, milliseconds(30000)));
  ASSERT_TRUE(transfer_finished(maker));
  EXPECT_EQ(user->received(), orv_test::stream_pattern(40 * 3001));
  std::vector<Final> ends = user->ends();
  ASSERT_EQ(ends.size(), 1u);
  // A download ending with 200 is reported as error 6.
  EXPECT_EQ(ends[0].error, 6);
  EXPECT_EQ(ends[0].status, 200);
  EXPECT_GE(user->piece_count(), 1);
  EXPECT_TRUE(release_within(maker));
}

TEST_F(HttpStreamingTest, RequestShapesOfDownloadAndPost) {
  // Download: a POST of one zero byte with its own header lines.
  Maker down = start(kDownload, server.http_url("/echo"));
  ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }));
  std::string echo = user->received();
  EXPECT_TRUE(has(echo, "\"method\":\"POST\"")) << echo;
  EXPECT_TRUE(has(echo, "\"body_length\":1,")) << echo;
  EXPECT_TRUE(has(echo, "\"body\":\"\\u0000\"")) << echo;
  EXPECT_TRUE(has(echo, "\"Content-Type: application/octet-stream\"")) << echo;
  EXPECT_TRUE(has(echo, "\"Accept-Encoding: gzip,deflate\"")) << echo;
  EXPECT_FALSE(has(echo, "Expect")) << echo;
  EXPECT_FALSE(has(echo, "Transfer-Encoding")) << echo;
  EXPECT_TRUE(release_within(down));

  // Post: the request's headers, then the chunked-body lines; the answer
  // streams back and a 200 ending is reported without error.
  orv_shared_ptr<Recorder> post_user(new Recorder());
  Request request = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  request->_transfer_mode = kPost;
  request->_headers["X-Orv-Module"] = "asr";
  request->_headers["A-First"] = "1";
  Maker post = orv_http_request_maker::get_instance();
  post->start_request(request, &record, &post_user);
  send(post, "hello ", false);
  send(post, "world", true);
  ASSERT_TRUE(wait_until([&] { return !post_user->ends().empty(); }));
  echo = post_user->received();
  EXPECT_TRUE(has(echo, "\"body\":\"hello world\"")) << echo;
  size_t a = echo.find("\"A-First: 1\"");
  size_t x = echo.find("\"X-Orv-Module: asr\"");
  size_t te = echo.find("\"Transfer-Encoding: chunked\"");
  size_t ce = echo.find("\"Content-Encoding: gzip\"");
  EXPECT_TRUE(a < x && x < te && te < ce && ce != std::string::npos) << echo;
  EXPECT_FALSE(has(echo, "Expect")) << echo;
  std::vector<Final> ends = post_user->ends();
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].error, 0);
  EXPECT_EQ(ends[0].status, 200);
  EXPECT_TRUE(release_within(post));
}

TEST_F(HttpStreamingTest, DuplexAnswersWhileTheUploadRuns) {
  // The transfer thread waits inside the read callback for the next piece,
  // so the answer to one piece is read when the next one is handed over.
  Maker maker = start(kPost, server.http_url("/duplex"));
  std::string sent;
  for (int i = 0; i < 6; ++i) {
    size_t answered = sent.size();
    std::string piece = noise(50 + 1000 * i, 40 + i);
    sent += piece;
    send(maker, piece, false);
    std::string echoed = "bytes " + std::to_string(sent.size()) + " ";
    ASSERT_TRUE(wait_until([&] { return has(server.upload_result("duplex"), echoed); }));
    ASSERT_TRUE(wait_until([&] { return user->received_size() >= answered; }))
        << "piece " << i << " got " << user->received_size() << " of " << answered;
  }
  EXPECT_GT(user->received_size(), 0u);
  EXPECT_TRUE(user->ends().empty());
  orv_shared_ptr<unsigned char> none;
  maker->send_data(none, 0, true);
  ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }));
  EXPECT_EQ(user->received(), sent);
  std::vector<Final> ends = user->ends();
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].status, 200);
  EXPECT_EQ(ends[0].error, 0);
  EXPECT_TRUE(release_within(maker));
}

TEST_F(HttpStreamingTest, StallBeyondTheInactivityTimeReportsErrorOneOnceAndAborts) {
  // Class 1: 2000 ms of silence ends the download.
  Maker maker = start(kDownload, server.http_url("/stream?n=4&size=100&stall_after=2&stall=8000"),
                      1);
  ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }, milliseconds(15000)));
  // The abort follows at the next progress call, well before the stall ends.
  ASSERT_TRUE(transfer_finished(maker, milliseconds(5000)));
  std::vector<Final> ends = user->ends();
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].error, 1);
  EXPECT_EQ(ends[0].message, "[orv_httptask_impl] downStream timeout.");
  EXPECT_EQ(user->received(), orv_test::stream_pattern(400).substr(0, 200));
  EXPECT_TRUE(release_within(maker));
}

TEST_F(HttpStreamingTest, FinalStatusesDecideTheReport) {
  struct Case {
    int mode;
    std::string path;
    int reports;
    int status;
    int error;
  };
  const Case cases[] = {
      {kDownload, "/status/204", 0, 0, 0},      {kDownload, "/status/201", 0, 0, 0},
      {kDownload, "/status/500", 1, 500, 0},    {kDownload, "/status/200", 1, 200, 6},
      {kUpload, "/upload?id=s&status=204", 0, 0, 0}, {kUpload, "/upload?id=t&status=500", 1, 500, 0},
      {kDownload, "/stream?n=2&size=10&status=299", 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    orv_shared_ptr<Recorder> mine(new Recorder());
    Request request = orv_HttpRequest::requestWithUrl(server.http_url(c.path));
    request->_transfer_mode = c.mode;
    Maker maker = orv_http_request_maker::get_instance();
    maker->start_request(request, &record, &mine);
    if (c.mode == kUpload) send(maker, "x", true);
    ASSERT_TRUE(transfer_finished(maker));
    std::vector<Final> ends = mine->ends();
    ASSERT_EQ(static_cast<int>(ends.size()), c.reports);
    if (c.reports == 1) {
      EXPECT_EQ(ends[0].status, c.status);
      EXPECT_EQ(ends[0].error, c.error);
    }
    EXPECT_TRUE(release_within(maker));
  }
}

TEST_F(HttpStreamingTest, TransportErrorIsReportedOnce) {
  orv_test::RefusedPort refused;
  ASSERT_GT(refused.port(), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(refused.port()) + "/x";
  for (int mode : {kDownload, kUpload}) {
    SCOPED_TRACE(mode);
    orv_shared_ptr<Recorder> mine(new Recorder());
    Request request = orv_HttpRequest::requestWithUrl(url);
    request->_transfer_mode = mode;
    Maker maker = orv_http_request_maker::get_instance();
    maker->start_request(request, &record, &mine);
    ASSERT_TRUE(transfer_finished(maker));
    std::vector<Final> ends = mine->ends();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].error, 4);
    EXPECT_EQ(ends[0].status, 200);
    EXPECT_EQ(ends[0].message, "[orv_Chunk_Connection]downStream encouter error.");
    // A cancel afterwards adds nothing.
    maker->cancel();
    EXPECT_EQ(mine->ends().size(), 1u);
    EXPECT_TRUE(release_within(maker));
  }
  // The pool-run post mode reports it once too.
  Request request = orv_HttpRequest::requestWithUrl(url);
  request->_transfer_mode = kPost;
  Maker post = orv_http_request_maker::get_instance();
  post->start_request(request, &record, &user);
  ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }));
  EXPECT_FALSE(wait_until([&] { return user->ends().size() > 1; }, milliseconds(300)));
  EXPECT_EQ(user->ends()[0].error, 4);
  EXPECT_TRUE(release_within(post));
}

TEST_F(HttpStreamingTest, SendDataBeforeStartAndModeZero) {
  Maker maker = orv_http_request_maker::get_instance();
  orv_HttpTask_impl* impl = static_cast<orv_HttpTask_impl*>(maker.getPTR());
  send(maker, "ignored before start", true);
  EXPECT_FALSE(impl->_send_queue);
  EXPECT_EQ(impl->_queued_bytes, 0);

  Request request = orv_HttpRequest::requestWithUrl(server.http_url("/upload?id=late"));
  request->_transfer_mode = kUpload;
  maker->start_request(request, &record, &user);
  const std::string piece = noise(50, 9);
  send(maker, piece, true);
  ASSERT_TRUE(wait_until([&] { return upload_state("late") == "done"; }));
  EXPECT_TRUE(has(server.upload_result("late"), "bytes 50 chunks 1 sha256 " + sha256_hex(piece)));
  EXPECT_TRUE(release_within(maker));

  // Mode 0 makes the send queue and nothing else.
  Maker idle = orv_http_request_maker::get_instance();
  Request none = orv_HttpRequest::requestWithUrl(server.http_url("/echo"));
  idle->start_request(none, &record, &user);
  EXPECT_TRUE(static_cast<orv_HttpTask_impl*>(idle.getPTR())->_send_queue);
  ASSERT_TRUE(transfer_finished(idle));
  EXPECT_EQ(server.count("/echo"), 0);
  EXPECT_TRUE(release_within(idle));
}

TEST_F(HttpStreamingTest, DownloadReleasedFromAnotherThreadHasEnded) {
  Maker down = start(kDownload, server.http_url("/stream?n=2000&size=100&interval=5"));
  ASSERT_TRUE(wait_until([&] { return user->received_size() >= 300; }));
  ASSERT_TRUE(release_within(down));
  // The transfer on the task's queue has ended: an observation window for
  // late calls.
  user->released = true;
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(user->late_calls.load(), 0);
  // No transport error is reported for a released transfer.
  for (const Final& f : user->ends()) EXPECT_NE(f.error, 4);
}

// A post callback that waits for the thread releasing its task (a host handing
// the piece to the loop that releases the task) does not hold up
// release_instance; it finishes afterwards on a task that is still alive.
TEST_F(HttpStreamingTest, PostReleaseReturnsWhileACallbackWaitsForIt) {
  struct Blocked {
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    bool open = false;
    static void callback(Maker& task, orv_shared_ptr<orv_HttpResponse>&, orv_shared_ptr_base* user) {
      Blocked* b = static_cast<orv_shared_ptr<Blocked>*>(user)->getPTR();
      std::unique_lock<std::mutex> lock(b->mutex);
      b->calls++;
      b->changed.notify_all();
      b->changed.wait_for(lock, std::chrono::seconds(20), [b] { return b->open; });
      task->cancel();  // the task is still there, whoever dropped it
    }
  };
  orv_shared_ptr<Blocked> blocked(new Blocked());
  Request request = orv_HttpRequest::requestWithUrl(server.http_url("/duplex?id=blocked"));
  request->_transfer_mode = kPost;
  Maker maker = orv_http_request_maker::get_instance();
  maker->start_request(request, &Blocked::callback, &blocked);
  // The answer to one piece is read when the next is handed over.
  send(maker, "ping", false);
  ASSERT_TRUE(wait_until([&] { return has(server.upload_result("blocked"), "bytes 4 "); }));
  send(maker, "pong", false);
  ASSERT_TRUE(wait_until([&] {
    std::lock_guard<std::mutex> lock(blocked->mutex);
    return blocked->calls == 1;
  }));
  ASSERT_TRUE(release_within(maker, milliseconds(5000)));
  send(maker, "after the release", true);
  {
    std::lock_guard<std::mutex> lock(blocked->mutex);
    blocked->open = true;
    blocked->changed.notify_all();
  }
  ASSERT_TRUE(orv_test::dropped_and_gone(maker));
  // No piece was delivered after the cancel, and the body ended there.
  EXPECT_EQ(blocked->calls, 1);
  EXPECT_TRUE(has(server.upload_result("blocked"), "bytes 8 ")) << server.upload_result("blocked");
}

// release_instance from inside a callback of its own transfer returns in every
// mode (on the task's own queue it must not wait for itself), and nothing is
// reported after it.
TEST_F(HttpStreamingTest, ReleaseFromInsideACallbackInEachMode) {
  struct Local {
    static void release_on_first(Maker& maker, orv_shared_ptr<orv_HttpResponse>& response,
                                 orv_shared_ptr_base* user) {
      record(maker, response, user);
      Recorder* r = static_cast<orv_shared_ptr<Recorder>*>(user)->getPTR();
      if (r->released.exchange(true)) return;
      maker->release_instance();
      r->release_returned = true;
    }
  };
  const struct {
    int mode;
    const char* path;
  } cases[] = {
      {kPost, "/duplex?id=inside"},
      {kUpload, "/upload?id=inside"},  // the callback is the end report
      {kDownload, "/stream?n=500&size=10&interval=5"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    orv_shared_ptr<Recorder> mine(new Recorder());
    Request request = orv_HttpRequest::requestWithUrl(server.http_url(c.path));
    request->_transfer_mode = c.mode;
    Maker maker = orv_http_request_maker::get_instance();
    maker->start_request(request, &Local::release_on_first, &mine);
    send(maker, "ping", c.mode == kUpload);
    if (c.mode == kPost) {
      ASSERT_TRUE(wait_until([&] { return has(server.upload_result("inside"), "bytes 4 "); }));
      send(maker, "pong", false);
    }
    ASSERT_TRUE(wait_until([&] { return mine->release_returned.load(); }));
    ASSERT_TRUE(orv_test::dropped_and_gone(maker));
    EXPECT_EQ(mine->late_calls.load(), 0);
    EXPECT_EQ(mine->piece_count() + static_cast<int>(mine->ends().size()), 1);
  }
}

// A redirect of a streamed body: 302 is followed with a body-less GET that the
// server waits on, so nothing is reported until the release, which ends it at
// once; 307 cannot re-send the body and fails.
TEST_F(HttpStreamingTest, RedirectedStreamingBodies) {
  const struct {
    int mode;
    int status;
    int error;  // -1: no report
  } cases[] = {{kPost, 302, -1}, {kUpload, 302, -1}, {kPost, 307, 4}, {kUpload, 303, -1}};
  for (const auto& c : cases) {
    std::string id = "redirected-" + std::to_string(c.mode) + "-" + std::to_string(c.status);
    SCOPED_TRACE(id);
    orv_shared_ptr<Recorder> mine(new Recorder());
    Request request = orv_HttpRequest::requestWithUrl(server.http_url(
        "/redirect?status=" + std::to_string(c.status) + "&to=/upload%3Fid%3D" + id));
    request->_transfer_mode = c.mode;
    Maker maker = orv_http_request_maker::get_instance();
    maker->start_request(request, &record, &mine);
    send(maker, "body", true);
    if (c.error < 0) {
      // The GET arrives announcing a chunked body and sends none.
      ASSERT_TRUE(wait_until([&] { return upload_state(id) == "running"; })) << upload_state(id);
      EXPECT_TRUE(has(server.upload_result(id), "bytes 0 chunks 0 ")) << server.upload_result(id);
      EXPECT_TRUE(mine->ends().empty());
    } else {
      ASSERT_TRUE(wait_until([&] { return !mine->ends().empty(); }));
      EXPECT_EQ(mine->ends()[0].error, c.error);
    }
    ASSERT_TRUE(release_within(maker, milliseconds(5000)));
    ASSERT_TRUE(orv_test::dropped_and_gone(maker, milliseconds(5000)));
    EXPECT_EQ(mine->ends().size(), c.error < 0 ? 0u : 1u);
    EXPECT_EQ(mine->piece_count(), 0);
  }
}

}  // namespace
