#include "time/rfc3339.h"

#include <gtest/gtest.h>

#include <sys/time.h>
#include <climits>
#include <cstring>

#include <sstream>
#include <string>

#include "tests/support/time_zone.h"
#include "time/rfc3339_internal.h"

using test_support::TzGuard;

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
  TzGuard tz(test_support::kEast8);
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
  TzGuard tz(test_support::kNewYork);
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
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704110400);
}

TEST(RFC3339ToTM, East8ReadsTheFieldsAsLocalTime) {
  TzGuard tz(test_support::kEast8);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704081600);
  EXPECT_EQ(1704110400 - RFC3339ToTM("2024-01-01T12:00:00.000Z"), 28800);
}

TEST(RFC3339ToTM, SummerFieldsAreReadAsStandardTime) {
  TzGuard tz(test_support::kParis);
  // 12:00 read as +01:00 even though July is +02:00.
  EXPECT_EQ(RFC3339ToTM("2024-07-01T12:00:00.000Z"), 1719831600);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704106800);
}

TEST(RFC3339ToTM, WestOfUtcReadsStandardTime) {
  TzGuard tz(test_support::kNewYork);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.000Z"), 1704110400 + 5 * 3600);
  EXPECT_EQ(RFC3339ToTM("2024-07-01T12:00:00.000Z"), 1719835200 + 5 * 3600);
}

TEST(RFC3339ToTM, IgnoresEverythingAfterTheSeconds) {
  TzGuard tz(test_support::kEast8);
  time_t plain = RFC3339ToTM("2024-01-01T12:00:00");
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00+05:00"), plain);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00.999Z"), plain);
  EXPECT_EQ(RFC3339ToTM("2024-01-01T12:00:00-11:30 trailing"), plain);
}

TEST(RFC3339ToTM, RoundTripsWithTMToRFC3339OfLocaltime) {
  for (char const* zone : {test_support::kUtc, test_support::kEast8, test_support::kNewYork}) {
    TzGuard tz(zone);
    time_t t = 1704110400;
    tm local{};
    localtime_r(&t, &local);
    std::string text = TMToRFC3339(&local);
    EXPECT_EQ(RFC3339ToTM(text.c_str()), t) << zone << " " << text;
  }
}

TEST(RFC3339ToTM, PartialMatchLeavesTheRestZero) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(RFC3339ToTM("2024-01-02"), 1704153600);  // midnight
}

TEST(RFC3339ToTM, NoMatchGivesMktimeOfYearMinus1900) {
  TzGuard tz(test_support::kUtc);
  tm expected{};
  expected.tm_year = -1900;
  expected.tm_mon = -1;
  expected.tm_mday = 0;
  EXPECT_EQ(RFC3339ToTM("garbage"), mktime(&expected));
  EXPECT_EQ(RFC3339ToTM(""), mktime(&expected));
}

// ---- TimeToRFC3339 and its twins ----------------------------------------------------------

TEST(TimeToRFC3339, GivesUtcFieldsInEveryZone) {
  for (char const* zone :
       {test_support::kUtc, test_support::kEast8, test_support::kParis, test_support::kNewYork}) {
    TzGuard tz(zone);
    EXPECT_EQ(TimeToRFC3339(1704110400), "2024-01-01T12:00:00.000Z") << zone;
    EXPECT_EQ(TimeToUTCRFC3339(1704110400), "2024-01-01T12:00:00.000Z") << zone;
    EXPECT_EQ(NoAdjustOffsetForServerTime(1704110400), "2024-01-01T12:00:00.000Z") << zone;
    EXPECT_EQ(TimeToRFC3339(1719835200), "2024-07-01T12:00:00.000Z") << zone;
  }
}

TEST(TimeToRFC3339, EpochAndBeforeEpoch) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(TimeToRFC3339(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(TimeToRFC3339(-1), "1969-12-31T23:59:59.000Z");
}

// ---- AdjustOffsetForServerTime ----------------------------------------------------------------

TEST(AdjustOffsetForServerTime, UtcIsIdentity) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(AdjustOffsetForServerTime(1704110400), "2024-01-01T12:00:00.000Z");
}

TEST(AdjustOffsetForServerTime, East8AddsEightHours) {
  TzGuard tz(test_support::kEast8);
  EXPECT_EQ(AdjustOffsetForServerTime(1704110400), "2024-01-01T20:00:00.000Z");
}

