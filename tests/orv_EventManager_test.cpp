#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using orv_test::has;
using orv::Context;
using orv::EventManager;
using orv::Message;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using orv_test::wait_until;

struct Delivery {
  std::string manager;
  std::string message;
};

// Everything the test managers see, in delivery order.
struct Journal {
  std::mutex mutex;
  std::vector<Delivery> deliveries;
  std::atomic<int> in_flight{0};
  std::atomic<int> max_in_flight{0};
  std::atomic<int> destroyed_received{0};

  size_t size() {
    std::lock_guard<std::mutex> lock(mutex);
    return deliveries.size();
  }
  std::vector<Delivery> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return deliveries;
  }
};

// Holds a delivery until released, to keep a queue busy.
struct Gate : orv_test::Gate {
  std::atomic<bool> entered{false};
  void pass() {
    entered = true;
    wait();
  }
};

class Recorder : public EventManager {
 public:
  Recorder(orv_weak_ptr<Context>& context, std::string name, Journal* journal, Gate* gate = nullptr)
      : EventManager(context), name_(std::move(name)), journal_(journal), gate_(gate) {}
  ~Recorder() override { alive_ = false; }

  void send(orv_shared_ptr<Message>& message) override {
    if (!alive_) ++journal_->destroyed_received;
    int now = ++journal_->in_flight;
    int seen = journal_->max_in_flight;
    while (now > seen && !journal_->max_in_flight.compare_exchange_weak(seen, now)) {
    }
    if (gate_ != nullptr && message->m_name == "block") gate_->pass();
    {
      std::lock_guard<std::mutex> lock(journal_->mutex);
      journal_->deliveries.push_back({name_, message->m_name});
    }
    --journal_->in_flight;
  }

 private:
  std::string name_;
  Journal* journal_;
  Gate* gate_;
  std::atomic<bool> alive_{true};
};

orv_shared_ptr<EventManager> make_manager(orv_shared_ptr<Context>& context, const std::string& name,
                                          Journal* journal, Gate* gate = nullptr) {
  orv_weak_ptr<Context> weak(context);
  orv_shared_ptr<EventManager> manager(new Recorder(weak, name, journal, gate));
  manager->m_self = manager;
  return manager;
}

orv_shared_ptr<Message> message(const std::string& name) {
  orv_shared_ptr<Message> m(new Message());
  m->m_name = name;
  return m;
}

void post(orv_shared_ptr<EventManager>& from, orv_shared_ptr<EventManager>& to,
          const std::string& name, unsigned char priority = 0) {
  orv_weak_ptr<EventManager> target(to);
  orv_shared_ptr<Message> m = message(name);
  from->post(target, m, priority);
}

TEST(Context, DeliveriesAreSerialAndInPostingOrderAcrossManagersAndThreads) {
  Journal journal;
  orv_shared_ptr<Context> context = Context::newContext();
  std::vector<orv_shared_ptr<EventManager>> managers;
  for (int i = 0; i < 3; ++i) managers.push_back(make_manager(context, "m" + std::to_string(i), &journal));

  const int kPosters = 4, kPerPoster = 300;
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < kPerPoster; ++i) {
        // Priorities vary and must not reorder anything.
        post(managers[p % 3], managers[i % 3], std::to_string(p) + ":" + std::to_string(i),
             static_cast<unsigned char>(i % 7));
      }
    });
  }
  for (auto& t : posters) t.join();
  ASSERT_TRUE(wait_until([&] { return journal.size() == kPosters * kPerPoster; }));
  EXPECT_EQ(journal.max_in_flight, 1);
  EXPECT_EQ(context->m_postedCount.load(), kPosters * kPerPoster);

  std::vector<int> next(kPosters, 0);
  for (const Delivery& d : journal.snapshot()) {
    int poster = std::stoi(d.message.substr(0, d.message.find(':')));
    int index = std::stoi(d.message.substr(d.message.find(':') + 1));
    EXPECT_EQ(index, next[poster]) << "poster " << poster;
    EXPECT_EQ(d.manager, "m" + std::to_string(index % 3));
    next[poster] = index + 1;
  }
}

TEST(Context, OwnQueueDeliveryBypassesABusyContextQueue) {
  Journal journal;
  Gate gate;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> blocker = make_manager(context, "blocker", &journal, &gate);
  orv_shared_ptr<EventManager> own = make_manager(context, "own", &journal);
  own->m_useOwnQueue = 1;

  post(blocker, blocker, "block");
  ASSERT_TRUE(wait_until([&] { return gate.entered.load(); }));
  post(blocker, own, "direct");  // the context queue is stuck behind "block"
  EXPECT_TRUE(wait_until([&] { return journal.size() == 1; }));
  EXPECT_EQ(context->m_postedCount.load(), 1);
  gate.open();
  ASSERT_TRUE(wait_until([&] { return journal.size() == 2; }));
  std::vector<Delivery> d = journal.snapshot();
  EXPECT_EQ(d[0].manager, "own");
  EXPECT_EQ(d[0].message, "direct");
  EXPECT_EQ(d[1].message, "block");
}

