// Task dispatch: throughput and post-to-start latency (median and 99th
// percentile, as counters) of a run loop, the global thread pool, a serial
// and a concurrent dispatch queue and context message delivery, side by side
// with what a C++ developer would otherwise use: Boost.Asio (an io_context
// with a strand, a thread_pool) and POCO (Poco::ThreadPool, a
// Poco::NotificationQueue served by worker threads).
//
// With ORV_BENCH_SAMPLES_DIR set, every latency benchmark also writes its
// distribution there (<name>.cdf: latency in microseconds and the fraction of
// samples at or below it), for the plot in bench/RESULTS.md.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#if ORV_BENCH_HAVE_POCO
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>
#include <Poco/ThreadPool.h>
#endif
#if ORV_BENCH_HAVE_ASIO
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#endif

#include "benchmark/benchmark.h"
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Memory::orv_weak_ptr;
using orv::Memory::Singleton;
using orv::Threads::AppRunloop;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::DispatchQueue;
using orv::Threads::GlobalThreadPool;

// Worker threads of the peers: the machine's cores, as many as the pool
// keeps by default on a small device.
const int kWorkers = 2;

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
  void hit() {
    int64_t at = posted.load(std::memory_order_acquire);
    if (at != 0) latency.store(now_ns() - at, std::memory_order_release);
    done.fetch_add(1, std::memory_order_release);
  }
};

class ProbeTask : public ASRDispatchTaskBase {
 public:
  explicit ProbeTask(Probe* probe) : probe_(probe) {}
  void execute() override { probe_->hit(); }

 private:
  Probe* probe_;
};

void wait_for(Probe& probe, int count) {
  while (probe.done.load(std::memory_order_acquire) < count) std::this_thread::yield();
}

const int kBatch = 256;

// ---- ours ----

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

template <int kConcurrency>
struct QueueTarget {
  orv_shared_ptr<DispatchQueue> queue = DispatchQueue::alloc(kConcurrency);
  bool post(Probe* probe) { return queue->runTaskAsync(new ProbeTask(probe), nullptr); }
  ~QueueTarget() { queue->stopQueue_sync(); }
};
using SerialQueueTarget = QueueTarget<1>;
using ConcurrentQueueTarget = QueueTarget<kWorkers>;

// Context delivery: post from one event manager to another, measured at send.
class ProbeManager : public orv::EventManager {
 public:
  explicit ProbeManager(orv_weak_ptr<orv::Context>& context) : EventManager(context) {}
  void send(orv_shared_ptr<orv::Message>& message) override {
    static_cast<Probe*>(static_cast<void*>(message->m_data.getPTR()))->hit();
  }
};

struct MessageTarget {
  orv_shared_ptr<orv::Context> context = orv::Context::newContext();
  orv_shared_ptr<orv::EventManager> manager;
  orv_weak_ptr<orv::EventManager> to;
  MessageTarget() {
    orv_weak_ptr<orv::Context> weak(context);
    manager = orv_shared_ptr<orv::EventManager>(new ProbeManager(weak));
    manager->m_self = manager;
    to = manager;
  }
  bool post(Probe* probe) {
    orv_shared_ptr<orv::Message> m(new orv::Message());
    m->m_name = "probe";
    // The probe travels as the message's data, not owned.
    m->m_data = orv_shared_ptr<char>(static_cast<char*>(static_cast<void*>(probe)),
                                     &orv::Memory::orv_shared_ptr_base::emptyDestructor);
    manager->post(to, m, 0);
    return true;
  }
  ~MessageTarget() { context->release_instance(); }
};

// ---- Boost.Asio ----
#if ORV_BENCH_HAVE_ASIO

struct AsioStrandTarget {
  boost::asio::io_context io;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{io.get_executor()};
  boost::asio::strand<boost::asio::io_context::executor_type> strand{io.get_executor()};
  std::vector<std::thread> threads;
  AsioStrandTarget() {
    for (int i = 0; i < kWorkers; ++i) threads.emplace_back([this] { io.run(); });
  }
  bool post(Probe* probe) {
    boost::asio::post(strand, [probe] { probe->hit(); });
    return true;
  }
  ~AsioStrandTarget() {
    guard.reset();
    io.stop();
    for (auto& t : threads) t.join();
  }
};

