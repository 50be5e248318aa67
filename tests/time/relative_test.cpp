// Relative dates against a frozen clock. CTest runs this binary under
// libfaketime once per instant, with a filter that selects the suite of that
// instant; every expected value below was worked out by hand from the rules.
//
//   FakeClockFri20240315: Friday    2024-03-15 10:30:00 UTC (1710498600)
//   FakeClockWed20240110: Wednesday 2024-01-10 08:00:00 UTC (1704873600)
//   FakeClockMon20240701: Monday    2024-07-01 06:00:00 UTC (1719813600)
//   FakeClockTue20231114: Tuesday   2023-11-14 22:13:20 UTC (1700000000)
#include <sys/time.h>

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/time_zone.h"
#include "tests/time/civil.h"
#include "time/approxidate.h"
#include "time/rfc3339.h"

using test_support::TzGuard;
using timetest::Utc;

namespace {

// Seconds of approxidate's UTC result, or nothing when it fails.
std::optional<int64_t> Approx(char const* text) {
  tm out{};
  out.tm_year = 4242;
  if (approxidate(text, &out) != 0) {
    EXPECT_EQ(out.tm_year, 4242) << "result written on failure: " << text;
    return std::nullopt;
  }
  return static_cast<int64_t>(timegm(&out));
}

std::optional<int64_t> Basic(char const* text) {
  timeval tv{};
  int offset = 0;
  if (parse_date_basic(text, &tv, &offset) != 0) return std::nullopt;
  return static_cast<int64_t>(tv.tv_sec);
}

template <int64_t Instant>
class FakeClock : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(static_cast<int64_t>(time(nullptr)), Instant)
        << "this test needs the frozen clock of libfaketime (run it through ctest)";
  }
};

constexpr int64_t kFri = Utc(2024, 3, 15, 10, 30);
constexpr int64_t kWed = Utc(2024, 1, 10, 8);
constexpr int64_t kMon = Utc(2024, 7, 1, 6);
constexpr int64_t kTue = 1700000000;
static_assert(kTue == Utc(2023, 11, 14, 22, 13, 20));

using FakeClockFri20240315 = FakeClock<kFri>;
using FakeClockWed20240110 = FakeClock<kWed>;
using FakeClockMon20240701 = FakeClock<kMon>;
using FakeClockTue20231114 = FakeClock<kTue>;

}  // namespace

// ==== Friday 2024-03-15 10:30:00 UTC ==========================================================

TEST_F(FakeClockFri20240315, ClockIsFrozenAtTheInstant) {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  EXPECT_EQ(tv.tv_sec, kFri);
  EXPECT_EQ(GetSystemTimeRfc3339(), "2024-03-15T10:30:00.000");
}

TEST_F(FakeClockFri20240315, UtcDayWords) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("now"), kFri);
  EXPECT_EQ(Approx("yesterday"), Utc(2024, 3, 14, 10, 30));
  EXPECT_EQ(Approx("noon"), Utc(2024, 3, 14, 12));  // before noon: yesterday's
  EXPECT_EQ(Approx("midnight"), Utc(2024, 3, 15));  // the start of today
  EXPECT_EQ(Approx("tea"), Utc(2024, 3, 14, 17));
  EXPECT_EQ(Approx("yesterday noon"), Utc(2024, 3, 13, 12));  // 10:30 yesterday is before noon
  EXPECT_EQ(Approx("noon yesterday"), Utc(2024, 3, 13, 12));
  EXPECT_EQ(Approx("yesterday 5pm"), Utc(2024, 3, 14, 17));
  EXPECT_EQ(Approx("never"), 0);
}

TEST_F(FakeClockFri20240315, UtcHoursWithPmAndAm) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("5pm"), Utc(2024, 3, 15, 17));
  EXPECT_EQ(Approx("5 PM"), Utc(2024, 3, 15, 17));
  EXPECT_EQ(Approx("pm"), Utc(2024, 3, 15, 22, 30));  // no number: the current hour
  EXPECT_EQ(Approx("10 am"), Utc(2024, 3, 15, 10));
  EXPECT_EQ(Approx("12 am"), Utc(2024, 3, 15, 0));
  EXPECT_EQ(Approx("12 pm"), Utc(2024, 3, 15, 12));
}

