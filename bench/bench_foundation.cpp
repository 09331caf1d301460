// Ownership and logging costs: orv_shared_ptr copy+release against
// std::shared_ptr and against the floor of a mutex-counted design (one bare
// pthread mutex lock/unlock pair), on one and two threads; the cost of a log
// call below the current level; lines written to a log file per second
// against spdlog's basic file sink flushing every line (the same durability:
// each line reaches the kernel before the call returns).
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#if ORV_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include "benchmark/benchmark.h"
#include "orv/orv.h"

namespace {

orv::Memory::orv_shared_ptr<int> g_orv(new int(1));
std::shared_ptr<int> g_std = std::make_shared<int>(1);
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
unsigned g_counter = 0;

void BM_OrvSharedPtrCopyRelease(benchmark::State& state) {
  for (auto _ : state) {
    orv::Memory::orv_shared_ptr<int> copy(g_orv);
    benchmark::DoNotOptimize(copy.getPTR());
  }
}
BENCHMARK(BM_OrvSharedPtrCopyRelease)->Threads(1)->Threads(2)->UseRealTime();

void BM_StdSharedPtrCopyRelease(benchmark::State& state) {
  for (auto _ : state) {
    std::shared_ptr<int> copy(g_std);
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BM_StdSharedPtrCopyRelease)->Threads(1)->Threads(2)->UseRealTime();

// A copy and a release take the mutex twice: this is the floor.
void BM_MutexFloorTwoLockPairs(benchmark::State& state) {
  for (auto _ : state) {
    pthread_mutex_lock(&g_mutex);
    ++g_counter;
    pthread_mutex_unlock(&g_mutex);
    pthread_mutex_lock(&g_mutex);
    --g_counter;
    pthread_mutex_unlock(&g_mutex);
  }
}
BENCHMARK(BM_MutexFloorTwoLockPairs)->Threads(1)->Threads(2)->UseRealTime();

void BM_SuppressedLogCall(benchmark::State& state) {
  orv::set_log_level(orv::LOG_ERROR);
  for (auto _ : state) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:1]suppressed %d\n", 42);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_SuppressedLogCall);

std::string log_path(const char* name) {
  const char* dir = getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/orv-bench-" + name + "-" +
         std::to_string(getpid()) + ".log";
}

void BM_LogLineToFile(benchmark::State& state) {
  std::string path = log_path("orv");
  orv::LogFile::open_log_file(path.c_str(), 0);
  orv::set_log_level(orv::LOG_DEBUG);
  int i = 0;
  for (auto _ : state) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:1]benchmark line %d with a short payload\n", ++i);
  }
  orv::set_log_level(0);
  orv::LogFile::close_log_file();
  unlink(path.c_str());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogLineToFile);

#if ORV_BENCH_HAVE_SPDLOG
void BM_SpdlogSuppressedCall(benchmark::State& state) {
  std::string path = log_path("spdlog-off");
  auto logger = spdlog::basic_logger_mt("bench-off", path, true);
  logger->set_level(spdlog::level::err);
  for (auto _ : state) {
    logger->debug("suppressed {}", 42);
    benchmark::ClobberMemory();
  }
  spdlog::drop("bench-off");
  unlink(path.c_str());
}
BENCHMARK(BM_SpdlogSuppressedCall);

void BM_SpdlogLineToFile(benchmark::State& state) {
  std::string path = log_path("spdlog");
  auto logger = spdlog::basic_logger_mt("bench", path, true);
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  int i = 0;
  for (auto _ : state) {
    logger->debug("benchmark line {} with a short payload", ++i);
  }
  spdlog::drop("bench");
  unlink(path.c_str());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogLineToFile);
#endif

}  // namespace

BENCHMARK_MAIN();
