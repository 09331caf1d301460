// Shared pieces of the stress tests: a ledger that counts how often each
// numbered unit of work ran (exactly-once checks), a task that reports to it,
// and the size knob. ORV_STRESS_SCALE (default 1) multiplies every count, to
// run the same tests longer by hand; under user-mode emulation (armhf tests
// under qemu) the counts are a quarter, to stay within the CI budget.
#ifndef ORV_TESTS_STRESS_STRESS_SUPPORT_H
#define ORV_TESTS_STRESS_STRESS_SUPPORT_H

#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "gtest/gtest.h"
#include "orv/orv.h"

namespace orv_stress {

inline int scaled(int n) {
  const char* s = getenv("ORV_STRESS_SCALE");
  int scale = s != nullptr ? atoi(s) : 1;
  n *= scale > 0 ? scale : 1;
  const char* emulation = getenv("ORV_TEST_EMULATION");
  if (emulation != nullptr && emulation[0] != '\0') n = n / 4 > 0 ? n / 4 : 1;
  return n;
}

// One line per test with what it pushed through, and the same as a gtest
// property (in the XML report).
inline void report(const char* what, long long count) {
  ::testing::Test::RecordProperty(what, std::to_string(count));
  printf("[stress] %s: %lld\n", what, count);
  fflush(stdout);
}

// Hit counts per unit number, plus a completion count that can be waited on.
class Ledger {
 public:
  explicit Ledger(int n) : n_(n), hits_(new std::atomic<int>[n]) {
    for (int i = 0; i < n; ++i) hits_[i] = 0;
  }
  void hit(int i) {
    hits_[i].fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(mutex_);
    ++done_;
    if (done_ >= wanted_) cond_.notify_all();
  }
  // Waits until at least `count` hits happened, within `bound`.
  bool wait_for(long long count, std::chrono::milliseconds bound = std::chrono::seconds(60)) {
    std::unique_lock<std::mutex> lock(mutex_);
    wanted_ = count;
    bool ok = cond_.wait_for(lock, bound, [&] { return done_ >= count; });
    wanted_ = 0;
    return ok;
  }
  long long done() {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_;
  }
  int hits(int i) const { return hits_[i].load(); }
  // Units that ran a number of times other than once (first few, and count).
  int not_once(std::string* sample) const {
    int bad = 0;
    for (int i = 0; i < n_; ++i) {
      int h = hits_[i].load();
      if (h != 1) {
        if (++bad <= 5) *sample += " #" + std::to_string(i) + "x" + std::to_string(h);
      }
    }
    return bad;
  }

 private:
  int n_;
  std::unique_ptr<std::atomic<int>[]> hits_;
  std::mutex mutex_;
  std::condition_variable cond_;
  long long done_ = 0;
  long long wanted_ = 0;
};

// A serial stream's order check: each unit says which position it holds.
// Deliberately not atomic: a serial queue must order its tasks, and the
// thread sanitizer sees it if it does not.
struct Stream {
  int next = 0;
  int out_of_order = 0;
  std::atomic<int> arrived{0};  // for producers that keep a bounded backlog
  void arrive(int seq) {
    if (seq != next) ++out_of_order;
    next = seq + 1;
    arrived.fetch_add(1, std::memory_order_relaxed);
  }
};

class LedgerTask : public orv::Threads::ASRDispatchTaskBase {
 public:
  LedgerTask(Ledger* ledger, int unit, Stream* stream = nullptr, int seq = 0)
      : ledger_(ledger), unit_(unit), stream_(stream), seq_(seq) {}
  void execute() override {
    if (stream_ != nullptr) stream_->arrive(seq_);
    ledger_->hit(unit_);
  }

 private:
  Ledger* ledger_;
  int unit_;
  Stream* stream_;
  int seq_;
};

}  // namespace orv_stress

#endif  // ORV_TESTS_STRESS_STRESS_SUPPORT_H
