#include "core/utility/orv_log.h"

#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>

#include "core/utility/orv_rotating_file_internal.h"

namespace orv {

std::atomic<int> s_log_level{0};

std::atomic<FILE*> LogFile::_s_log_file{nullptr};
std::string LogFile::_s_log_file_name;
uint32_t LogFile::_s_log_file_size = 0;
Threads::Synchronization::AppMutex LogFile::_s_log_file_mutex(false);

void set_log_level(int level) { s_log_level.store(level, std::memory_order_relaxed); }

int get_current_log_level() { return s_log_level.load(std::memory_order_relaxed); }

bool can_log(int level) { return s_log_level.load(std::memory_order_relaxed) >= level; }

const char* get_file_name(const char* path) {
  if (path == nullptr) return "";
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

int get_file_size(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return -1;
  return static_cast<int>(st.st_size);
}

void log_printf(const char* format, ...) {
  char line[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  LogFile::log(line);
}

static detail::RotatingFile log_file() {
  return {LogFile::_s_log_file, LogFile::_s_log_file_name, LogFile::_s_log_file_size,
          LogFile::_s_log_file_mutex};
}

static void write_to_stderr(const char* line) {
  fputs(line, stderr);
  fflush(stderr);
}

void LogFile::open_log_file(const char* path, int size_limit) {
  detail::open_file(log_file(), path, size_limit);
}

void LogFile::close_log_file() { detail::close_file(log_file()); }

void LogFile::log(const char* line) {
  if (line == nullptr) return;
  if (_s_log_file.load(std::memory_order_relaxed) == nullptr) {
    write_to_stderr(line);
    return;
  }
  // Closed meanwhile: the line is dropped. Lost by a failed rotation: it
  // goes to standard error like every line after it.
  if (detail::write_line(log_file(), line) == detail::WRITE_REOPEN_FAILED) {
    write_to_stderr(line);
  }
}

}  // namespace orv
