// Stress: many threads at once through the shared machinery, a test a
// scenario; each prints what it pushed through ("[stress] name: count").
// ORV_STRESS_SCALE=N multiplies the counts. Every wait is bounded.
#include "gtest/gtest.h"
#include "support/http_test_server.h"
#include "support/streaming_recorder.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv;
using namespace orv::Memory;
using namespace orv::Threads;
using namespace orv_test;
const std::chrono::seconds kBound(60);

int scaled(int n) { return n * std::max(1, getenv("ORV_STRESS_SCALE") ? atoi(getenv("ORV_STRESS_SCALE")) : 1); }

// Eight producers at once, each keeping a bounded backlog as callers do: 0-3
// feed serial queues, 4 a concurrent one (all five borrow pool threads), 5-7
// the priorities of a run loop, now and then synchronously. Every task runs
// once, a serial stream's in order (`next` is a plain int: overlapping tasks
// of a stream show under the thread sanitizer too).
TEST(Stress, Tasks) {
  const int streams = 8, per = scaled(10000);
  std::vector<orv_shared_ptr<DispatchQueue>> queues;
  for (int q = 0; q < 5; ++q) queues.push_back(DispatchQueue::alloc(q < 4 ? 1 : 3));
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(2, "stress");
  std::vector<std::atomic<int>> hits(streams * per), ran(streams);
  std::vector<int> next(streams, 0);
  run_threads(streams, [&](int s) {
    for (int i = 0; i < per; ++i) {
      if (i % 64 == 0) wait_until([&] { return ran[s] >= i - 64; }, kBound);
      auto body = [&, s, i] { hits[s * per + i] += s != 4 && std::exchange(next[s], i + 1) != i ? 2 : 1, ++ran[s]; };
      ASSERT_TRUE(s < 5      ? queues[s]->runTaskAsync(raw_closure(body), "stress")
                  : i % 1000 ? loop->runTaskAsync(closure(body), s - 5)
                             : loop->runTaskSync(closure(body), s - 5));
    }
    EXPECT_TRUE(wait_until([&] { return ran[s] == per; }, kBound)) << s << ": " << ran[s];
  });
  loop->cancel_sync();
  EXPECT_EQ(std::count(hits.begin(), hits.end(), 1), streams * per) << "not run exactly once, in order";
  printf("[stress] tasks: %d\n", streams * per);
}

std::atomic<long long> g_freed{0}, g_delivered{0}, g_receivers{0};
struct Receiver : EventManager {
  Receiver(orv_weak_ptr<Context> c, int own_queue) : EventManager(c) { m_useOwnQueue = own_queue, ++g_receivers; }
  ~Receiver() override { --g_receivers; }
  void send(orv_shared_ptr<Message>&) override { ++g_delivered; }
};

// Two threads post to four receivers (half on their own queues); halfway one
// drops three of them, later it releases the context, so that deliveries
// promote their weak targets while the last strong shares go. Every body is
// freed exactly once, delivered or dropped, and every receiver is destroyed.
TEST(Stress, Messages) {
  const int rounds = scaled(120), per = 300;
  for (int round = 0; round < rounds; ++round) {
    orv_shared_ptr<Context> context = Context::newContext();
    std::vector<orv_shared_ptr<EventManager>> receivers;
    std::vector<orv_weak_ptr<EventManager>> targets;
    for (int i = 0; i < 4; ++i) {
      receivers.emplace_back(new Receiver(context, i % 2));
      receivers[i]->m_self = targets.emplace_back(receivers[i]);
    }
    run_threads(2, [&](int t) {
      for (int i = 0; i < per; ++i) {
        orv_shared_ptr<Message> m(new Message());
        m->m_data = orv_shared_ptr<char>(strdup("body"), [](void* b) { ++g_freed, free(b); });
        receivers[0]->post(targets[(t + i) % 4], m, static_cast<unsigned char>(i % 3));
        for (int k = 3; t == 1 && i == per / 2 && k >= 1; --k) receivers[k].releaseManagedPointer();
        if (t == 1 && i == per * 3 / 4) context->release_instance();
      }
    });
  }
  // Queued deliveries go with their queues.
  EXPECT_TRUE(wait_until([&] { return g_freed == 2LL * per * rounds && g_receivers == 0; }, kBound)) << g_receivers;
  printf("[stress] messages posted: %lld, delivered: %lld\n", 2LL * per * rounds, g_delivered.load());
}

// One-shot, repeating (every 50th) and refresh timers made from three threads
// at once; then two threads race to cancel every third and every repeating
// one, and refresh the others. A one-shot timer runs exactly once unless its
// cancel() was true; one cancel() of a repeating timer is true; none once the
// timer threads have ended.
TEST(Stress, Timers) {
  const int n = scaled(3000);
  auto hits = std::make_shared<std::vector<std::atomic<int>>>(n);  // a task handed over may outlive the test
  std::vector<std::atomic<int>> wins(n);
  std::vector<std::function<bool(bool)>> op(n);  // cancel(), or refresh() and false
  run_threads(3, [&](int k) {
    for (int i = k; i < n; i += 3) {
      TaskPtr t = closure([hits, i] { ++(*hits)[i]; });
      if (i % 2)
        op[i] = [r = RefreshTimer::createTimerWithTask(t, i % 45)](bool c) { return c ? r->cancel() : !r->refresh(); };
      else
        op[i] = [r = Timer::createTimerWithTask(t, 5 + i % 40, i % 50 == 0)](bool c) { return c && r->cancel(); };
    }
  });
  run_threads(2, [&](int) {
    for (int i = 0; i < n; ++i) wins[i] += op[i](i % 50 == 0 || i % 3 == 0);
  });
  auto settled = [&] {  // once the lists are empty, cancel() has nothing to remove
    int wrong = timer_thread_state<Timer>() + timer_thread_state<RefreshTimer>();
    for (int i = 0; i < n && wrong == 0; ++i)
      wrong += (i % 50 ? (*hits)[i] != 1 - wins[i] : wins[i] != 1) + op[i](true);
    return wrong == 0;
  };
  EXPECT_TRUE(wait_until(settled, kBound));
  printf("[stress] timers: %d\n", n);
}

