/// @file
/// Process-wide logging: one level, one line format, one optional log file.
///
/// A line is emitted when its level is not above the current level; the level
/// starts at 0, which suppresses everything (FATAL included) until the
/// application calls set_log_level. Every call site builds its own line with
/// the ORV_LOG_* macros, whose format strings carry the whole prefix:
///
///   ORV_LOG_WARN("[WARN]-[%s][%s:86]Default thread stack is too small, ...\n");
///
/// The macro supplies the time stamp (get_gmt_time) and the base name of the
/// source file as the first two arguments. A suppressed call costs one load and
/// one comparison. Lines longer than 2047 characters are cut.
///
/// Lines go to standard error, or to the log file while one is open. The log
/// file is rotated when a line is written and the file has reached
/// size_limit x 512 KiB: it is renamed to its name + ".bak" (one generation) and
/// reopened, so the line that triggers rotation opens the new file. If that
/// reopening fails, the log file counts as closed from then on: the line and
/// the ones after it go to standard error, and open_log_file may be called
/// again.
///
/// Thread safety: every function may be called from any thread. The level is a
/// relaxed atomic; file writes, rotation, opening and closing are serialised by
/// the file's own mutex, so lines never interleave.
#ifndef ORV_CORE_UTILITY_ORV_LOG_H
#define ORV_CORE_UTILITY_ORV_LOG_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <string>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/orv_clock.h"

namespace orv {

const int LOG_FATAL = 1;
const int LOG_ERROR = 2;
const int LOG_WARN = 3;
const int LOG_DEBUG = 5;
const int LOG_TRACE = 6;

/// The current level. Read directly by the macros so a suppressed call stays
/// one comparison; use set_log_level to change it.
extern ORV_API std::atomic<int> s_log_level;

ORV_API void set_log_level(int level);
ORV_API int get_current_log_level();
/// True when the current level is >= level (signed comparison).
ORV_API bool can_log(int level);

/// The part of path after its last '/'; path itself without '/'; "" for null.
ORV_API const char* get_file_name(const char* path);
/// Size from stat(), or -1 when stat fails.
ORV_API int get_file_size(const char* path);

/// Formats one line into a 2048-byte buffer and hands it to LogFile::log.
/// Used by the ORV_LOG_* macros after the level test.
ORV_API void log_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

class ORV_API LogFile {
 public:
  /// Starts logging into path; size_limit in units of 512 KiB, 0 = never
  /// rotate. Does nothing while a log file is open. A file that cannot be
  /// opened leaves logging on standard error.
  static void open_log_file(const char* path, int size_limit);
  /// Closes the file and forgets its name; the threshold is kept.
  static void close_log_file();
  /// Writes one finished line to the log file, or to standard error.
  static void log(const char* line);

  static std::atomic<FILE*> _s_log_file;
  static std::string _s_log_file_name;
  static uint32_t _s_log_file_size;
  static Threads::Synchronization::AppMutex _s_log_file_mutex;
};

}  // namespace orv

#define ORV_CAN_LOG(level) (::orv::s_log_level.load(std::memory_order_relaxed) >= (level))

#define ORV_LOG(level, format, ...)                                                  \
  do {                                                                               \
    if (ORV_CAN_LOG(level)) {                                                        \
      ::orv::log_printf(format, ::orv::get_gmt_time().c_str(),                       \
                        ::orv::get_file_name(__FILE__), ##__VA_ARGS__);              \
    }                                                                                \
  } while (0)

#define ORV_LOG_FATAL(format, ...) ORV_LOG(::orv::LOG_FATAL, format, ##__VA_ARGS__)
#define ORV_LOG_ERROR(format, ...) ORV_LOG(::orv::LOG_ERROR, format, ##__VA_ARGS__)
#define ORV_LOG_WARN(format, ...) ORV_LOG(::orv::LOG_WARN, format, ##__VA_ARGS__)
#define ORV_LOG_DEBUG(format, ...) ORV_LOG(::orv::LOG_DEBUG, format, ##__VA_ARGS__)
#define ORV_LOG_TRACE(format, ...) ORV_LOG(::orv::LOG_TRACE, format, ##__VA_ARGS__)

#endif  // ORV_CORE_UTILITY_ORV_LOG_H
