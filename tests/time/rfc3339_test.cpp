#include "time/rfc3339.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>

#include "tests/time/tz_guard.h"
#include "time/rfc3339_internal.h"

using timetest::TzGuard;

namespace {

tm Fields(int year, int mon, int mday, int hour, int min, int sec) {
  tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = mon - 1;
  t.tm_mday = mday;
  t.tm_hour = hour;
  t.tm_min = min;
  t.tm_sec = sec;
  t.tm_isdst = -1;
  return t;
}

}  // namespace

// ---- TMToRFC3339 --------------------------------------------------------

TEST(TMToRFC3339, FormatsFieldsAsTheyStand) {
  TzGuard tz(timetest::kEast8);
  tm t = Fields(2024, 1, 1, 12, 0, 0);
  tm before = t;
  EXPECT_EQ(TMToRFC3339(&t), "2024-01-01T12:00:00.000Z");
  EXPECT_EQ(std::memcmp(&t, &before, sizeof t), 0);
}

TEST(TMToRFC3339, ZeroPadsEveryField) {
  tm t = Fields(5, 2, 3, 4, 5, 6);
  EXPECT_EQ(TMToRFC3339(&t), "0005-02-03T04:05:06.000Z");
}

TEST(TMToRFC3339, ResultIs24CharactersForFourDigitYears) {
  tm t = Fields(9999, 12, 31, 23, 59, 60);
  std::string s = TMToRFC3339(&t);
  EXPECT_EQ(s, "9999-12-31T23:59:60.000Z");
  EXPECT_EQ(s.size(), 24u);
}

TEST(TMToRFC3339, NoZoneConversionEvenOutsideUtc) {
  TzGuard tz(timetest::kNewYork);
  tm t = Fields(2024, 7, 1, 0, 30, 15);
  EXPECT_EQ(TMToRFC3339(&t), "2024-07-01T00:30:15.000Z");
}

TEST(TMToRFC3339, YearsPastFourDigitsAndNegativeYearsStayBounded) {
  tm t = Fields(12345, 1, 2, 3, 4, 5);
  EXPECT_EQ(TMToRFC3339(&t), "12345-01-02T03:04:05.000Z");
  t.tm_year = -1900 - 5;  // year -5
  EXPECT_EQ(TMToRFC3339(&t), "-005-01-02T03:04:05.000Z");
}

TEST(TMToRFC3339, ExtremeFieldsTruncateInsteadOfOverrunning) {
  tm t{};
  t.tm_year = INT_MAX;
  t.tm_mon = INT_MAX;
  t.tm_mday = INT_MIN;
  t.tm_hour = INT_MIN;
  t.tm_min = INT_MIN;
  t.tm_sec = INT_MIN;
  std::string s = TMToRFC3339(&t);
  EXPECT_EQ(s.size(), 31u);  // 32-byte buffer, terminator kept
  EXPECT_EQ(s.rfind("2147485547-2147483648-", 0), 0u) << s;
}

// ---- RFC3339ToTM --------------------------------------------------------

TEST(RFC3339ToTM, UtcReadsTheFieldsAsUtc) {
  TzGuard tz(timetest::kUtc);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704110400);
}

TEST(RFC3339ToTM, East8ReadsTheFieldsAsLocalTime) {
  TzGuard tz(timetest::kEast8);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704081600);
  EXPECT_EQ(1704110400 - RFC3339ToTM("2024-01-01T12:00:00.000Z"), 28800);
}

TEST(RFC3339ToTM, SummerFieldsAreReadAsStandardTime) {
  TzGuard tz(timetest::kParis);
  // 12:00 read as +01:00 even though July is +02:00.
  EXPECT_EQ(RFC3339ToTM("2024-07-01T12:00:00.000Z"), 1719831600);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704106800);
}

TEST(RFC3339ToTM, WestOfUtcReadsStandardTime) {
  TzGuard tz(timetest::kNewYork);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704110400 + 5 * 3600);
  EXPECT_EQ(RFC3339ToTM("2024-07-01T12:00:00.000Z"), 1719835200 + 5 * 3600);
}

TEST(RFC3339ToTM, IgnoresEverythingAfterTheSeconds) {
  TzGuard tz(timetest::kEast8);
  time_t plain = RFC3339ToTM("2024-01-01T12:00:00");
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00+05:00"), plain);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.999Z"), plain);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00-11:30 trailing"), plain);
}

TEST(RFC3339ToTM, RoundTripsWithTMToRFC3339OfLocaltime) {
  for (char const* zone : {timetest::kUtc, timetest::kEast8, timetest::kNewYork}) {
    TzGuard tz(zone);
    time_t t = 1704110400;
    tm local{};
    localtime_r(&t, &local);
    std::string text = TMToRFC3339(&local);
    EXPECT_EQ(RFC3339ToTM(text.c_str()), t) << zone << " " << text;
  }
}

TEST(RFC3339ToTM, PartialMatchLeavesTheRestZero) {
  TzGuard tz(timetest::kUtc);
  EXPECT_EQ(RFC3339ToTM("2024-01-02"), 1704153600);  // midnight
}

TEST(RFC3339ToTM, NoMatchGivesMktimeOfYearMinus1900) {
  TzGuard tz(timetest::kUtc);
  tm expected{};
  expected.tm_year = -1900;
  expected.tm_mon = -1;
  expected.tm_mday = 0;
  EXPECT_EQ(RFC3339ToTM("garbage"), mktime(&expected));
  EXPECT_EQ(RFC3339ToTM(""), mktime(&expected));
}