TEST_F(FakeClockFri20240315, UtcUnitsAgo) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("3 days ago"), Utc(2024, 3, 12, 10, 30));
  EXPECT_EQ(Approx("two weeks"), Utc(2024, 3, 1, 10, 30));
  EXPECT_EQ(Approx("one week"), Utc(2024, 3, 8, 10, 30));
  EXPECT_EQ(Approx("ten days"), Utc(2024, 3, 5, 10, 30));
  EXPECT_EQ(Approx("1 hour ago"), Utc(2024, 3, 15, 9, 30));
  EXPECT_EQ(Approx("90 minutes"), Utc(2024, 3, 15, 9, 0));
  EXPECT_EQ(Approx("30 seconds"), Utc(2024, 3, 15, 10, 29, 30));
  EXPECT_EQ(Approx("1 second"), Utc(2024, 3, 15, 10, 29, 59));
  // "sec" is no unit: the 1 is left over and becomes the day of month.
  EXPECT_EQ(Approx("1 sec"), Utc(2024, 3, 1, 10, 30));
  EXPECT_EQ(Approx("a day ago"), std::nullopt);
}

TEST_F(FakeClockFri20240315, UtcWeekdays) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("last friday"), Utc(2024, 3, 8, 10, 30));  // today is Friday: a week ago
  EXPECT_EQ(Approx("2 fridays"), Utc(2024, 3, 1, 10, 30));
  EXPECT_EQ(Approx("last monday"), Utc(2024, 3, 11, 10, 30));
  EXPECT_EQ(Approx("last saturday"), Utc(2024, 3, 9, 10, 30));
  EXPECT_EQ(Approx("three thursdays"), Utc(2024, 2, 29, 10, 30));
  EXPECT_EQ(Approx("friday"), std::nullopt);  // a weekday alone is ignored
}

TEST_F(FakeClockFri20240315, UtcMonthsAndYears) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("december"), Utc(2023, 12, 15, 10, 30));  // later month: last year's
  EXPECT_EQ(Approx("march"), Utc(2024, 3, 15, 10, 30));
  EXPECT_EQ(Approx("feb"), Utc(2024, 2, 15, 10, 30));
  EXPECT_EQ(Approx("2 months"), Utc(2024, 1, 15, 10, 30));
  EXPECT_EQ(Approx("5 months ago"), Utc(2023, 10, 15, 10, 30));
  EXPECT_EQ(Approx("15 months"), Utc(2022, 12, 15, 10, 30));
  EXPECT_EQ(Approx("last month"), Utc(2024, 2, 15, 10, 30));
  EXPECT_EQ(Approx("2 years"), Utc(2022, 3, 15, 10, 30));
  EXPECT_EQ(Approx("last year"), Utc(2023, 3, 15, 10, 30));
  EXPECT_EQ(Approx("last"), Utc(2024, 3, 1, 10, 30));  // a pending 1 is the day
}

TEST_F(FakeClockFri20240315, UtcNumbers) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("Dec 02"), Utc(2023, 12, 2, 10, 30));
  EXPECT_EQ(Approx("Dec 0002"), Utc(2023, 12, 15, 10, 30));  // padded long number dropped
  EXPECT_EQ(Approx("10/02"), Utc(2024, 2, 10, 10, 30));      // October 2 is too far ahead
  EXPECT_EQ(Approx("03/12"), Utc(2024, 3, 12, 10, 30));
}

TEST_F(FakeClockFri20240315, UtcDateWithoutTimeOfDay) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Basic("2023-01-15"), std::nullopt);               // hour unknown
  EXPECT_EQ(Approx("2023-01-15"), Utc(2023, 1, 15, 10, 30));  // at the current time of day
  EXPECT_EQ(convert_last_modified_to_rfc3339("2023-01-15"), "2023-01-15T10:30:00.000Z");
  EXPECT_EQ(convert_last_modified_to_rfc3339("3 days ago"), "2024-03-12T10:30:00.000Z");
}

TEST_F(FakeClockFri20240315, UtcTenDayFutureRule) {
  TzGuard tz(test_support::kUtc);
  // Year-first more than ten days ahead: read as year-day-month instead.
  EXPECT_EQ(Approx("2024-12-03"), Utc(2024, 3, 12, 10, 30));
  EXPECT_EQ(Approx("2024-03-20"), Utc(2024, 3, 20, 10, 30));  // five days ahead is fine
  // No reading fits; the numbers are then taken one by one.
  EXPECT_EQ(Approx("2024-03-26"), Utc(2024, 3, 3, 10, 30));
  // parse_date_basic only applies the rule once the time of day is known.
  EXPECT_EQ(Basic("10:00 2024-12-03"), Utc(2024, 3, 12, 10));
  EXPECT_EQ(Basic("2024-12-03 10:00"), Utc(2024, 12, 3, 10));
  EXPECT_EQ(Basic("10:00 2024-03-20"), Utc(2024, 3, 20, 10));
  EXPECT_EQ(Basic("10:00 2024-03-30"), std::nullopt);
}

