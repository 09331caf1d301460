#include "core/utility/orv_clock.h"

#include <stdio.h>
#include <sys/time.h>
#include <time.h>

namespace orv {

int64_t get_current_time() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

std::string get_gmt_date() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  time_t seconds = tv.tv_sec;
  struct tm local;
  localtime_r(&seconds, &local);
  char text[64];
  snprintf(text, sizeof(text), "%d-%d-%d", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday);
  return text;
}

std::string get_gmt_time() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  time_t seconds = tv.tv_sec;
  struct tm local;
  localtime_r(&seconds, &local);
  char text[64];
  snprintf(text, sizeof(text), "%d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
  return text;
}

static int coarse_days(const std::string& date) {
  int year = 0, month = 0, day = 0;
  sscanf(date.c_str(), "%d-%d-%d", &year, &month, &day);
  return 365 * year + 30 * month + day;
}

int compare_dates(const std::string& a, const std::string& b) {
  return coarse_days(a) - coarse_days(b);
}

}  // namespace orv