TEST(Context, ReceiverDestroyedBeforeDeliveryGetsNothing) {
  Journal journal;
  Gate gate;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> blocker = make_manager(context, "blocker", &journal, &gate);
  orv_shared_ptr<EventManager> doomed = make_manager(context, "doomed", &journal);
  orv_weak_ptr<EventManager> watch(doomed);

  post(blocker, blocker, "block");
  ASSERT_TRUE(wait_until([&] { return gate.entered.load(); }));
  post(blocker, doomed, "too late");
  doomed.releaseManagedPointer();  // the queued delivery holds it only weakly
  EXPECT_EQ(orv_shared_ptr<EventManager>(watch).getPTR(), nullptr);
  post(blocker, blocker, "sentinel");
  gate.open();
  ASSERT_TRUE(wait_until([&] { return journal.size() == 2; }));
  std::vector<Delivery> d = journal.snapshot();
  EXPECT_EQ(d[0].message, "block");
  EXPECT_EQ(d[1].message, "sentinel");
  EXPECT_EQ(journal.destroyed_received, 0);

  // Posting to a receiver that is already gone drops the message at once.
  orv_shared_ptr<Message> m = message("nobody");
  orv_weak_ptr<EventManager> nobody(watch);
  blocker->post(nobody, m, 0);
  EXPECT_EQ(m._control->_strong_count, 1u);
}

TEST(Context, AReleasedContextDeliversNothingMore) {
  Journal journal;
  Gate gate;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> a = make_manager(context, "a", &journal, &gate);

  post(a, a, "block");
  ASSERT_TRUE(wait_until([&] { return gate.entered.load(); }));
  post(a, a, "pending1");
  post(a, a, "pending2");
  orv::set_log_level(orv::LOG_DEBUG);
  orv_test::StderrCapture capture;
  std::atomic<bool> released{false};
  std::thread releaser([&] {
    context->release_instance();  // waits for the running delivery
    released = true;
  });
  // The running delivery is still held by the gate, so release_instance must
  // still be waiting (nothing to await but the absence of progress).
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(released);
  gate.open();
  releaser.join();
  std::string log = capture.text();
  orv::set_log_level(0);
  EXPECT_TRUE(has(log, "[orv_Context.cpp:91][Context::release_instance] cancel ctxQueue\n"))
      << log;
  EXPECT_EQ(journal.size(), 1u);  // only "block"

  orv_shared_ptr<Message> late = message("late");
  orv_weak_ptr<EventManager> target(a);
  a->post(target, late, 0);
  EXPECT_EQ(late._control->_strong_count, 1u);  // refused: no task holds it
  EXPECT_EQ(journal.size(), 1u);
}

TEST(Context, QueuedDeliveriesKeepTheContextAlive) {
  Journal journal;
  Gate gate;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> a = make_manager(context, "a", &journal, &gate);
  orv_weak_ptr<Context> watch(context);
  post(a, a, "block");
  ASSERT_TRUE(wait_until([&] { return gate.entered.load(); }));
  post(a, a, "after");
  context.releaseManagedPointer();
  EXPECT_NE(orv_shared_ptr<Context>(watch).getPTR(), nullptr);
  gate.open();
  ASSERT_TRUE(wait_until([&] { return journal.size() == 2; }));
  EXPECT_TRUE(wait_until([&] { return orv_shared_ptr<Context>(watch).getPTR() == nullptr; }));
}

TEST(EventManagerTest, WithoutAContextOrSelfMessagesAreDropped) {
  Journal journal;
  orv_shared_ptr<Context> context = Context::newContext();
  orv_shared_ptr<EventManager> sender = make_manager(context, "sender", &journal);
  orv_shared_ptr<EventManager> receiver = make_manager(context, "receiver", &journal);
  context.releaseManagedPointer();  // the sender's context is gone
  orv_shared_ptr<Message> m = message("lost");
  orv_weak_ptr<EventManager> to(receiver);
  sender->post(to, m, 0);
  EXPECT_EQ(m._control->_strong_count, 1u);

  // Own queue without a self reference: nothing can keep it alive, dropped.
  orv_shared_ptr<Context> other = Context::newContext();
  orv_weak_ptr<Context> weak(other);
  orv_shared_ptr<EventManager> selfless(new Recorder(weak, "selfless", &journal));
  selfless->m_useOwnQueue = 1;
  orv_weak_ptr<EventManager> to_selfless(selfless);
  sender->post(to_selfless, m, 0);
  EXPECT_EQ(m._control->_strong_count, 1u);
  EXPECT_EQ(journal.size(), 0u);
}

}  // namespace
