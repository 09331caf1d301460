// Stress: ownership under contention. Strong and weak pointer copy and
// release storms with promotion racing the last release; messages routed
// through contexts while their receivers are destroyed and the contexts
// released; identities and UUIDs made from many threads at once.
#include <ctype.h>

#include <set>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "tests/stress/stress_support.h"

namespace {

using orv::Context;
using orv::EventManager;
using orv::Message;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;

constexpr int kMagic = 0x5eed;

struct Counted {
  static std::atomic<long long> made, gone;
  Counted() { ++made; }
  ~Counted() {
    value = 0;
    ++gone;
  }
  int value = kMagic;
};
std::atomic<long long> Counted::made{0}, Counted::gone{0};

TEST(StressLifetime, PointerCopiesReleasesAndPromotionsRaceCleanly) {
  const int kRounds = orv_stress::scaled(6000), kReaders = 3;
  std::mutex slot_mutex;
  orv_weak_ptr<Counted> slot;  // the object of the current round, weakly
  std::atomic<bool> done{false};
  std::atomic<long long> operations{0}, promoted{0}, found_dead{0}, bad_values{0};

  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&] {
      std::vector<orv_shared_ptr<Counted>> held;
      while (!done.load()) {
        orv_weak_ptr<Counted> weak;
        {
          std::lock_guard<std::mutex> lock(slot_mutex);
          weak = slot;
        }
        for (int k = 0; k < 8; ++k) {
          orv_shared_ptr<Counted> strong(weak);  // promotion, racing the owner's release
          ++operations;
          if (!strong) {
            ++found_dead;
            break;
          }
          ++promoted;
          if (strong->value != kMagic) ++bad_values;
          orv_weak_ptr<Counted> again(strong);
          orv_shared_ptr<Counted> copy = strong;
          held.push_back(copy);
          if (held.size() > 4) held.erase(held.begin());
          operations += 3;
        }
        if ((operations.load() & 7) == 0) held.clear();
      }
    });
  }

  for (int round = 0; round < kRounds; ++round) {
    orv_shared_ptr<Counted> owner(new Counted());
    {
      std::lock_guard<std::mutex> lock(slot_mutex);
      slot = owner;
    }
    orv_shared_ptr<Counted> a = owner, b;
    b = a;
    orv_weak_ptr<Counted> w(b);
    a.releaseManagedPointer();
    b = orv_shared_ptr<Counted>(new Counted());  // reassignment drops a share
    owner.releaseManagedPointer();               // maybe the last strong share
    operations += 6;
  }
  done = true;
  for (auto& t : readers) t.join();
  {
    std::lock_guard<std::mutex> lock(slot_mutex);
    slot = orv_weak_ptr<Counted>();
  }
  EXPECT_EQ(bad_values, 0);
  EXPECT_EQ(Counted::made.load(), 2LL * kRounds);
  EXPECT_EQ(Counted::gone.load(), Counted::made.load());
  orv_stress::report("pointer_operations", operations.load());
  orv_stress::report("promotions", promoted.load());
  orv_stress::report("promotions_of_released", found_dead.load());
}

// Message bodies are freed through this deleter: every posted message must
// be freed exactly once, delivered or dropped.
std::atomic<long long> g_bodies_freed{0};
void free_body(void* p) {
  ++g_bodies_freed;
  delete[] static_cast<char*>(p);
}

std::atomic<long long> g_delivered{0};
std::atomic<long long> g_receivers_alive{0};

class Receiver : public EventManager {
 public:
  explicit Receiver(orv_weak_ptr<Context>& context) : EventManager(context) { ++g_receivers_alive; }
  ~Receiver() override { --g_receivers_alive; }
  void send(orv_shared_ptr<Message>& message) override {
    if (message->m_dataLength != 4 || memcmp(message->m_data.getPTR(), "body", 4) != 0) {
      ADD_FAILURE() << "corrupt message";
    }
    ++g_delivered;
  }
};

