#include "core/utility/orv_time_record.h"

#include "core/utility/orv_log.h"
#include "core/utility/orv_rotating_file_internal.h"

namespace orv {

std::atomic<FILE*> TimeRecord::_s_record_file{nullptr};
std::string TimeRecord::_s_record_file_name;
uint32_t TimeRecord::_s_record_file_size = 0;
Threads::Synchronization::AppMutex TimeRecord::_s_record_file_mutex(false);

static detail::RotatingFile record_file() {
  return {TimeRecord::_s_record_file, TimeRecord::_s_record_file_name,
          TimeRecord::_s_record_file_size, TimeRecord::_s_record_file_mutex};
}

void TimeRecord::open_time_record(const char* path, int size_limit) {
  detail::open_file(record_file(), path, size_limit);
}

void TimeRecord::close_time_record() { detail::close_file(record_file()); }

void TimeRecord::record(const char* line) {
  if (line == nullptr || _s_record_file.load(std::memory_order_relaxed) == nullptr) return;
  detail::write_line(record_file(), line);
}

int TimeRecord::get_file_size(const char* path) { return orv::get_file_size(path); }

}  // namespace orv
