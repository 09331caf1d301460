// Data-path costs: a ring PCMQueue queue+dequeue of one 100 ms frame of
// 16 kHz 16-bit mono audio (3200 bytes) against the floor of copying the same
// bytes in and out with memcpy; boyer_moore against glibc memmem; our MD5
// against OpenSSL's.
#include <openssl/evp.h>
#include <string.h>

#include <random>
#include <vector>

#include "benchmark/benchmark.h"
#include "orv/orv.h"

namespace {

const int kFrame = 3200;

std::vector<unsigned char> random_bytes(size_t n, unsigned seed, int alphabet = 256) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(rng() % static_cast<unsigned>(alphabet));
  return v;
}

void BM_PCMQueueRingQueueDequeue(benchmark::State& state) {
  // One second of audio: frames wrap around the ring's end regularly.
  orv::Memory::orv_shared_ptr<orv::PCMQueue> q = orv::PCMQueue::newQueue(32000);
  std::vector<unsigned char> in = random_bytes(kFrame, 1), out(kFrame);
  // Keep the queue half full so copies cross the wrap point.
  for (int i = 0; i < 5; ++i) q->queueAudio(in.data(), kFrame);
  for (auto _ : state) {
    q->queueAudio(in.data(), kFrame);
    q->dequeSamples(out.data(), kFrame, false);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kFrame);
}
BENCHMARK(BM_PCMQueueRingQueueDequeue);

// The physical floor: the same bytes copied in and out of a buffer.
void BM_MemcpyFloor(benchmark::State& state) {
  std::vector<unsigned char> in = random_bytes(kFrame, 1), out(kFrame), ring(32000);
  size_t at = 0;
  for (auto _ : state) {
    memcpy(ring.data() + at, in.data(), kFrame);
    memcpy(out.data(), ring.data() + at, kFrame);
    at = (at + kFrame) % (32000 - kFrame);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kFrame);
}
BENCHMARK(BM_MemcpyFloor);

// The same copies with the queue's footprint: written at the ring's write
// position and read five frames behind it, so 16 KB of audio sit between the
// two copies as in the half-full queue above.
void BM_MemcpyRingFloor(benchmark::State& state) {
  std::vector<unsigned char> in = random_bytes(kFrame, 1), out(kFrame), ring(32000);
  size_t write_at = 5 * kFrame, read_at = 0;
  for (auto _ : state) {
    memcpy(ring.data() + write_at, in.data(), kFrame);
    memcpy(out.data(), ring.data() + read_at, kFrame);
    write_at = (write_at + kFrame) % 32000;
    read_at = (read_at + kFrame) % 32000;
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kFrame);
}
BENCHMARK(BM_MemcpyRingFloor);

// Search a 64 KiB text for a pattern placed at its end; arg 0: pattern length,
// arg 1: alphabet size (4 = DNA-like, 256 = binary).
struct SearchCase {
  std::vector<unsigned char> text, pattern;
  SearchCase(size_t pattern_len, int alphabet) {
    text = random_bytes(65536, 2, alphabet);
    pattern = random_bytes(pattern_len, 3, alphabet);
    memcpy(text.data() + text.size() - pattern_len, pattern.data(), pattern_len);
  }
};

void BM_BoyerMoore(benchmark::State& state) {
  SearchCase c(static_cast<size_t>(state.range(0)), static_cast<int>(state.range(1)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(orv::boyer_moore(c.text.data(), static_cast<unsigned>(c.text.size()),
                                              c.pattern.data(), static_cast<unsigned>(c.pattern.size())));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(c.text.size()));
}
BENCHMARK(BM_BoyerMoore)->Args({8, 256})->Args({64, 256})->Args({8, 4})->Args({64, 4});

void BM_Memmem(benchmark::State& state) {
  SearchCase c(static_cast<size_t>(state.range(0)), static_cast<int>(state.range(1)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(memmem(c.text.data(), c.text.size(), c.pattern.data(), c.pattern.size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(c.text.size()));
}
BENCHMARK(BM_Memmem)->Args({8, 256})->Args({64, 256})->Args({8, 4})->Args({64, 4});

void BM_Md5Orv(benchmark::State& state) {
  std::vector<unsigned char> data = random_bytes(static_cast<size_t>(state.range(0)), 4);
  unsigned char digest[16];
  for (auto _ : state) {
    orv::md5_state_s s;
    orv::md5_init(&s);
    orv::md5_append(&s, data.data(), static_cast<int>(data.size()));
    orv::md5_finish(&s, digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Md5Orv)->Arg(36)->Arg(65536);

void BM_Md5OpenSsl(benchmark::State& state) {
  std::vector<unsigned char> data = random_bytes(static_cast<size_t>(state.range(0)), 4);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  for (auto _ : state) {
    EVP_Digest(data.data(), data.size(), digest, &len, EVP_md5(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Md5OpenSsl)->Arg(36)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();