TEST(StressLifetime, MessagesRaceReceiverDestructionAndContextRelease) {
  const int kRounds = orv_stress::scaled(120), kReceivers = 4, kPosters = 2, kPerPoster = 300;
  long long posted = 0;
  for (int round = 0; round < kRounds; ++round) {
    orv_shared_ptr<Context> context = Context::newContext();
    orv_weak_ptr<Context> weak_context(context);
    std::vector<orv_shared_ptr<EventManager>> receivers;
    std::vector<orv_weak_ptr<EventManager>> targets;
    for (int i = 0; i < kReceivers; ++i) {
      orv_shared_ptr<EventManager> r(new Receiver(weak_context));
      r->m_self = r;
      r->m_useOwnQueue = i % 2;  // half through the context queue, half their own
      receivers.push_back(r);
      targets.push_back(orv_weak_ptr<EventManager>(r));
    }
    orv_shared_ptr<EventManager> sender = receivers[0];

    std::atomic<long long> round_posted{0};
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
      posters.emplace_back([&, p] {
        for (int i = 0; i < kPerPoster; ++i) {
          orv_shared_ptr<Message> m(new Message());
          m->m_name = "stress";
          char* body = new char[4];
          memcpy(body, "body", 4);
          m->m_data = orv_shared_ptr<char>(body, &free_body);
          m->m_dataLength = 4;
          orv_weak_ptr<EventManager> to = targets[(p + i) % kReceivers];
          sender->post(to, m, static_cast<unsigned char>(i % 3));
          ++round_posted;
        }
      });
    }
    // Meanwhile receivers go away one by one, and then the context.
    for (int i = kReceivers - 1; i >= 1; --i) {
      receivers[i]->release_instance();
      receivers[i].releaseManagedPointer();
      std::this_thread::yield();
    }
    for (auto& t : posters) t.join();
    context->release_instance();
    context.releaseManagedPointer();
    receivers[0]->release_instance();
    receivers.clear();
    sender.releaseManagedPointer();
    posted += round_posted.load();
  }
  // Queued deliveries hold their receivers only weakly and are dropped with
  // their queues: everything is freed once the last pool task has finished.
  EXPECT_TRUE(orv_test::wait_until([&] { return g_bodies_freed.load() == posted; },
                                   std::chrono::seconds(30)))
      << g_bodies_freed.load() << " of " << posted << " message bodies freed";
  EXPECT_TRUE(orv_test::wait_until([] { return g_receivers_alive.load() == 0; },
                                   std::chrono::seconds(30)));
  EXPECT_LE(g_delivered.load(), posted);
  orv_stress::report("messages_posted", posted);
  orv_stress::report("messages_delivered", g_delivered.load());
}

TEST(StressLifetime, IdentitiesAndUuidsFromManyThreads) {
  orv_test::TempDir dir;
  orv::PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
  const int kThreads = 4, kEach = orv_stress::scaled(4000);
  std::vector<std::vector<std::string>> made(kThreads);
  std::vector<std::string> identities(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      identities[t] = orv::UUIDFactory::getIdentity();
      for (int i = 0; i < kEach; ++i) made[t].push_back(orv::UUIDFactory::generateUUID());
      EXPECT_EQ(orv::UUIDFactory::getIdentity(), identities[t]);
    });
  }
  for (auto& t : threads) t.join();
  std::set<std::string> all;
  size_t length = made[0].empty() ? 0 : made[0][0].size();
  for (auto& v : made) {
    for (auto& s : v) {
      EXPECT_EQ(s.size(), length);
      all.insert(s);
    }
  }
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads) * kEach) << "duplicate UUIDs";
  for (int t = 1; t < kThreads; ++t) EXPECT_EQ(identities[t], identities[0]);
  EXPECT_EQ(orv_test::read_file(dir.file("ORV_Ident.dat")), identities[0]);
  orv_stress::report("uuids", static_cast<long long>(all.size()));
}

}  // namespace
