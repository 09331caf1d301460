/// @file
/// TimeRecord: a second file sink, independent of the log, for ready-made
/// timing lines. Same rotation rule as the log file (size_limit x 512 KiB, one
/// ".bak" generation). While no record file is open, lines are dropped: they go
/// nowhere, not even to standard error; the same holds when reopening after a
/// rotation fails (the record file then counts as closed).
///
/// Thread safety: any thread may record; writes, rotation, opening and closing
/// are serialised by the record file's own mutex.
#ifndef ORV_CORE_UTILITY_ORV_TIME_RECORD_H
#define ORV_CORE_UTILITY_ORV_TIME_RECORD_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <string>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {

class ORV_API TimeRecord {
 public:
  static void open_time_record(const char* path, int size_limit);
  static void close_time_record();
  static void record(const char* line);
  /// Size from stat(), or -1: the same as orv::get_file_size.
  static int get_file_size(const char* path);

  static std::atomic<FILE*> _s_record_file;
  static std::string _s_record_file_name;
  static uint32_t _s_record_file_size;
  static Threads::Synchronization::AppMutex _s_record_file_mutex;
};

}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_TIME_RECORD_H