// Post and upload tasks, twelve at a time, fed in pieces while another thread
// releases or cancels them, and fed again after that: at most one end report,
// and no callback once the task is gone. (A post task may call back after
// release_instance: the pointer is dropped and the task awaited.)
TEST(Stress, Streaming) {
  HttpTestServer server;
  ASSERT_TRUE(server.start()) << server.error();
  const int n = scaled(240);
  std::vector<orv_shared_ptr<Recorder>> users(n);
  run_threads(12, [&](int k) {
    for (int u = k; u < n; u += 12) {
      users[u] = orv_shared_ptr<Recorder>(new Recorder());
      auto request = Networking::orv_HttpRequest::requestWithUrl(server.http_url(u % 2 ? "/duplex" : "/upload"));
      request->_transfer_mode = u % 2 ? kPostMode : kUploadMode;
      StreamTask task = Networking::orv_http_request_maker::get_instance();
      task->start_request(request, &record, &users[u]);
      for (int i = 0; i < 6; ++i) send(task, noise(100 + (u + i * 37) % 900, u + i), false);
      std::thread stopper([task, u] { u / 2 % 2 ? task->release_instance() : task->cancel(); });
      for (int i = 6; i < 12; ++i) send(task, noise(100 + (u + i * 37) % 900, u + i), false);  // racing the stop
      stopper.join();
      send(task, "after the stop", true);
      EXPECT_TRUE(release_within(task, kBound)) << u;  // (its copy of the task goes with this statement)
      EXPECT_TRUE(dropped_and_gone(task, kBound)) << u;
      users[u]->released = true;
      EXPECT_LE(users[u]->ends().size(), 1u) << u;
    }
  });
  for (auto& user : users) EXPECT_EQ(user->late_calls, 0);
  EXPECT_TRUE(wait_until([] { return timer_thread_state<RefreshTimer>() == 0; }));
  printf("[stress] streaming tasks: %d\n", n);
}

// Six waiters ask for the token again and again, each cancelling the wait of
// another now and then, while a thread sets keys: the other pair, or now and
// then the same again (which fetches nothing). A call gets a token fetched
// with one of the pairs or "Cancelled"; the server sees exactly the fetches
// due, since waiters start none while one runs; the last keys win.
TEST(Stress, Token) {
  HttpTestServer server;
  ASSERT_TRUE(server.start()) << server.error();
  orv_AccessToken::setTokenEndpoint(server.token_url("answer=client&delay=0.002"));
  orv_shared_ptr<orv_AccessToken> token = orv_AccessToken::alloc();
  auto str = [](const std::string& s) { return orv_shared_ptr<char>(strdup(s.c_str()), &free); };
  token->setKeys(str("apiA"), str("secA"));
  const int calls = scaled(1000);
  std::unique_ptr<bool[]> flags(new bool[6 * calls]());  // a flag a call; only the token touches them
  std::atomic<int> cancelled{0}, fetches_due{1};
  std::string pair = "A";
  run_threads(7, [&](int w) {
    for (int i = 1; w == 6 && i <= calls / 2; ++i) {
      pair = i % 7 == 0 ? pair : pair == "A" ? "B" : "A";
      token->setKeys(str("api" + pair), str("sec" + pair));
      fetches_due += i % 7 != 0;
    }
    for (int c = 0; w < 6 && c < calls; ++c) {  // cancelling the next waiter's call of the same number
      if (c % 3 == 0) token->cancelTokenWaitWithHandle(&flags[(w + 1) % 6 * calls + c]);
      orv_shared_ptr<char> error, got = token->getAccessToken(&error, &flags[w * calls + c]);
      const std::string r = std::string(got ? got.getPTR() : "-").substr(0, 14) + (error ? error.getPTR() : "");
      cancelled += r == "-Cancelled";
      EXPECT_TRUE(r == "tok-apiA-secA-" || r == "tok-apiB-secB-" || r == "-Cancelled") << r;
    }
  });
  orv_shared_ptr<char> error, last = token->getAccessToken(&error, nullptr);
  EXPECT_EQ(std::string(last ? last.getPTR() : "").substr(0, 14) + " " + std::to_string(server.count("/oauth/2.0/token")),
            "tok-api" + pair + "-sec" + pair + "- " + std::to_string(fetches_due.load()));
  printf("[stress] token calls: %d, cancelled: %d, fetches: %d\n", 6 * calls, cancelled.load(), fetches_due.load());
}

}  // namespace
