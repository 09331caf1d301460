// Timer lateness: how long after its due time a one-shot timer's work starts,
// median and 99th percentile (counters, in milliseconds), for delays of 10 to
// 400 ms, with one timer pending at a time and with 1000 pending at once
// (delays spread over 10..400 ms, created in shuffled order). Ours against
// Boost.Asio steady_timer on an io_context thread and POCO (Poco::Timer, one
// thread per timer, for the single case; Poco::Util::Timer, one thread for
// all, for the 1000). Our timer thread sleeps at most 500 ms and does not
// wake for a new, earlier timer: that is its designed resolution, and it
// shows in the 1000-pending figures.
//
// Each benchmark runs once (Iterations(1)); its wall time is the run time.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#if ORV_BENCH_HAVE_ASIO
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#endif
#if ORV_BENCH_HAVE_POCO
#include <Poco/Clock.h>
#include <Poco/Timer.h>
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTask.h>
#endif

#include "benchmark/benchmark.h"
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Threads::ASRDispatchTaskBase;
using orv::Threads::Timer;

int64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Shot {
  int64_t due = 0;
  std::atomic<int64_t> fired{0};
  void fire() { fired.store(now_ns(), std::memory_order_release); }
};

void wait_all(std::vector<Shot>& shots, int64_t limit_ns) {
  int64_t until = now_ns() + limit_ns;
  for (Shot& s : shots) {
    while (s.fired.load(std::memory_order_acquire) == 0 && now_ns() < until) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
}

void report(benchmark::State& state, std::vector<Shot>& shots) {
  std::vector<int64_t> late;
  int missing = 0;
  for (Shot& s : shots) {
    int64_t f = s.fired.load(std::memory_order_acquire);
    if (f == 0) {
      ++missing;
      continue;
    }
    late.push_back(f - s.due);
  }
  if (missing != 0 || late.empty()) {
    state.SkipWithError("a timer did not fire");
    return;
  }
  std::sort(late.begin(), late.end());
  state.counters["median_ms"] = late[late.size() / 2] / 1e6;
  state.counters["p99_ms"] = late[std::min(late.size() - 1, late.size() * 99 / 100)] / 1e6;
}

const int kSingleSamples = 25;
const int kMany = 1000;

// Delays for the 1000-pending case, in creation order.
std::vector<int> many_delays() {
  std::vector<int> d(kMany);
  for (int i = 0; i < kMany; ++i) d[i] = 10 + 390 * i / (kMany - 1);
  std::mt19937 rng(7);
  std::shuffle(d.begin(), d.end(), rng);
  return d;
}

// ---- ours ----

class ShotTask : public ASRDispatchTaskBase {
 public:
  explicit ShotTask(Shot* s) : shot_(s) {}
  void execute() override { shot_->fire(); }

 private:
  Shot* shot_;
};

void orv_arm(Shot& s, int ms) {
  s.due = now_ns() + static_cast<int64_t>(ms) * 1000000;
  Timer::createTimerWithTask(orv_shared_ptr<ASRDispatchTaskBase>(new ShotTask(&s)), ms, false);
}

void BM_OrvTimerSingle(benchmark::State& state) {
  int ms = static_cast<int>(state.range(0));
  std::vector<Shot> shots(kSingleSamples);
  for (auto _ : state) {
    for (Shot& s : shots) {
      orv_arm(s, ms);
      while (s.fired.load(std::memory_order_acquire) == 0 && now_ns() < s.due + 2000000000) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    }
  }
  report(state, shots);
}

void BM_OrvTimerMany(benchmark::State& state) {
  std::vector<Shot> shots(kMany);
  std::vector<int> delays = many_delays();
  for (auto _ : state) {
    for (int i = 0; i < kMany; ++i) orv_arm(shots[i], delays[i]);
    wait_all(shots, 3000000000LL);
  }
  report(state, shots);
}

// ---- Boost.Asio ----
#if ORV_BENCH_HAVE_ASIO

struct AsioTimers {
  boost::asio::io_context io;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{io.get_executor()};
  std::thread thread{[this] { io.run(); }};
  std::vector<std::unique_ptr<boost::asio::steady_timer> > timers;
  void arm(Shot& s, int ms) {
    s.due = now_ns() + static_cast<int64_t>(ms) * 1000000;
    // Timers are made and started on the io thread, as an application would.
    boost::asio::post(io, [this, &s, ms] {
      timers.emplace_back(new boost::asio::steady_timer(io, std::chrono::milliseconds(ms)));
      timers.back()->async_wait([&s](const boost::system::error_code&) { s.fire(); });
    });
  }
  ~AsioTimers() {
    guard.reset();
    io.stop();
    thread.join();
  }
};

void BM_AsioTimerSingle(benchmark::State& state) {
  int ms = static_cast<int>(state.range(0));
  std::vector<Shot> shots(kSingleSamples);
  AsioTimers t;
  for (auto _ : state) {
    for (Shot& s : shots) {
      t.arm(s, ms);
      while (s.fired.load(std::memory_order_acquire) == 0 && now_ns() < s.due + 2000000000) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    }
  }
  report(state, shots);
}

void BM_AsioTimerMany(benchmark::State& state) {
  std::vector<Shot> shots(kMany);
  std::vector<int> delays = many_delays();
  AsioTimers t;
  for (auto _ : state) {
    for (int i = 0; i < kMany; ++i) t.arm(shots[i], delays[i]);
    wait_all(shots, 3000000000LL);
  }
  report(state, shots);
}
#endif

// ---- POCO ----
#if ORV_BENCH_HAVE_POCO

struct PocoShot {
  Shot* shot;
  void onTimer(Poco::Timer&) { shot->fire(); }
};

void BM_PocoTimerSingle(benchmark::State& state) {
  int ms = static_cast<int>(state.range(0));
  std::vector<Shot> shots(kSingleSamples);
  for (auto _ : state) {
    for (Shot& s : shots) {
      PocoShot target{&s};
      Poco::Timer timer(ms, 0);
      s.due = now_ns() + static_cast<int64_t>(ms) * 1000000;
      timer.start(Poco::TimerCallback<PocoShot>(target, &PocoShot::onTimer));
      while (s.fired.load(std::memory_order_acquire) == 0 && now_ns() < s.due + 2000000000) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      timer.stop();
    }
  }
  report(state, shots);
}

class PocoShotTask : public Poco::Util::TimerTask {
 public:
  explicit PocoShotTask(Shot* s) : shot_(s) {}
  void run() override { shot_->fire(); }

 private:
  Shot* shot_;
};

void BM_PocoUtilTimerMany(benchmark::State& state) {
  std::vector<Shot> shots(kMany);
  std::vector<int> delays = many_delays();
  Poco::Util::Timer timer;
  for (auto _ : state) {
    for (int i = 0; i < kMany; ++i) {
      Poco::Clock at;
      at += static_cast<Poco::Clock::ClockDiff>(delays[i]) * 1000;
      shots[i].due = now_ns() + static_cast<int64_t>(delays[i]) * 1000000;
      timer.schedule(Poco::Util::TimerTask::Ptr(new PocoShotTask(&shots[i])), at);
    }
    wait_all(shots, 3000000000LL);
  }
  report(state, shots);
  timer.cancel(true);
}
#endif

#define ORV_TIMER_SINGLE(fn) \
  BENCHMARK(fn)->Arg(10)->Arg(100)->Arg(400)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond)
#define ORV_TIMER_MANY(fn) BENCHMARK(fn)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond)

ORV_TIMER_SINGLE(BM_OrvTimerSingle);
ORV_TIMER_MANY(BM_OrvTimerMany);
#if ORV_BENCH_HAVE_ASIO
ORV_TIMER_SINGLE(BM_AsioTimerSingle);
ORV_TIMER_MANY(BM_AsioTimerMany);
#endif
#if ORV_BENCH_HAVE_POCO
ORV_TIMER_SINGLE(BM_PocoTimerSingle);
ORV_TIMER_MANY(BM_PocoUtilTimerMany);
#endif

}  // namespace

BENCHMARK_MAIN();
