// Stress: many threads at once through the shared machinery, a scenario a
// test. Each prints what it pushed through ("[stress] name: count");
// ORV_STRESS_SCALE=N multiplies the counts (a quarter under qemu). Every wait
// is bounded.
#include <numeric>
#include <random>
#include <set>
#include <utility>

#include "gtest/gtest.h"
#include "support/http_test_server.h"
#include "support/streaming_recorder.h"
#include "support/thread_test_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using orv::Threads::RefreshTimer;
using orv::Threads::Timer;
using std::chrono::seconds;
typedef std::vector<std::atomic<int>> Counts;

int scaled(int n) {
  const char* s = getenv("ORV_STRESS_SCALE");
  n *= std::max(1, s != nullptr ? atoi(s) : 1);
  return orv_test::under_user_emulation() ? std::max(1, n / 4) : n;
}

long long sum(const Counts& c) { return std::accumulate(c.begin(), c.end(), 0LL); }

void run_threads(int n, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
  for (std::thread& t : threads) t.join();
}

// A producer a stream, all at once: streams 0-5 feed serial queues, 6 a
// concurrent one, 7-12 the priorities of two run loops (now and then
// synchronously), 13-14 the pool; each keeps a bounded backlog, as callers do.
// Every task runs exactly once, a serial stream's in order (`next` is a plain
// int: overlapping tasks of a stream show under the thread sanitizer too).
long long tasks() {
  const int streams = 15, per = scaled(8000);
  std::vector<orv_shared_ptr<orv::Threads::DispatchQueue>> queues;
  for (int q = 0; q < 7; ++q) queues.push_back(orv::Threads::DispatchQueue::alloc(q < 6 ? 1 : 3));
  orv_shared_ptr<orv::Threads::AppRunloop> loops[] = {orv::Threads::AppRunloop::alloc(2, "stress"),
                                                      orv::Threads::AppRunloop::alloc(2, "stress")};
  auto pool = orv::Memory::Singleton<orv::Threads::GlobalThreadPool>::instance();
  Counts hits(streams * per), ran(streams);
  std::vector<int> next(streams, 0), out_of_order(streams, 0);
  std::atomic<int> refused{0};
  run_threads(streams, [&](int s) {
    for (int i = 0; i < per; ++i) {
      if (i % 64 == 0) orv_test::wait_until([&] { return ran[s] >= i - 64; }, seconds(30));
      std::function<void()> body = [&, s, i] {
        if (s != 6 && s < 13) out_of_order[s] += std::exchange(next[s], i + 1) != i;
        ++hits[s * per + i];
        ++ran[s];
      };
      orv_test::TaskPtr task = orv_test::closure(body);
      refused += !(s <= 6     ? queues[s]->runTaskAsync(orv_test::raw_closure(body), "stress")
                   : s > 12   ? pool->runTaskAsync(task, "stress")
                   : i % 1000 ? loops[s / 10]->runTaskAsync(task, s % 3)
                              : loops[s / 10]->runTaskSync(task, s % 3));
    }
  });
  bool all_ran = orv_test::wait_until([&] { return sum(ran) == streams * per; }, seconds(60));
  for (auto& q : queues)
    all_ran ? q->stopQueue_sync() : (void)q->cancel_sync();  // or drop the rest
  for (auto& l : loops) all_ran ? l->stopRunloop_sync() : l->cancel_sync();
  EXPECT_TRUE(all_ran) << sum(ran) << " of " << streams * per;
  EXPECT_EQ(refused, 0);
  EXPECT_EQ(std::count(hits.begin(), hits.end(), 1), streams * per) << "not run exactly once";
  EXPECT_EQ(out_of_order, std::vector<int>(streams, 0));
  return streams * per;
}

// Every message body is freed exactly once, delivered or dropped.
std::atomic<long long> g_freed{0}, g_delivered{0}, g_receivers{0};
struct Receiver : orv::EventManager {
  explicit Receiver(orv_weak_ptr<orv::Context>& c) : EventManager(c) { ++g_receivers; }
  ~Receiver() override { --g_receivers; }
  void send(orv_shared_ptr<orv::Message>& m) override {
    EXPECT_EQ(std::string(m->m_data.getPTR(), m->m_dataLength), "body");
    ++g_delivered;
  }
};

