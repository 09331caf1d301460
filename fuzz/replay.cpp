// Runs a fuzz driver without libFuzzer, as a unit test of every build: each
// seed of its corpus, then a fixed number of seeded variations of them (bytes
// changed, inserted or removed, seeds spliced), so the driver's model checks
// run in every preset. A failed check aborts, which fails the test.
//   <driver>_replay CORPUS_DIR VARIATIONS
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  if (argc != 3) return fprintf(stderr, "usage: %s CORPUS_DIR VARIATIONS\n", argv[0]), 2;
  std::vector<std::string> names, seeds;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) names.push_back(entry.path());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names)  // (the stream lives to the end of the statement)
    seeds.emplace_back(std::istreambuf_iterator<char>(std::ifstream(name, std::ios::binary).rdbuf()),
                       std::istreambuf_iterator<char>());
  if (seeds.empty()) return fprintf(stderr, "no seeds in %s\n", argv[1]), 2;
  std::mt19937 rng(20261125);
  const long variations = atol(argv[2]);
  for (long i = -static_cast<long>(seeds.size()); i < variations; ++i) {
    std::string s = seeds[i < 0 ? seeds.size() + i : rng() % seeds.size()];
    for (int edits = i < 0 ? 0 : 1 + rng() % 4; edits > 0; --edits) {
      const size_t at = s.empty() ? 0 : rng() % s.size();
      const std::string& other = seeds[rng() % seeds.size()];
      switch (rng() % 4) {
        case 0: if (!s.empty()) s[at] = static_cast<char>(rng()); break;
        case 1: s.insert(at, 1, static_cast<char>(rng())); break;
        case 2: s.erase(at, rng() % 8); break;
        default: s = s.substr(0, at) + other.substr(rng() % (other.size() + 1));
      }
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(s.data()), s.size());
  }
  printf("%zu seeds and %ld variations passed\n", seeds.size(), variations);
  return 0;
}