TEST_F(FakeClockFri20240315, East8) {
  TzGuard tz(test_support::kEast8);  // local: Friday 18:30
  EXPECT_EQ(Approx("3 days ago"), Utc(2024, 3, 12, 10, 30));
  EXPECT_EQ(Approx("noon"), Utc(2024, 3, 15, 4));
  EXPECT_EQ(Approx("yesterday noon"), Utc(2024, 3, 14, 4));
  EXPECT_EQ(Approx("5pm"), Utc(2024, 3, 15, 9));
  EXPECT_EQ(Approx("tea"), Utc(2024, 3, 15, 9));
  EXPECT_EQ(Approx("midnight"), Utc(2024, 3, 14, 16));
  EXPECT_EQ(Approx("2023-01-15"), Utc(2023, 1, 15, 10, 30));
  EXPECT_EQ(Approx("december"), Utc(2023, 12, 15, 10, 30));
  EXPECT_EQ(Approx("never"), 0);
  EXPECT_EQ(Basic("10:00 2024-12-03"), Utc(2024, 3, 12, 2));
  EXPECT_EQ(convert_last_modified_to_rfc3339("5pm"), "2024-03-15T09:00:00.000Z");
}

TEST_F(FakeClockFri20240315, NewYorkAfterTheSpringChange) {
  TzGuard tz(test_support::kNewYork);  // local: Friday 06:30 EDT
  // Shifts are in seconds, so two weeks back lands on 05:30 EST.
  EXPECT_EQ(Approx("two weeks"), Utc(2024, 3, 1, 10, 30));
  EXPECT_EQ(Approx("last friday"), Utc(2024, 3, 8, 10, 30));
  EXPECT_EQ(Approx("yesterday"), Utc(2024, 3, 14, 10, 30));
  EXPECT_EQ(Approx("midnight"), Utc(2024, 3, 15, 4));
  EXPECT_EQ(Approx("noon"), Utc(2024, 3, 14, 16));
  EXPECT_EQ(Approx("5pm"), Utc(2024, 3, 15, 21));
  // The summer-time flag of now travels with the record into mktime, so
  // 06:30 in December is read as 06:30 EDT.
  EXPECT_EQ(Approx("december"), Utc(2023, 12, 15, 10, 30));
}

// ==== Wednesday 2024-01-10 08:00:00 UTC =========================================================

TEST_F(FakeClockWed20240110, UtcWeekdaysAndMonths) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("last friday"), Utc(2024, 1, 5, 8));
  EXPECT_EQ(Approx("2 fridays"), Utc(2023, 12, 29, 8));
  EXPECT_EQ(Approx("last wednesday"), Utc(2024, 1, 3, 8));
  EXPECT_EQ(Approx("december"), Utc(2023, 12, 10, 8));
  EXPECT_EQ(Approx("january"), Utc(2024, 1, 10, 8));
  EXPECT_EQ(Approx("5 months"), Utc(2023, 8, 10, 8));
  EXPECT_EQ(Approx("2 years"), Utc(2022, 1, 10, 8));
  EXPECT_EQ(Approx("noon"), Utc(2024, 1, 9, 12));
  EXPECT_EQ(Approx("3 days ago"), Utc(2024, 1, 7, 8));
}

TEST_F(FakeClockWed20240110, UtcMonthDayYearReadings) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("12/25/2023"), Utc(2023, 12, 25, 8));
  // December 25 of this year is too far ahead and 25 is no month: the
  // numbers are read one by one, 12 the day and 25 the year 2025.
  EXPECT_EQ(Approx("12/25"), Utc(2025, 1, 12, 8));
}

TEST_F(FakeClockWed20240110, UtcTenDayBoundary) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Basic("08:00:00 2024-01-20"), Utc(2024, 1, 20, 8));  // exactly ten days ahead
  EXPECT_EQ(Basic("08:00:01 2024-01-20"), std::nullopt);         // one second more
  EXPECT_EQ(Basic("10:00 2024-01-19"), Utc(2024, 1, 19, 10));
}

TEST_F(FakeClockWed20240110, East8) {
  TzGuard tz(test_support::kEast8);              // local: Wednesday 16:00
  EXPECT_EQ(Approx("tea"), Utc(2024, 1, 9, 9));  // before five: yesterday's
  EXPECT_EQ(Approx("noon"), Utc(2024, 1, 10, 4));
  EXPECT_EQ(Approx("midnight"), Utc(2024, 1, 9, 16));
}

// ==== Monday 2024-07-01 06:00:00 UTC
// ===============================================================