// Two threads post to four receivers (half on their own queues) while a third
// releases the receivers, so that deliveries promote their weak targets while
// the last strong shares go; then the context goes.
long long messages() {
  const int rounds = scaled(120), per = 300;
  for (int round = 0; round < rounds; ++round) {
    orv_shared_ptr<orv::Context> context = orv::Context::newContext();
    orv_weak_ptr<orv::Context> weak_context(context);
    std::vector<orv_shared_ptr<orv::EventManager>> receivers;
    std::vector<orv_weak_ptr<orv::EventManager>> targets;
    for (int i = 0; i < 4; ++i) {
      receivers.push_back(orv_shared_ptr<orv::EventManager>(new Receiver(weak_context)));
      receivers[i]->m_self = receivers[i];
      receivers[i]->m_useOwnQueue = i % 2;
      targets.push_back(orv_weak_ptr<orv::EventManager>(receivers[i]));
    }
    run_threads(3, [&](int t) {
      for (int i = 0; t < 2 && i < per; ++i) {
        orv_shared_ptr<orv::Message> m(new orv::Message());
        m->m_data = orv_shared_ptr<char>(strdup("body"), [](void* b) {
          ++g_freed;
          free(b);
        });
        m->m_dataLength = 4;
        receivers[0]->post(targets[(t + i) % 4], m, static_cast<unsigned char>(i % 3));
      }
      for (int i = 3; t == 2 && i >= 1; --i) {
        receivers[i]->release_instance();
        receivers[i].releaseManagedPointer();
      }
    });
    context->release_instance();
    context.releaseManagedPointer();
    receivers[0]->release_instance();
  }
  long long posted = 2LL * per * rounds;  // queued deliveries go with their queues
  EXPECT_TRUE(
      orv_test::wait_until([&] { return g_freed == posted && g_receivers == 0; }, seconds(30)))
      << g_freed << " of " << posted << " bodies freed, receivers left: " << g_receivers;
  printf("[stress] messages delivered: %lld\n", g_delivered.load());
  return posted;
}

// One-shot, repeating and refreshed timers made from three threads at once;
// then two threads race to cancel some (and refresh the others). A one-shot
// timer runs exactly once unless its cancel() was true, exactly one cancel()
// of a listed timer is true, and none once it fired or was cancelled.
long long timers() {
  long long made = 0;
  for (int kind = 0; kind < 3; ++kind) {
    SCOPED_TRACE("timer kind " + std::to_string(kind));
    const int n = scaled(kind == 1 ? 24 : 1500);
    auto hits = std::make_shared<Counts>(n);  // a task handed over may outlive the test
    Counts wins(n);
    std::vector<std::function<bool(bool)>> timer(n);  // (true) cancel, (false) refresh
    run_threads(3, [&](int t) {
      for (int i = t; i < n; i += 3) {
        orv_test::TaskPtr task = orv_test::closure([hits, i] { ++(*hits)[i]; });
        if (kind == 2) {
          orv_shared_ptr<RefreshTimer> r = RefreshTimer::createTimerWithTask(task, 20 + i % 30);
          timer[i] = [r](bool cancel) { return cancel ? r->cancel() : r->refresh(); };
        } else {
          int ms = kind == 1 ? 20 + i % 30 : 1 + i % 40;
          orv_shared_ptr<Timer> r = Timer::createTimerWithTask(task, ms, kind == 1);
          timer[i] = [r](bool cancel) { return !cancel || r->cancel(); };
        }
      }
    });
    if (kind == 1) orv_test::wait_until([&] { return sum(*hits) >= n; }, seconds(20));
    run_threads(2, [&](int) {
      for (int i = 0; i < n; ++i) {
        if (kind == 1 || i % 3 == 0) wins[i] += timer[i](true);
        EXPECT_TRUE(kind == 1 || i % 3 == 0 || timer[i](false));
      }
    });
    EXPECT_TRUE(orv_test::wait_until(
        [&] {
          return orv_test::timer_thread_state<Timer>() == 0 &&
                 orv_test::timer_thread_state<RefreshTimer>() == 0 &&
                 (kind == 1 || sum(*hits) == n - sum(wins));
        },
        seconds(30)));
    int wrong = 0;
    for (int i = 0; i < n; ++i) {
      wrong += (kind == 1 ? wins[i] != 1 : (*hits)[i] != 1 - wins[i]) + timer[i](true);
    }
    EXPECT_EQ(wrong, 0);
    made += n;
  }
  return made;
}

