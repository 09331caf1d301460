// The wake-up-words reader on arbitrary file content, against a model of its
// rule: complement every byte, cut at the first NUL, keep the first line
// (ended by CR LF) and split it at every ",".
#include <unistd.h>

#include <vector>

#include "core/utility/orv_utility.h"
#include "fuzz/fuzz_support.h"

namespace {

std::string file_path() {
  const char* tmp = getenv("TMPDIR");
  return std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/orv_fuzz_wakeup_" +
         std::to_string(getpid()) + ".dat";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = file_path();
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  if (size > 0) FUZZ_CHECK(fwrite(data, 1, size, f) == size);
  fclose(f);

  // read_all_content stops at the first NUL of the stored bytes.
  std::string stored(reinterpret_cast<const char*>(data), size);
  stored = stored.substr(0, stored.find('\0'));
  std::string text;
  for (char c : stored) text += static_cast<char>(~static_cast<unsigned char>(c));
  text = text.substr(0, text.find('\0'));

  std::vector<std::string> expected{"before"};
  size_t eol = text.find("\r\n");
  if (eol != std::string::npos) {
    std::string line = text.substr(0, eol);
    size_t from = 0;
    for (;;) {
      size_t comma = line.find(',', from);
      expected.push_back(line.substr(from, comma - from));
      if (comma == std::string::npos) break;
      from = comma + 1;
    }
  }

  std::vector<std::string> words{"before"};
  orv::decode_wakeup_words(path, words);
  FUZZ_CHECK(words == expected);
  unlink(path.c_str());
  return 0;
}
