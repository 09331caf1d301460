// Shared by LogFile and TimeRecord: write one line into a size-limited file
// that is rotated to name + ".bak". Internal to the library; not installed.
#ifndef ORV_CORE_UTILITY_ORV_ROTATING_FILE_INTERNAL_H
#define ORV_CORE_UTILITY_ORV_ROTATING_FILE_INTERNAL_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <string>

#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace detail {

struct RotatingFile {
  std::atomic<FILE*>& file;
  std::string& name;
  uint32_t& limit;
  Threads::Synchronization::AppMutex& mutex;
};

enum WriteResult { WRITE_DONE, WRITE_CLOSED, WRITE_REOPEN_FAILED };

// Writes line under the file's mutex, rotating first when the file has
// reached the limit. WRITE_CLOSED: no file open (line not written);
// WRITE_REOPEN_FAILED: rotation could not reopen the file, which now counts as
// closed (line not written).
WriteResult write_line(RotatingFile f, const char* line);
void open_file(RotatingFile f, const char* path, int size_limit);
void close_file(RotatingFile f);

}  // namespace detail
}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_ROTATING_FILE_INTERNAL_H
