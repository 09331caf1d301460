// Stress: the networking objects that many threads share. Streaming tasks in
// all three modes started in waves, fed while other threads cancel and
// release them; one access token read by many waiters that cancel their
// waits while another thread changes the keys and resets the token. Against
// the loopback test server.
#include <stdio.h>
#include <string.h>

#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/http_test_server.h"
#include "support/streaming_recorder.h"
#include "support/test_support.h"
#include "tests/stress/stress_support.h"

namespace {

using orv::orv_AccessToken;
using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv_test::Final;
using orv_test::Recorder;
using orv_test::StreamTask;
using std::chrono::milliseconds;

// How a task's life ends.
enum Ending { kComplete, kCancelWhileFeeding, kReleaseWhileFeeding, kFeedAfterCancel, kEndings };

struct Outcome {
  int mode;
  Ending ending;
  std::string id;
  std::string sent;
  orv_shared_ptr<Recorder> user{new Recorder()};
  StreamTask task;
  bool released_in_time = false;
  bool gone_in_time = false;
};

std::string path_for(int mode, const std::string& id) {
  if (mode == orv_test::kUploadMode) return "/upload?id=" + id;
  if (mode == orv_test::kPostMode) return "/duplex?id=" + id;
  return "/stream?n=40&size=500&interval=2";
}

// One task from start to release, on its own thread.
void run_task(orv_test::HttpTestServer& server, Outcome& o, unsigned seed) {
  orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(
      server.http_url(path_for(o.mode, o.id)));
  request->_transfer_mode = o.mode;
  o.task = orv_http_request_maker::get_instance();
  o.task->start_request(request, &orv_test::record, &o.user);

  const int pieces = 12;
  std::thread stopper;
  for (int i = 0; i < pieces; ++i) {
    if (i == pieces / 2 && o.ending != kComplete) {
      // The stop races the pieces that follow.
      StreamTask task = o.task;
      bool release = o.ending == kReleaseWhileFeeding;
      stopper = std::thread([task, release] {
        if (release) {
          task->release_instance();
        } else {
          task->cancel();
        }
      });
    }
    if (o.mode == orv_test::kDownloadMode) continue;
    std::string piece = orv_test::noise(100 + (seed + i * 37) % 900, seed + i);
    o.sent += piece;
    orv_test::send(o.task, piece, o.ending == kComplete && i == pieces - 1);
  }
  if (stopper.joinable()) stopper.join();
  if (o.ending == kFeedAfterCancel) orv_test::send(o.task, "after the cancel", true);
  if (o.ending == kComplete) {
    orv_test::wait_until([&] { return !o.user->ends().empty(); }, milliseconds(30000));
  }
  o.released_in_time = orv_test::release_within(o.task, milliseconds(30000));
  // A post transfer may still call back after the release; none does once
  // the task is gone.
  o.gone_in_time = orv_test::dropped_and_gone(o.task, milliseconds(30000));
  o.user->released = true;
}

TEST(StressNetwork, StreamingTasksStartedFedCancelledAndReleasedInWaves) {
  orv_test::HttpTestServer server;
  ASSERT_TRUE(server.start()) << server.error();
  const int kWave = 12, kTasks = orv_stress::scaled(240);
  std::vector<std::unique_ptr<Outcome>> all;
  for (int first = 0; first < kTasks; first += kWave) {
    std::vector<std::thread> wave;
    for (int i = first; i < first + kWave && i < kTasks; ++i) {
      std::unique_ptr<Outcome> o(new Outcome());
      o->mode = 1 + i % 3;
      o->ending = static_cast<Ending>((i / 3) % kEndings);
      o->id = "s" + std::to_string(i);
      Outcome* raw = o.get();
      all.push_back(std::move(o));
      wave.emplace_back([&server, raw, i] { run_task(server, *raw, static_cast<unsigned>(i)); });
    }
    for (std::thread& t : wave) t.join();
  }

  long long pieces = 0, bytes = 0;
  for (const std::unique_ptr<Outcome>& o : all) {
    SCOPED_TRACE(o->id + " mode " + std::to_string(o->mode) + " ending " +
                 std::to_string(o->ending));
    EXPECT_TRUE(o->released_in_time);
    EXPECT_TRUE(o->gone_in_time);
    EXPECT_EQ(o->user->late_calls.load(), 0);
    std::vector<Final> ends = o->user->ends();
    EXPECT_LE(ends.size(), 1u);
    pieces += o->user->piece_count();
    bytes += static_cast<long long>(o->sent.size() + o->user->received_size());
    // Only a task whose transfer was not stopped owes a complete result.
    if (o->ending != kComplete) continue;
    ASSERT_EQ(ends.size(), 1u);
    if (o->mode == orv_test::kDownloadMode) {
      EXPECT_EQ(ends[0].error, 6);
      EXPECT_EQ(o->user->received(), orv_test::stream_pattern(40 * 500));
    } else {
      EXPECT_EQ(ends[0].error, 0);
      EXPECT_EQ(ends[0].status, 200);
      std::string want = "bytes " + std::to_string(o->sent.size()) + " ";
      EXPECT_NE(server.upload_result(o->id).find(want), std::string::npos)
          << server.upload_result(o->id);
      if (o->mode == orv_test::kPostMode) {
        EXPECT_EQ(o->user->received(), o->sent);
      }
    }
  }
  EXPECT_TRUE(orv_test::wait_until(orv_test::refresh_timer_thread_idle));
  orv_stress::report("streaming_tasks", kTasks);
  orv_stress::report("streaming_pieces_received", pieces);
  orv_stress::report("streaming_bytes", bytes);
}

orv_shared_ptr<char> str(const std::string& text) {
  char* block = new char[text.size() + 1];
  memcpy(block, text.c_str(), text.size() + 1);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

// The cancel flag of a wait in progress, published for the canceller.
struct Slot {
  std::mutex mutex;
  bool* flag = nullptr;
};

TEST(StressNetwork, TokenWaitersCancelWhileKeysChange) {
  orv_test::HttpTestServer server;
  ASSERT_TRUE(server.start()) << server.error();
  orv_AccessToken::setTokenEndpoint(server.token_url("answer=client&delay=0.002"));
  orv_shared_ptr<orv_AccessToken> token = orv_AccessToken::alloc();
  const std::string keys[2][2] = {{"apiA", "secA"}, {"apiB", "secB"}};
  token->setKeys(str(keys[0][0]), str(keys[0][1]));

  const int kWaiters = 6, kCalls = orv_stress::scaled(1000), kChanges = orv_stress::scaled(500);
  std::vector<Slot> slots(kWaiters);
  std::atomic<int> finished{0};
  std::atomic<long long> got_token{0}, cancelled{0}, wrong{0};
  std::mutex sample_mutex;
  std::string sample;

  std::vector<std::thread> waiters;
  for (int w = 0; w < kWaiters; ++w) {
    waiters.emplace_back([&, w] {
      for (int c = 0; c < kCalls; ++c) {
        std::unique_ptr<bool> flag(new bool(false));
        {
          std::lock_guard<std::mutex> lock(slots[w].mutex);
          slots[w].flag = flag.get();
        }
        orv_shared_ptr<char> error;
        orv_shared_ptr<char> got = token->getAccessToken(&error, flag.get());
        bool was_cancelled;
        {
          std::lock_guard<std::mutex> lock(slots[w].mutex);
          slots[w].flag = nullptr;
          was_cancelled = *flag;
        }
        std::string text = got.getPTR() != nullptr ? got.getPTR() : "";
        std::string why = error.getPTR() != nullptr ? error.getPTR() : "";
        bool fine = (text.rfind("tok-apiA-secA-", 0) == 0 || text.rfind("tok-apiB-secB-", 0) == 0)
                        ? why.empty()
                        : text.empty() && why == "Cancelled" && was_cancelled;
        if (fine) {
          ++(text.empty() ? cancelled : got_token);
        } else {
          ++wrong;
          std::lock_guard<std::mutex> lock(sample_mutex);
          if (sample.size() < 300) sample += " [" + text + "|" + why + "]";
        }
      }
      ++finished;
    });
  }
  std::thread canceller([&] {
    std::mt19937 random(7);
    while (finished.load() < kWaiters) {
      Slot& slot = slots[random() % kWaiters];
      {
        std::lock_guard<std::mutex> lock(slot.mutex);
        if (slot.flag != nullptr) token->cancelTokenWaitWithHandle(slot.flag);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));  // pacing only
    }
  });
  int current = 0;      // the pair set last
  int fetches_due = 1;  // the first setKeys
  std::thread changer([&] {
    for (int i = 1; i <= kChanges; ++i) {
      if (i % 5 == 0) {
        token->resetAccessToken();
        ++fetches_due;
      } else if (i % 7 == 0) {
        token->setKeys(str(keys[current][0]), str(keys[current][1]));  // the same: no fetch
      } else {
        current = 1 - current;
        token->setKeys(str(keys[current][0]), str(keys[current][1]));
        ++fetches_due;
      }
    }
  });
  changer.join();
  for (std::thread& t : waiters) t.join();
  canceller.join();

  EXPECT_EQ(wrong.load(), 0) << sample;
  EXPECT_GT(got_token.load(), 0);
  // Settled on the last keys set: a plain call gets their token.
  orv_shared_ptr<char> error;
  orv_shared_ptr<char> last = token->getAccessToken(&error, nullptr);
  ASSERT_NE(last.getPTR(), nullptr);
  const std::string want = "tok-" + keys[current][0] + "-" + keys[current][1] + "-";
  EXPECT_EQ(std::string(last.getPTR()).rfind(want, 0), 0u) << last.getPTR();
  // Every fetch succeeds, so waiters never start one of their own.
  EXPECT_EQ(server.token_fetches(), fetches_due);
  orv_stress::report("token_calls", static_cast<long long>(kWaiters) * kCalls);
  orv_stress::report("token_calls_cancelled", cancelled.load());
  orv_stress::report("token_key_changes", kChanges);
  orv_stress::report("token_fetches", server.token_fetches());
}

}  // namespace
