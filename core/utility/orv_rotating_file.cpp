#include <stdio.h>
#include <string.h>

#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/orv_log.h"
#include "core/utility/orv_rotating_file_internal.h"

namespace orv {
namespace detail {

using Threads::Synchronization::AppLock;

WriteResult write_line(RotatingFile f, const char* line) {
  AppLock lock(&f.mutex);
  FILE* handle = f.file.load(std::memory_order_relaxed);
  if (handle == nullptr) return WRITE_CLOSED;

  // A file that cannot be measured gives -1, which as unsigned is above any
  // threshold: the file is then recreated.
  uint32_t size = static_cast<uint32_t>(get_file_size(f.name.c_str()));
  if (f.limit != 0 && size >= f.limit) {
    fclose(handle);
    std::string backup = f.name + ".bak";
    rename(f.name.c_str(), backup.c_str());
    handle = fopen(f.name.c_str(), "a+");
    f.file.store(handle, std::memory_order_relaxed);
    if (handle == nullptr) {
      f.name.clear();
      return WRITE_REOPEN_FAILED;
    }
  }
  fwrite(line, 1, strlen(line), handle);
  fflush(handle);
  return WRITE_DONE;
}

void open_file(RotatingFile f, const char* path, int size_limit) {
  AppLock lock(&f.mutex);
  if (f.file.load(std::memory_order_relaxed) != nullptr) return;
  f.name = path != nullptr ? path : "";
  f.limit = static_cast<uint32_t>(size_limit) << 19;
  f.file.store(path != nullptr ? fopen(path, "a+") : nullptr, std::memory_order_relaxed);
}

void close_file(RotatingFile f) {
  AppLock lock(&f.mutex);
  FILE* handle = f.file.load(std::memory_order_relaxed);
  if (handle == nullptr) return;
  fclose(handle);
  f.file.store(nullptr, std::memory_order_relaxed);
  f.name.clear();
}

}  // namespace detail
}  // namespace orv
