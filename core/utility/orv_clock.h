/// @file
/// The library's one clock and its text time stamps.
///
/// get_current_time() is the wall clock in microseconds (gettimeofday), the time
/// base of the thread pool and the timers; it follows changes of the system
/// clock. The text forms use the local time. No state, no locks: safe on any
/// thread.
#ifndef ORV_CORE_UTILITY_ORV_CLOCK_H
#define ORV_CORE_UTILITY_ORV_CLOCK_H

#include <stdint.h>

#include <string>

#include "core/orv_api.h"

namespace orv {

/// Microseconds since the epoch: tv_sec * 1000000 + tv_usec.
ORV_API int64_t get_current_time();

/// Local date as "%d-%d-%d" (year, month 1-12, day; no padding), e.g. "2024-3-7".
ORV_API std::string get_gmt_date();

/// Local time as "%d-%02d-%02d %02d:%02d:%02d.%03d", milliseconds truncated.
/// This is the time stamp of every log line.
ORV_API std::string get_gmt_time();

/// Coarse day difference a - b of two "%d-%d-%d" dates, counting 365-day years
/// and 30-day months on purpose. Fields that do not parse count as 0.
ORV_API int compare_dates(const std::string& a, const std::string& b);

}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_CLOCK_H