TEST_F(FakeClockMon20240701, ParisSummer) {
  TzGuard tz(test_support::kParis);  // local: Monday 08:00 CEST
  EXPECT_EQ(Approx("last friday"), Utc(2024, 6, 28, 6));
  EXPECT_EQ(Approx("3 days ago"), Utc(2024, 6, 28, 6));
  EXPECT_EQ(Approx("two weeks"), Utc(2024, 6, 17, 6));
  EXPECT_EQ(Approx("5pm"), Utc(2024, 7, 1, 15));
  EXPECT_EQ(Approx("noon"), Utc(2024, 6, 30, 10));
  EXPECT_EQ(Approx("midnight"), Utc(2024, 6, 30, 22));
  EXPECT_EQ(Approx("last month"), Utc(2024, 6, 1, 6));
  // The summer flag of now is kept: 08:00 in winter months is read as CEST.
  EXPECT_EQ(Approx("december"), Utc(2023, 12, 1, 6));
  EXPECT_EQ(Approx("march"), Utc(2024, 3, 1, 6));
}

TEST_F(FakeClockMon20240701, Utc) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("last friday"), Utc(2024, 6, 28, 6));
  EXPECT_EQ(Approx("last monday"), Utc(2024, 6, 24, 6));
  EXPECT_EQ(Approx("december"), Utc(2023, 12, 1, 6));
  EXPECT_EQ(Approx("june"), Utc(2024, 6, 1, 6));
}

TEST_F(FakeClockMon20240701, NewYork) {
  TzGuard tz(test_support::kNewYork);  // local: Monday 02:00 EDT
  EXPECT_EQ(Approx("noon"), Utc(2024, 6, 30, 16));
  EXPECT_EQ(Approx("last friday"), Utc(2024, 6, 28, 6));
  EXPECT_EQ(Approx("midnight"), Utc(2024, 7, 1, 4));
}

// ==== Tuesday 2023-11-14 22:13:20 UTC: dates before 1900 ========================================
// Only -1 marks an unknown year; a relative date that lands before 1900 has a
// negative year since 1900 of its own, which the final fill keeps.

TEST_F(FakeClockTue20231114, UtcYearsBefore1900) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("151 years"), Utc(1872, 11, 14, 22, 13, 20));
  EXPECT_EQ(Approx("151 years ago"), Utc(1872, 11, 14, 22, 13, 20));
  EXPECT_EQ(Approx("123 years"), Utc(1900, 11, 14, 22, 13, 20));  // year 0 since 1900
  EXPECT_EQ(Approx("125 years"), Utc(1898, 11, 14, 22, 13, 20));
  EXPECT_EQ(Approx("2000 years ago"), Utc(23, 11, 14, 22, 13, 20));
}

TEST_F(FakeClockTue20231114, UtcUnitsBefore1900) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(Approx("267380 days"), Utc(1291, 10, 22, 22, 13, 20));
  EXPECT_EQ(Approx("10000 weeks ago"), Utc(1832, 3, 20, 22, 13, 20));
  // 250 years of borrowed months.
  EXPECT_EQ(Approx("3000 months"), Utc(1773, 11, 14, 22, 13, 20));
}

TEST_F(FakeClockTue20231114, UtcKnownPre1900YearSurvivesLaterWords) {
  TzGuard tz(test_support::kUtc);
  // Each later fill and shift sees a known year and leaves it.
  EXPECT_EQ(Approx("200 years yesterday"), Utc(1823, 11, 13, 22, 13, 20));
  EXPECT_EQ(Approx("200 years ago noon"), Utc(1823, 11, 14, 12));
  EXPECT_EQ(Approx("200 years 3 days ago"), Utc(1823, 11, 11, 22, 13, 20));
  // December read in November is last year's December, then 151 years back.
  EXPECT_EQ(Approx("december 151 years ago"), Utc(1871, 12, 14, 22, 13, 20));
}

TEST_F(FakeClockTue20231114, UtcLastModifiedTextBefore1000) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(convert_last_modified_to_rfc3339("2000 years ago"), "0023-11-14T22:13:20.000Z");
  EXPECT_EQ(convert_last_modified_to_rfc3339("151 years"), "1872-11-14T22:13:20.000Z");
  EXPECT_EQ(convert_last_modified_to_rfc3339("267380 days"), "1291-10-22T22:13:20.000Z");
}

TEST_F(FakeClockTue20231114, ParisYearsBefore1900) {
  TzGuard tz(test_support::kParis);  // 23:13:20 local, CET
  EXPECT_EQ(Approx("151 years"), Utc(1872, 11, 14, 22, 13, 20));
  // approxidate answers in UTC whatever the zone.
  EXPECT_EQ(convert_last_modified_to_rfc3339("151 years"), "1872-11-14T22:13:20.000Z");
}