struct AsioPoolTarget {
  boost::asio::thread_pool pool{kWorkers};
  bool post(Probe* probe) {
    boost::asio::post(pool, [probe] { probe->hit(); });
    return true;
  }
  ~AsioPoolTarget() { pool.join(); }
};

#endif  // ORV_BENCH_HAVE_ASIO

// ---- POCO ----
#if ORV_BENCH_HAVE_POCO

class ProbeRunnable : public Poco::Runnable {
 public:
  void run() override { probe->hit(); }
  Probe* probe = nullptr;
};

struct PocoPoolTarget {
  // Room for a whole batch: Poco::ThreadPool refuses a task when every
  // thread is busy and the capacity is reached.
  Poco::ThreadPool pool{kWorkers, kBatch + 16};
  std::vector<ProbeRunnable> runnables = std::vector<ProbeRunnable>(kBatch);
  size_t next = 0;
  bool post(Probe* probe) {
    // A runnable must outlive its run: reuse them round-robin (a batch is
    // drained before the next one starts).
    ProbeRunnable& r = runnables[next++ % runnables.size()];
    r.probe = probe;
    pool.start(r);
    return true;
  }
  ~PocoPoolTarget() { pool.joinAll(); }
};

class ProbeNotification : public Poco::Notification {
 public:
  explicit ProbeNotification(Probe* p) : probe(p) {}
  Probe* probe;
};

struct PocoQueueTarget {
  Poco::NotificationQueue queue;
  std::vector<std::thread> threads;
  PocoQueueTarget() {
    for (int i = 0; i < kWorkers; ++i) {
      threads.emplace_back([this] {
        for (;;) {
          Poco::AutoPtr<Poco::Notification> n(queue.waitDequeueNotification());
          Probe* probe = n.isNull() ? nullptr : static_cast<ProbeNotification*>(n.get())->probe;
          if (probe == nullptr) return;  // stop marker
          probe->hit();
        }
      });
    }
  }
  bool post(Probe* probe) {
    queue.enqueueNotification(new ProbeNotification(probe));
    return true;
  }
  ~PocoQueueTarget() {
    // One stop marker per worker: wakeUpAll would miss a worker that is
    // between two notifications.
    for (size_t i = 0; i < threads.size(); ++i) queue.enqueueNotification(new ProbeNotification(nullptr));
    for (auto& t : threads) t.join();
  }
};

#endif  // ORV_BENCH_HAVE_POCO

// ---- the measurements ----

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

void write_cdf(const std::string& name, const std::vector<int64_t>& sorted) {
  const char* dir = getenv("ORV_BENCH_SAMPLES_DIR");
  if (dir == nullptr || sorted.empty()) return;
  std::string path = std::string(dir) + "/" + name + ".cdf";
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) return;
  const size_t points = 400;
  for (size_t k = 0; k <= points; ++k) {
    size_t i = std::min(sorted.size() - 1, sorted.size() * k / points);
    fprintf(f, "%.3f %.5f\n", sorted[i] / 1000.0, static_cast<double>(i + 1) / sorted.size());
  }
  fclose(f);
}

// Latency: one task at a time, from the post call to the start of the task.
template <class Target>
void BM_Latency(benchmark::State& state, const char* name) {
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
  write_cdf(name, samples);
}

const int kLatencySamples = 20000;

template <class Target>
void register_target(const char* label) {
  benchmark::RegisterBenchmark((std::string("Throughput/") + label).c_str(), &BM_Throughput<Target>)
      ->UseRealTime();
  benchmark::RegisterBenchmark((std::string("Latency/") + label).c_str(), &BM_Latency<Target>, label)
      ->UseRealTime()
      ->Iterations(kLatencySamples);
}

int register_all() {
  register_target<LoopTarget>("AppRunloop");
  register_target<PoolTarget>("ThreadPool");
  register_target<SerialQueueTarget>("DispatchQueueSerial");
  register_target<ConcurrentQueueTarget>("DispatchQueueConcurrent");
  register_target<MessageTarget>("ContextMessage");
#if ORV_BENCH_HAVE_ASIO
  register_target<AsioStrandTarget>("AsioStrand");
  register_target<AsioPoolTarget>("AsioThreadPool");
#endif
#if ORV_BENCH_HAVE_POCO
  register_target<PocoPoolTarget>("PocoThreadPool");
  register_target<PocoQueueTarget>("PocoNotificationQueue");
#endif
  return 0;
}
const int registered = register_all();

}  // namespace

BENCHMARK_MAIN();
