// Calendar arithmetic for expected values, independent of the code under test.
#pragma once

#include <cstdint>

namespace timetest {

// Days from 1970-01-01 to y-m-d of the proleptic Gregorian calendar.
constexpr int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  int64_t const era = (y >= 0 ? y : y - 399) / 400;
  int64_t const yoe = y - era * 400;
  int64_t const doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  int64_t const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// Seconds since the epoch of a UTC wall-clock time.
constexpr int64_t Utc(int64_t y, int m, int d, int hh = 0, int mm = 0, int ss = 0) {
  return DaysFromCivil(y, m, d) * 86400 + hh * 3600 + mm * 60 + ss;
}

static_assert(Utc(1970, 1, 1) == 0);
static_assert(Utc(2024, 1, 1, 12) == 1704110400);
static_assert(Utc(2023, 1, 15, 10, 20, 30) == 1673778030);

}  // namespace timetest