long long uuids() {
  orv_test::TempDir dir;
  orv::PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
  std::vector<std::string> made(4 * scaled(4000)), identity(4);
  run_threads(4, [&](int t) {
    identity[t] = orv::UUIDFactory::getIdentity();
    for (size_t i = t; i < made.size(); i += 4) made[i] = orv::UUIDFactory::generateUUID();
  });
  EXPECT_EQ(std::set<std::string>(made.begin(), made.end()).size(), made.size()) << "duplicates";
  EXPECT_EQ(identity, std::vector<std::string>(4, orv_test::read_file(dir.file("ORV_Ident.dat"))));
  return static_cast<long long>(made.size());
}

// Streaming tasks of the three modes, twelve threads a wave, fed in pieces and
// ended three ways: completed, or released or cancelled by another thread
// while fed (and then fed again). Only a completed transfer owes a result, and
// no callback comes once the task is gone.
long long streaming() {
  orv_test::HttpTestServer server;
  EXPECT_TRUE(server.start()) << server.error();
  std::vector<orv_shared_ptr<orv_test::Recorder>> users(scaled(240));
  for (auto& user : users) user = orv_shared_ptr<orv_test::Recorder>(new orv_test::Recorder());
  for (int first = 0; first < static_cast<int>(users.size()); first += 12) {
    run_threads(std::min(12, static_cast<int>(users.size()) - first), [&](int k) {
      const int n = first + k, mode = 1 + n % 3, ending = n / 3 % 3;
      const std::string id = std::to_string(n), paths[] = {"", "/duplex", "/upload", "/stream"};
      SCOPED_TRACE("task " + id + " ending " + std::to_string(ending));
      auto request = orv::Networking::orv_HttpRequest::requestWithUrl(
          server.http_url(paths[mode] + "?n=40&size=500&interval=2&id=" + id));
      request->_transfer_mode = mode;
      orv_test::StreamTask task = orv::Networking::orv_http_request_maker::get_instance();
      task->start_request(request, &orv_test::record, &users[n]);
      std::string sent;
      std::thread stopper;
      for (int i = 0; i < 12; ++i) {
        if (i == 6 && ending > 0) {  // the stop races the pieces that follow
          stopper = std::thread(
              [task, ending] { ending == 1 ? task->release_instance() : task->cancel(); });
        }
        if (mode == orv_test::kDownloadMode) continue;
        std::string piece = orv_test::noise(100 + (n + i * 37) % 900, n + i);
        orv_test::send(task, piece, ending == 0 && i == 11);
        sent += piece;
      }
      if (stopper.joinable()) stopper.join();
      if (ending == 2) orv_test::send(task, "after the cancel", true);
      if (ending == 0) orv_test::wait_until([&] { return !users[n]->ends().empty(); }, seconds(30));
      EXPECT_TRUE(orv_test::release_within(task, std::chrono::milliseconds(30000)));
      EXPECT_TRUE(orv_test::dropped_and_gone(task, std::chrono::milliseconds(30000)));
      users[n]->released = true;  // a post task may call back until it is gone, not after
      std::vector<orv_test::Final> ends = users[n]->ends();
      EXPECT_LE(ends.size(), 1u);
      if (ending != 0) return;
      ASSERT_EQ(ends.size(), 1u);
      EXPECT_EQ(ends[0].error, mode == orv_test::kDownloadMode ? 6 : 0);
      EXPECT_EQ(ends[0].status, 200);
      std::string got =
          mode == orv_test::kUploadMode ? server.upload_result(id) : users[n]->received();
      std::string want = mode == orv_test::kDownloadMode ? orv_test::stream_pattern(40 * 500)
                         : mode == orv_test::kPostMode
                             ? sent
                             : "bytes " + std::to_string(sent.size()) + " ";
      EXPECT_EQ(mode == orv_test::kUploadMode ? got.substr(0, want.size()) : got, want);
    });
  }
  int late = 0;
  for (auto& user : users) late += user->late_calls;
  EXPECT_EQ(late, 0);
  EXPECT_TRUE(orv_test::wait_until(orv_test::refresh_timer_thread_idle));
  return static_cast<long long>(users.size());
}