TEST(AdjustOffsetForServerTime, SummerZoneUsesTheStandardOffsetInBothSeasons) {
  TzGuard tz(test_support::kParis);
  EXPECT_EQ(AdjustOffsetForServerTime(1704110400), "2024-01-01T13:00:00.000Z");
  EXPECT_EQ(AdjustOffsetForServerTime(1719835200), "2024-07-01T13:00:00.000Z");
}

TEST(AdjustOffsetForServerTime, WestOfUtcSubtracts) {
  TzGuard tz(test_support::kNewYork);
  EXPECT_EQ(AdjustOffsetForServerTime(1704110400), "2024-01-01T07:00:00.000Z");
  EXPECT_EQ(AdjustOffsetForServerTime(1719835200), "2024-07-01T07:00:00.000Z");
}

// ---- AdjustServerTimeOffset ---------------------------------------------------------------------

TEST(AdjustServerTimeOffset, UtcIsIdentity) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(AdjustServerTimeOffset("2024-01-01T12:00:00"), "2024-01-01T12:00:00.000Z");
  EXPECT_EQ(AdjustServerTimeOffset("2024-01-01T12:00:00.000Z"), "2024-01-01T12:00:00.000Z");
}

TEST(AdjustServerTimeOffset, East8ShiftsTwiceTheOffset) {
  TzGuard tz(test_support::kEast8);
  // Read as local (04:00Z) and then eight more hours off: 16 hours in all.
  EXPECT_EQ(AdjustServerTimeOffset("2024-01-01T12:00:00"), "2023-12-31T20:00:00.000Z");
}

TEST(AdjustServerTimeOffset, SummerZoneReadsStandardTime) {
  TzGuard tz(test_support::kParis);
  EXPECT_EQ(AdjustServerTimeOffset("2024-01-01T12:00:00"), "2024-01-01T10:00:00.000Z");
  EXPECT_EQ(AdjustServerTimeOffset("2024-07-01T12:00:00"), "2024-07-01T10:00:00.000Z");
}

TEST(AdjustServerTimeOffset, WestOfUtcShiftsTheOtherWay) {
  TzGuard tz(test_support::kNewYork);
  EXPECT_EQ(AdjustServerTimeOffset("2024-01-01T12:00:00"), "2024-01-01T22:00:00.000Z");
}

TEST(AdjustServerTimeOffset, UnmatchedFieldsStayZero) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(AdjustServerTimeOffset("2024-03-05"), "2024-03-05T00:00:00.000Z");
}

TEST(NoAdjustServerTimeOffset, ReturnsItsArgument) {
  EXPECT_EQ(NoAdjustServerTimeOffset("2024-01-01T12:00:00"), "2024-01-01T12:00:00");
  EXPECT_EQ(NoAdjustServerTimeOffset(""), "");
  EXPECT_EQ(NoAdjustServerTimeOffset("not a date"), "not a date");
}

TEST(LocalStandardOffset, IsTheStandardOffsetWhateverTheSeason) {
  {
    TzGuard tz(test_support::kUtc);
    EXPECT_EQ(LocalStandardOffset(1719835200), 0);
  }
  {
    TzGuard tz(test_support::kEast8);
    EXPECT_EQ(LocalStandardOffset(1704110400), 28800);
  }
  {
    TzGuard tz(test_support::kParis);
    EXPECT_EQ(LocalStandardOffset(1704110400), 3600);
    EXPECT_EQ(LocalStandardOffset(1719835200), 3600);
  }
  {
    TzGuard tz(test_support::kNewYork);
    EXPECT_EQ(LocalStandardOffset(1719835200), -18000);
  }
}

// ---- TMToUTCRFC3339 ---------------------------------------------------------------------

TEST(TMToUTCRFC3339, NormalisesTheCallersStructure) {
  TzGuard tz(test_support::kUtc);
  tm t = Fields(2024, 1, 32, 12, 0, 0);
  EXPECT_EQ(TMToUTCRFC3339(&t), "2024-02-01T12:00:00.000Z");
  EXPECT_EQ(t.tm_mon, 1);
  EXPECT_EQ(t.tm_mday, 1);
  EXPECT_EQ(t.tm_yday, 31);  // derived fields are set too
  EXPECT_EQ(t.tm_wday, 4);
}

