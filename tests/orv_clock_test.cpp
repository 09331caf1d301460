#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#include <regex>

#include "gtest/gtest.h"
#include "orv/orv.h"

namespace {

TEST(Clock, CurrentTimeIsWallClockMicroseconds) {
  struct timeval before, after;
  gettimeofday(&before, nullptr);
  int64_t now = orv::get_current_time();
  gettimeofday(&after, nullptr);
  int64_t lo = static_cast<int64_t>(before.tv_sec) * 1000000 + before.tv_usec;
  int64_t hi = static_cast<int64_t>(after.tv_sec) * 1000000 + after.tv_usec;
  EXPECT_GE(now, lo);
  EXPECT_LE(now, hi);
  // 64-bit everywhere: past 2038 in seconds would not fit 32 bits of microseconds.
  EXPECT_GT(now, int64_t{1700000000} * 1000000);
}

TEST(Clock, TextFormsUseLocalTimeWithoutAndWithPadding) {
  // Run the comparison at a stable second so that date and time agree.
  // gettimeofday, not time(): the latter may lag it by a tick.
  std::string date, stamp;
  time_t seconds;
  struct timeval tv;
  do {
    gettimeofday(&tv, nullptr);
    seconds = tv.tv_sec;
    date = orv::get_gmt_date();
    stamp = orv::get_gmt_time();
    gettimeofday(&tv, nullptr);
  } while (tv.tv_sec != seconds);
  struct tm local;
  localtime_r(&seconds, &local);

  char expected_date[64];
  snprintf(expected_date, sizeof(expected_date), "%d-%d-%d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday);
  EXPECT_EQ(date, expected_date);

  ASSERT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})")))
      << stamp;
  char expected_prefix[64];
  snprintf(expected_prefix, sizeof(expected_prefix), "%d-%02d-%02d %02d:%02d:%02d.",
           local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
           local.tm_sec);
  EXPECT_EQ(stamp.substr(0, stamp.size() - 3), expected_prefix);
}

TEST(Clock, CompareDatesIsCoarseOnPurpose) {
  EXPECT_EQ(orv::compare_dates("2024-1-31", "2024-2-1"), 0);
  EXPECT_EQ(orv::compare_dates("2024-3-1", "2024-2-28"), 3);
  EXPECT_EQ(orv::compare_dates("2025-1-1", "2024-1-1"), 365);
  EXPECT_EQ(orv::compare_dates("2024-3-7", "2024-3-7"), 0);
  EXPECT_EQ(orv::compare_dates("2024-03-07", "2024-3-7"), 0);
  EXPECT_EQ(orv::compare_dates("2024-2-1", "2024-3-1"), -30);
}

}  // namespace
