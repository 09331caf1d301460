// Stress: many small tasks through the process-wide pool, serial and
// concurrent dispatch queues and run loops, from several producer threads at
// once. Every task must run exactly once, and serial streams in order.
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "tests/stress/stress_support.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::Singleton;
using orv::Threads::AppRunloop;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::DispatchQueue;
using orv::Threads::GlobalThreadPool;
using orv_stress::Ledger;
using orv_stress::LedgerTask;
using orv_stress::Stream;

class CountingTask : public LedgerTask {
 public:
  CountingTask(Ledger* ledger, int unit, std::atomic<int>* done) : LedgerTask(ledger, unit), done_(done) {}
  void execute() override {
    LedgerTask::execute();
    ++*done_;
  }

 private:
  std::atomic<int>* done_;
};

TEST(StressTasks, GlobalPoolRunsEveryTaskExactlyOnce) {
  // The pool adds a thread whenever a task finds none idle, so producers
  // keep a bounded window in flight (as real callers do) instead of flooding
  // it with one thread per task.
  const int kProducers = 2, kWindow = 24, kPerProducer = orv_stress::scaled(60000);
  const int total = kProducers * kPerProducer;
  Ledger ledger(total);
  std::vector<std::thread> producers;
  std::atomic<int> refused{0};
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; i += kWindow) {
        int end = std::min(i + kWindow, kPerProducer);
        for (int k = i; k < end; ++k) {
          orv_shared_ptr<ASRDispatchTaskBase> task(new LedgerTask(&ledger, p * kPerProducer + k));
          if (!Singleton<GlobalThreadPool>::instance()->runTaskAsync(task, "stress")) ++refused;
        }
        // Wait until the pool has caught up with everything pushed so far
        // by all producers, minus one window each.
        ledger.wait_for(static_cast<long long>(end) * kProducers - kProducers * kWindow * 2);
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(ledger.wait_for(total)) << ledger.done() << " of " << total;
  EXPECT_EQ(refused, 0);
  std::string sample;
  EXPECT_EQ(ledger.not_once(&sample), 0) << sample;
  orv_stress::report("pool_tasks", total);
}

TEST(StressTasks, DispatchQueuesRunEveryTaskOnceAndSerialOnesInOrder) {
  // A queue's backlog is a vector consumed from the front, so each launch
  // costs time in proportion to the backlog: producers keep it bounded, as
  // real callers do, rather than measuring that.
  const int kSerial = 6, kPerSerial = orv_stress::scaled(12000), kBacklog = 64;
  const int kConcurrentTasks = orv_stress::scaled(30000);
  const int total = kSerial * kPerSerial + kConcurrentTasks;
  Ledger ledger(total);
  std::vector<orv_shared_ptr<DispatchQueue>> serial;
  std::vector<Stream> streams(kSerial);
  for (int q = 0; q < kSerial; ++q) serial.push_back(DispatchQueue::alloc(1));
  orv_shared_ptr<DispatchQueue> concurrent = DispatchQueue::alloc(3);

  // One producer per serial queue (its order is the order of submission),
  // plus one for the concurrent queue, all at once.
  std::atomic<int> concurrent_done{0};
  std::vector<std::thread> producers;
  std::atomic<int> refused{0};
  for (int q = 0; q < kSerial; ++q) {
    producers.emplace_back([&, q] {
      for (int i = 0; i < kPerSerial; ++i) {
        if (i % kBacklog == 0) {
          orv_test::wait_until([&] { return streams[q].arrived.load() >= i - kBacklog; },
                               std::chrono::seconds(30));
        }
        if (!serial[q]->runTaskAsync(new LedgerTask(&ledger, q * kPerSerial + i, &streams[q], i),
                                     "stress-serial")) {
          ++refused;
        }
      }
    });
  }
  producers.emplace_back([&] {
    for (int i = 0; i < kConcurrentTasks; ++i) {
      if (i % kBacklog == 0) {
        orv_test::wait_until([&] { return concurrent_done.load() >= i - kBacklog; },
                             std::chrono::seconds(30));
      }
      if (!concurrent->runTaskAsync(
              new CountingTask(&ledger, kSerial * kPerSerial + i, &concurrent_done),
              "stress-concurrent")) {
        ++refused;
      }
    }
  });
  for (auto& t : producers) t.join();
  bool all_ran = ledger.wait_for(total);
  EXPECT_TRUE(all_ran) << ledger.done() << " of " << total;
  // (a failed run drops what is left before the streams go away)
  for (auto& q : serial) all_ran ? q->stopQueue_sync() : (void)q->cancel_sync();
  all_ran ? concurrent->stopQueue_sync() : (void)concurrent->cancel_sync();
  if (!all_ran) return;
  EXPECT_EQ(refused, 0);
  for (int q = 0; q < kSerial; ++q) {
    EXPECT_EQ(streams[q].out_of_order, 0) << "serial queue " << q;
    EXPECT_EQ(streams[q].next, kPerSerial);
  }
  std::string sample;
  EXPECT_EQ(ledger.not_once(&sample), 0) << sample;
  orv_stress::report("dispatch_queue_tasks", total);
}

TEST(StressTasks, RunLoopsKeepFifoPerPriorityUnderContention) {
  // Each loop has three priorities; each producer owns one priority of one
  // loop, so FIFO per priority is checkable exactly.
  const int kLoops = 2, kPriorities = 3, kPerStream = orv_stress::scaled(15000), kBacklog = 64;
  const int total = kLoops * kPriorities * kPerStream;
  Ledger ledger(total);
  std::vector<orv_shared_ptr<AppRunloop>> loops;
  for (int l = 0; l < kLoops; ++l) {
    loops.push_back(AppRunloop::alloc(kPriorities - 1, ("stress-loop" + std::to_string(l)).c_str()));
    ASSERT_TRUE(loops.back());
  }
  std::vector<Stream> streams(kLoops * kPriorities);
  std::vector<std::thread> producers;
  std::atomic<int> refused{0};
  for (int s = 0; s < kLoops * kPriorities; ++s) {
    producers.emplace_back([&, s] {
      int loop = s / kPriorities;
      unsigned char priority = static_cast<unsigned char>(s % kPriorities);
      for (int i = 0; i < kPerStream; ++i) {
        if (i % kBacklog == 0) {  // bounded backlog, as for the queues
          orv_test::wait_until([&] { return streams[s].arrived.load() >= i - kBacklog; },
                               std::chrono::seconds(30));
        }
        orv_shared_ptr<ASRDispatchTaskBase> task(
            new LedgerTask(&ledger, s * kPerStream + i, &streams[s], i));
        // Now and then a synchronous one: it must run, in its place.
        bool ok = (i % 1000 == 999) ? loops[loop]->runTaskSync(task, priority)
                                    : loops[loop]->runTaskAsync(task, priority);
        if (!ok) ++refused;
      }
    });
  }
  for (auto& t : producers) t.join();
  bool all_ran = ledger.wait_for(total);
  EXPECT_TRUE(all_ran) << ledger.done() << " of " << total;
  for (auto& l : loops) all_ran ? l->stopRunloop_sync() : l->cancel_sync();
  if (!all_ran) return;
  EXPECT_EQ(refused, 0);
  for (size_t s = 0; s < streams.size(); ++s) {
    EXPECT_EQ(streams[s].out_of_order, 0) << "stream " << s;
    EXPECT_EQ(streams[s].next, kPerStream);
  }
  std::string sample;
  EXPECT_EQ(ledger.not_once(&sample), 0) << sample;
  orv_stress::report("runloop_tasks", total);
}

}  // namespace
