// Threading costs: task throughput and post-to-start latency (median and
// 99th percentile, as counters) of a run loop, the global thread pool and a
// serial dispatch queue.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "benchmark/benchmark.h"
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::Singleton;
using orv::Threads::AppRunloop;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::DispatchQueue;
using orv::Threads::GlobalThreadPool;

int64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Counts executions; with a post time set, records post-to-start latency.
struct Probe {
  std::atomic<int> done{0};
  std::atomic<int64_t> posted{0};
  std::atomic<int64_t> latency{0};
};

class ProbeTask : public ASRDispatchTaskBase {
 public:
  explicit ProbeTask(Probe* probe) : probe_(probe) {}
  void execute() override {
    int64_t posted = probe_->posted.load(std::memory_order_acquire);
    if (posted != 0) probe_->latency.store(now_ns() - posted, std::memory_order_release);
    probe_->done.fetch_add(1, std::memory_order_release);
  }

 private:
  Probe* probe_;
};

void wait_for(Probe& probe, int count) {
  while (probe.done.load(std::memory_order_acquire) < count) std::this_thread::yield();
}

const int kBatch = 256;

// The three ways of posting one task.
struct LoopTarget {
  orv_shared_ptr<AppRunloop> loop = AppRunloop::alloc(0, "bench-loop");
  bool post(Probe* probe) {
    return loop->runTaskAsync(orv_shared_ptr<ASRDispatchTaskBase>(new ProbeTask(probe)), 0);
  }
  ~LoopTarget() { loop->stopRunloop_sync(); }
};

struct PoolTarget {
  orv_shared_ptr<GlobalThreadPool> pool = Singleton<GlobalThreadPool>::instance();
  bool post(Probe* probe) {
    return pool->runTaskAsync(orv_shared_ptr<ASRDispatchTaskBase>(new ProbeTask(probe)), nullptr);
  }
};

struct QueueTarget {
  orv_shared_ptr<DispatchQueue> queue = DispatchQueue::alloc(1);
  bool post(Probe* probe) { return queue->runTaskAsync(new ProbeTask(probe), nullptr); }
  ~QueueTarget() { queue->stopQueue_sync(); }
};

// Throughput: batches of kBatch tasks posted back to back, then drained.
template <class Target>
void BM_Throughput(benchmark::State& state) {
  Target target;
  for (auto _ : state) {
    Probe probe;
    for (int i = 0; i < kBatch; ++i) target.post(&probe);
    wait_for(probe, kBatch);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// Latency: one task at a time, from the post call to the start of execute.
template <class Target>
void BM_Latency(benchmark::State& state) {
  Target target;
  std::vector<int64_t> samples;
  for (auto _ : state) {
    Probe probe;
    probe.posted.store(now_ns(), std::memory_order_release);
    target.post(&probe);
    wait_for(probe, 1);
    samples.push_back(probe.latency.load(std::memory_order_acquire));
  }
  if (samples.empty()) return;
  std::sort(samples.begin(), samples.end());
  state.counters["median_us"] = samples[samples.size() / 2] / 1000.0;
  state.counters["p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)] / 1000.0;
}

BENCHMARK_TEMPLATE(BM_Throughput, LoopTarget)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Throughput, PoolTarget)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Throughput, QueueTarget)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Latency, LoopTarget)->UseRealTime()->Iterations(20000);
BENCHMARK_TEMPLATE(BM_Latency, PoolTarget)->UseRealTime()->Iterations(20000);
BENCHMARK_TEMPLATE(BM_Latency, QueueTarget)->UseRealTime()->Iterations(20000);

}  // namespace

BENCHMARK_MAIN();
