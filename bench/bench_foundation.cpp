// Ownership and logging costs: orv_shared_ptr copy+release against
// std::shared_ptr and against the floor of a mutex-counted design (one bare
// pthread mutex lock/unlock pair), on one and two threads; the cost of a log
// call below the current level.
#include <pthread.h>

#include <memory>

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

}  // namespace

BENCHMARK_MAIN();