orv_shared_ptr<char> str(const char* text) { return orv_shared_ptr<char>(strdup(text), &free); }

// Six waiters ask for the token again and again while a thread cancels their
// waits and another changes the keys or resets the token. A call gets a token
// fetched with one of the pairs, or "Cancelled" when its own wait was.
long long token() {
  orv_test::HttpTestServer server;
  EXPECT_TRUE(server.start()) << server.error();
  orv::orv_AccessToken::setTokenEndpoint(server.token_url("answer=client&delay=0.002"));
  orv_shared_ptr<orv::orv_AccessToken> token = orv::orv_AccessToken::alloc();
  const char* keys[2][2] = {{"apiA", "secA"}, {"apiB", "secB"}};
  token->setKeys(str(keys[0][0]), str(keys[0][1]));
  const int calls = scaled(1000), changes = scaled(500);
  std::mutex mutex;  // guards the cancel flags of the waits in progress
  std::vector<bool*> flags(6, nullptr);
  std::atomic<int> finished{0}, current{0}, fetches_due{1};
  std::atomic<long long> cancelled{0}, wrong{0};
  run_threads(8, [&](int w) {
    for (int i = 1; w == 6 && i <= changes; ++i) {
      if (i % 5 == 0) token->resetAccessToken();
      if (i % 5 != 0 && i % 7 != 0) current = 1 - current;
      if (i % 5 != 0)
        token->setKeys(str(keys[current][0]), str(keys[current][1]));  // same: no fetch
      fetches_due += i % 5 == 0 || i % 7 != 0;
    }
    for (std::mt19937 random(7); w == 7 && finished < 6;) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (bool* flag = flags[random() % 6]) token->cancelTokenWaitWithHandle(flag);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));  // pacing only
    }
    for (int c = 0; w < 6 && c < calls; ++c) {
      bool flag = false;
      {
        std::lock_guard<std::mutex> lock(mutex);
        flags[w] = &flag;
      }
      orv_shared_ptr<char> error, got = token->getAccessToken(&error, &flag);
      std::lock_guard<std::mutex> lock(mutex);
      flags[w] = nullptr;
      std::string text = got.getPTR() ? got.getPTR() : "",
                  why = error.getPTR() ? error.getPTR() : "";
      bool fetched = text.rfind("tok-apiA-secA-", 0) == 0 || text.rfind("tok-apiB-secB-", 0) == 0;
      wrong += !(fetched ? why.empty() : text.empty() && why == "Cancelled" && flag);
      cancelled += !fetched;
    }
    finished += w < 6;
  });
  EXPECT_EQ(wrong, 0);
  EXPECT_LT(cancelled, 6LL * calls);
  orv_shared_ptr<char> error, last = token->getAccessToken(&error, nullptr);  // the last keys'
  const std::string want = std::string("tok-") + keys[current][0] + "-" + keys[current][1] + "-";
  EXPECT_EQ(std::string(last.getPTR() ? last.getPTR() : "").rfind(want, 0), 0u);
  EXPECT_EQ(server.token_fetches(), fetches_due);  // every fetch succeeds: waiters start none
  printf("[stress] token calls cancelled: %lld, fetches: %d\n", cancelled.load(),
         server.token_fetches());
  return 6LL * calls;
}

struct Scenario {
  const char* name;
  long long (*run)();
};
const Scenario kScenarios[] = {
    {"tasks", tasks}, {"messages_posted", messages},  {"timers", timers},
    {"uuids", uuids}, {"streaming_tasks", streaming}, {"token_calls", token}};

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

class Stress : public testing::TestWithParam<Scenario> {};
TEST_P(Stress, Run) { printf("[stress] %s: %lld\n", GetParam().name, GetParam().run()); }
INSTANTIATE_TEST_SUITE_P(All, Stress, testing::ValuesIn(kScenarios),
                         [](const testing::TestParamInfo<Scenario>& p) { return p.param.name; });

}  // namespace
