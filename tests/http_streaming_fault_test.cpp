// Streaming tasks against a loopback server that misbehaves: resets, garbage,
// stalls, slow drips, huge headers, truncated bodies and a server dying in
// the middle of an upload. Each task ends with what its mode reports for the
// fault, once, within a bound.
#include <chrono>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/streaming_recorder.h"
#include "support/test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv_test::Final;
using orv_test::HttpTestServer;
using orv_test::Recorder;
using orv_test::StreamTask;
using orv_test::wait_until;
using std::chrono::milliseconds;

const char kTransportError[] = "[orv_Chunk_Connection]downStream encouter error.";

class HttpStreamingFaultTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  void TearDown() override {
    EXPECT_TRUE(wait_until(orv_test::refresh_timer_thread_idle));
    ::testing::Test::RecordProperty("faults", faults);
  }

  StreamTask start(int mode, const std::string& path, orv_shared_ptr<Recorder>* user,
                   int timeout_class = 0) {
    orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(server.http_url(path));
    request->_transfer_mode = mode;
    request->_download_timeout_class = timeout_class;
    StreamTask task = orv_http_request_maker::get_instance();
    task->start_request(request, &orv_test::record, user);
    ++faults;
    return task;
  }

  // Waits for the end of the transfer; it must have reported exactly once.
  static Final single_end(StreamTask task, Recorder* user) {
    EXPECT_TRUE(orv_test::transfer_finished(task)) << "the transfer outlived its bound";
    std::vector<Final> ends = user->ends();
    EXPECT_EQ(ends.size(), 1u);
    return ends.empty() ? Final{-1, -1, ""} : ends[0];
  }

  HttpTestServer server;
  int faults = 0;
};

TEST_F(HttpStreamingFaultTest, DownloadReportsEachFaultOnce) {
  struct Case {
    std::string path;
    int error;
    std::string received;
  };
  const Case cases[] = {
      {"/fault/reset", 4, ""},
      {"/fault/garbage", 4, ""},
      // The part that came is delivered before the transport error.
      {"/fault/truncate?length=1000&sent=100", 4, std::string(100, 't')},
      {"/fault/huge_headers?count=100&size=40", 6, "big"},
      // One header line beyond any client's limit.
      {"/fault/huge_headers?count=1&size=1000000", 4, ""},
      // 8 bytes 0.4 s apart outlast the 2000 ms time-out of class 1, but each
      // piece restarts it.
      {"/fault/drip?n=8&interval=0.4", 6, "abcdefgh"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    orv_shared_ptr<Recorder> user(new Recorder());
    StreamTask task = start(orv_test::kDownloadMode, c.path, &user, 1);
    Final end = single_end(task, user.getPTR());
    EXPECT_EQ(end.error, c.error);
    EXPECT_EQ(end.status, 200);
    if (c.error == 4) {
      EXPECT_EQ(end.message, kTransportError);
    }
    EXPECT_EQ(user->received(), c.received);
    EXPECT_TRUE(orv_test::release_within(task));
  }
}

TEST_F(HttpStreamingFaultTest, SilentServerEndsTheDownloadAtTheInactivityTime) {
  // No status line at all: the time-out counts from the start.
  orv_shared_ptr<Recorder> user(new Recorder());
  auto started = std::chrono::steady_clock::now();
  StreamTask task = start(orv_test::kDownloadMode, "/fault/stall?delay=30", &user, 1);
  ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }, milliseconds(15000)));
  auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, milliseconds(1900));
  // The abort that follows reports nothing more.
  Final end = single_end(task, user.getPTR());
  EXPECT_EQ(end.error, 1);
  EXPECT_EQ(end.message, "[orv_httptask_impl] downStream timeout.");
  EXPECT_TRUE(orv_test::release_within(task));
}

TEST_F(HttpStreamingFaultTest, ServerDyingMidUploadEndsTheTransfer) {
  // The caller keeps feeding, without a last piece: the dead connection, not
  // the end of the body, must end the transfer, in both feeding modes.
  for (int mode : {orv_test::kUploadMode, orv_test::kPostMode}) {
    SCOPED_TRACE(mode);
    orv_shared_ptr<Recorder> user(new Recorder());
    StreamTask task = start(mode, "/fault/die?after=20000", &user);
    const std::string piece = orv_test::noise(1000, 5);
    for (int i = 0; i < 2000 && user->ends().empty(); ++i) {
      orv_test::send(task, piece, false);
      if (i >= 20) wait_until([&] { return !user->ends().empty(); }, milliseconds(5));
    }
    ASSERT_TRUE(wait_until([&] { return !user->ends().empty(); }, milliseconds(10000)));
    // Post mode runs on a pool thread: no queue to drain, so give a second
    // report the time to show.
    EXPECT_FALSE(wait_until([&] { return user->ends().size() > 1; }, milliseconds(200)));
    std::vector<Final> ends = user->ends();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].error, 4);
    EXPECT_EQ(ends[0].message, kTransportError);
    EXPECT_TRUE(orv_test::release_within(task));
  }
}

TEST_F(HttpStreamingFaultTest, UploadFaultsAfterTheLastPiece) {
  // The body went out whole; the answer is a reset or garbage.
  for (const char* path : {"/fault/reset", "/fault/garbage"}) {
    SCOPED_TRACE(path);
    orv_shared_ptr<Recorder> user(new Recorder());
    StreamTask task = start(orv_test::kUploadMode, path, &user);
    orv_test::send(task, orv_test::noise(3000, 11), true);
    Final end = single_end(task, user.getPTR());
    EXPECT_EQ(end.error, 4);
    EXPECT_EQ(end.message, kTransportError);
    EXPECT_TRUE(orv_test::release_within(task));
  }

  // No answer ever: no libcurl time-out in these modes, so only a cancel
  // ends the wait; it reports nothing.
  orv_shared_ptr<Recorder> user(new Recorder());
  StreamTask task = start(orv_test::kUploadMode, "/fault/stall?delay=30", &user);
  orv_test::send(task, "all of it", true);
  ASSERT_TRUE(wait_until([&] { return server.count("/fault/stall") == 1; }));
  EXPECT_FALSE(orv_test::transfer_finished(task, milliseconds(300)));
  task->cancel();
  EXPECT_TRUE(orv_test::transfer_finished(task, milliseconds(10000)));
  EXPECT_TRUE(user->ends().empty());
  EXPECT_TRUE(orv_test::release_within(task));

  // A slow answer in post mode streams back piece by piece and ends
  // without error (only download mode turns a 200 into error 6).
  orv_shared_ptr<Recorder> post_user(new Recorder());
  StreamTask post = start(orv_test::kPostMode, "/fault/drip?n=6&interval=0.05", &post_user);
  orv_test::send(post, "q", true);
  ASSERT_TRUE(wait_until([&] { return !post_user->ends().empty(); }));
  EXPECT_EQ(post_user->received(), "abcdef");
  EXPECT_EQ(post_user->ends()[0].error, 0);
  EXPECT_EQ(post_user->ends()[0].status, 200);
  EXPECT_TRUE(orv_test::release_within(post));
}

}  // namespace