TEST(TMToUTCRFC3339, TreatsFieldsAsLocalTime) {
  {
    TzGuard tz(test_support::kEast8);
    tm t = Fields(2024, 1, 1, 12, 0, 0);
    EXPECT_EQ(TMToUTCRFC3339(&t), "2024-01-01T04:00:00.000Z");
  }
  {
    TzGuard tz(test_support::kParis);
    tm t = Fields(2024, 7, 1, 12, 0, 0);  // tm_isdst -1: summer time applies
    EXPECT_EQ(TMToUTCRFC3339(&t), "2024-07-01T10:00:00.000Z");
    EXPECT_EQ(t.tm_isdst, 1);
  }
  {
    TzGuard tz(test_support::kNewYork);
    tm t = Fields(2024, 1, 1, 12, 0, 0);
    EXPECT_EQ(TMToUTCRFC3339(&t), "2024-01-01T17:00:00.000Z");
  }
}

// ---- parse8601 and RFC3339ToLocalTM ---------------------------------------------------------

TEST(Parse8601, AcceptsZuluAndFractions) {
  TzGuard tz(test_support::kEast8);  // the result never depends on the local zone
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00Z")), 1704110400);
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00.250Z")), 1704110400);
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00.999999Z")), 1704110400);
}

TEST(Parse8601, AppliesNumericOffsets) {
  TzGuard tz(test_support::kNewYork);
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00+01:00")), 1704106800);
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00-05:30")), 1704110400 + 19800);
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00.5+00:00")), 1704110400);
}

TEST(Parse8601, OtherTextGivesZero) {
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01 12:00:00")), 0);  // word ends at the blank
  EXPECT_EQ(parse8601(std::istringstream("2024-01-01T12:00:00")), 0);  // no zone
  EXPECT_EQ(parse8601(std::istringstream("")), 0);
  EXPECT_EQ(parse8601(std::istringstream("yesterday")), 0);
}

TEST(Parse8601, ReadsOneWhitespaceDelimitedWord) {
  EXPECT_EQ(parse8601(std::istringstream("   2024-01-01T12:00:00Z trailing words")), 1704110400);
  std::istringstream in("2024-01-01T12:00:00Z 2024-01-01T13:00:00Z");
  EXPECT_EQ(parse8601(std::move(in)), 1704110400);
  EXPECT_EQ(parse8601(std::move(in)), 1704114000);  // the stream moved on by one word
}

TEST(RFC3339ToLocalTM, IsParse8601OfTheText) {
  TzGuard tz(test_support::kParis);
  EXPECT_EQ(RFC3339ToLocalTM("2024-01-01T12:00:00Z"), 1704110400);
  EXPECT_EQ(RFC3339ToLocalTM("2024-01-01T12:00:00.250Z"), 1704110400);
  EXPECT_EQ(RFC3339ToLocalTM("2024-01-01T12:00:00+01:00"), 1704106800);
  EXPECT_EQ(RFC3339ToLocalTM("2024-01-01 12:00:00"), 0);
  EXPECT_EQ(RFC3339ToLocalTM("2024-01-01T12:00:00"), 0);
  EXPECT_EQ(RFC3339ToLocalTM(""), 0);
}

// ---- GetSystemTimeRfc3339 ----------------------------------------------------------------------

TEST(GetSystemTimeRfc3339, TwentyThreeCharactersWithoutZ) {
  TzGuard tz(test_support::kEast8);
  timeval before{};
  gettimeofday(&before, nullptr);
  std::string s = GetSystemTimeRfc3339();
  timeval after{};
  gettimeofday(&after, nullptr);
  ASSERT_EQ(s.size(), 23u) << s;
  EXPECT_EQ(s.find('Z'), std::string::npos);
  EXPECT_EQ(s[4], '-');
  EXPECT_EQ(s[10], 'T');
  EXPECT_EQ(s[19], '.');
  // UTC fields: the seconds part reads back to a time between the two clocks.
  tm fields{};
  ASSERT_NE(strptime(s.c_str(), "%Y-%m-%dT%H:%M:%S", &fields), nullptr);
  time_t t = timegm(&fields);
  EXPECT_GE(t, before.tv_sec);
  EXPECT_LE(t, after.tv_sec);
}
