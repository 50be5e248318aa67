// Helpers of the free-form date parser, exercised directly.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "tests/support/time_zone.h"
#include "tests/time/civil.h"
#include "time/approxidate_internal.h"
#include "time/sane_ctype_internal.h"

using namespace ldtime;
using test_support::TzGuard;
using timetest::Utc;

namespace {

atm Unknown() {
  atm a{};
  a.tm_sec = a.tm_min = a.tm_hour = a.tm_mday = a.tm_mon = a.tm_year = -1;
  a.tm_isdst = -1;
  return a;
}

atm Fields(int year, int mon, int mday, int hour, int min, int sec) {
  atm a = Unknown();
  a.tm_year = year - 1900;
  a.tm_mon = mon - 1;
  a.tm_mday = mday;
  a.tm_hour = hour;
  a.tm_min = min;
  a.tm_sec = sec;
  return a;
}

// Address of a temporary record, for one-line calls.
atm const* ptr(atm const& a) {
  return &a;
}

tm BrokenDownUtc(time_t t) {
  tm out{};
  gmtime_r(&t, &out);
  return out;
}

}  // namespace

// ---- sane_ctype ---------------------------------------------------------------

TEST(SaneCtype, DigitsAndLettersOnlyInAscii) {
  for (int c = 0; c < 256; ++c) {
    bool digit = c >= '0' && c <= '9';
    bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    EXPECT_EQ(sane_isdigit(static_cast<unsigned char>(c)), digit) << c;
    EXPECT_EQ(sane_isalpha(static_cast<unsigned char>(c)), alpha) << c;
    EXPECT_EQ(sane_isalnum(static_cast<unsigned char>(c)), digit || alpha) << c;
  }
}

TEST(SaneCtype, HighBytesHaveNoClassAtAll) {
  for (int c = 0x80; c < 0x100; ++c)
    EXPECT_EQ(sane_ctype[c], 0) << c;
}

TEST(SaneCtype, FurtherClassesArePresent) {
  EXPECT_TRUE(sane_ctype[static_cast<unsigned char>(' ')] & kCtypeSpace);
  EXPECT_TRUE(sane_ctype[static_cast<unsigned char>('\t')] & kCtypeSpace);
  EXPECT_TRUE(sane_ctype[static_cast<unsigned char>('*')] & kCtypeGlob);
  EXPECT_TRUE(sane_ctype[static_cast<unsigned char>('?')] & kCtypeGlob);
  EXPECT_TRUE(sane_ctype[static_cast<unsigned char>('^')] & kCtypeRegex);
  EXPECT_TRUE(sane_ctype[0x01] & kCtypeControl);
  EXPECT_TRUE(sane_ctype[0x7F] & kCtypeControl);
  EXPECT_FALSE(sane_ctype[static_cast<unsigned char>('a')] &
               (kCtypeSpace | kCtypeGlob | kCtypeRegex | kCtypeControl));
}

TEST(SaneCtype, UpperCasingClearsBit0x20OfLettersOnly) {
  EXPECT_EQ(sane_toupper('a'), 'A');
  EXPECT_EQ(sane_toupper('z'), 'Z');
  EXPECT_EQ(sane_toupper('Q'), 'Q');
  EXPECT_EQ(sane_toupper('1'), '1');
  EXPECT_EQ(sane_toupper('@'), '@');  // 0x40 is not 0x60 upper-cased
  EXPECT_EQ(sane_toupper('`'), '`');
  EXPECT_EQ(sane_toupper(0xE9), 0xE9);  // never folded onto 0xC9
}

// ---- match_word_prefix ----------------------------------------------------------

TEST(MatchWordPrefix, CountsAgreeingLeadingCharacters) {
  EXPECT_EQ(match_word_prefix("Jan", "January"), 3);
  EXPECT_EQ(match_word_prefix("january", "January"), 7);
  EXPECT_EQ(match_word_prefix("JANUARY", "January"), 7);
  EXPECT_EQ(match_word_prefix("Jan 14", "January"), 3);
  EXPECT_EQ(match_word_prefix("Jan,", "January"), 3);
  EXPECT_EQ(match_word_prefix("Ja", "January"), 2);
}

TEST(MatchWordPrefix, DifferenceAtAlphanumericIsNoMatch) {
  EXPECT_EQ(match_word_prefix("Janx", "January"), 0);
  EXPECT_EQ(match_word_prefix("Jan1", "January"), 0);
  EXPECT_EQ(match_word_prefix("Januaryy", "January"), 0);
  EXPECT_EQ(match_word_prefix("x", "January"), 0);
}

TEST(MatchWordPrefix, EmptyInputMatchesNothing) {
  EXPECT_EQ(match_word_prefix("", "January"), 0);
}

TEST(MatchWordPrefix, FullWordFollowedByPunctuation) {
  EXPECT_EQ(match_word_prefix("fridays.", "Fridays"), 7);
  EXPECT_EQ(match_word_prefix("PM-", "PM"), 2);
  EXPECT_EQ(match_word_prefix("Z", "Z"), 1);
  EXPECT_EQ(match_word_prefix("Zulu", "Z"), 0);
}

TEST(MatchWordPrefix, NonAsciiBytesEndTheWordButNeverMatch) {
  EXPECT_EQ(match_word_prefix("Jan\xC3\xA9", "January"), 3);
  EXPECT_EQ(match_word_prefix("J\xC3\xA1n", "January"), 1);
  EXPECT_EQ(match_word_prefix("\xE9", "\xC9"), 0);            // no case folding outside ASCII
  EXPECT_EQ(match_word_prefix("\xE9t\xE9", "\xE9t\xE9"), 3);  // plain equal bytes agree
}

// ---- number readers -------------------------------------------------------------------

TEST(ReadNumbers, BehaveLikeTheCLocaleStrtoul) {
  char const* end = nullptr;
  char const* s = "123abc";
  EXPECT_EQ(read_unsigned(s, &end), 123u);
  EXPECT_EQ(end, s + 3);
  s = "  42";
  EXPECT_EQ(read_unsigned(s, &end), 42u);
  EXPECT_EQ(end, s + 4);
  s = "x";
  EXPECT_EQ(read_unsigned(s, &end), 0u);
  EXPECT_EQ(end, s);
  s = "-1";
  EXPECT_EQ(read_unsigned(s, &end), ULONG_MAX);
  s = "99999999999999999999999";
  EXPECT_EQ(read_unsigned(s, &end), ULONG_MAX);
  EXPECT_EQ(end, s + std::strlen(s));
  s = "18446744073709551615";
  EXPECT_EQ(read_unsigned(s, &end), ULONG_MAX);
  s = "18446744073709551614";
  EXPECT_EQ(read_unsigned(s, &end), ULONG_MAX - 1);
}

TEST(ReadNumbers, SignedSaturatesBothWays) {
  char const* end = nullptr;
  EXPECT_EQ(read_signed("-100", &end), -100);
  EXPECT_EQ(read_signed("+7", &end), 7);
  EXPECT_EQ(read_signed("9223372036854775807", &end), LONG_MAX);
  EXPECT_EQ(read_signed("9223372036854775808", &end), LONG_MAX);
  EXPECT_EQ(read_signed("-9223372036854775808", &end), LONG_MIN);
  EXPECT_EQ(read_signed("-99999999999999999999", &end), LONG_MIN);
  char const* s = "-";
  EXPECT_EQ(read_signed(s, &end), 0);
  EXPECT_EQ(end, s);
}

// ---- tm_to_time_t -----------------------------------------------------------------------

TEST(TmToTimeT, MatchesTheCalendarFrom1970On) {
  for (int year : {1970, 1971, 1972, 1999, 2000, 2023, 2024, 2038, 2099}) {
    for (int mon = 1; mon <= 12; ++mon) {
      atm a = Fields(year, mon, 28, 13, 14, 15);
      EXPECT_EQ(tm_to_time_t(&a), Utc(year, mon, 28, 13, 14, 15)) << year << "-" << mon;
    }
  }
  atm leap = Fields(2024, 2, 29, 0, 0, 0);
  EXPECT_EQ(tm_to_time_t(&leap), Utc(2024, 2, 29));
}

TEST(TmToTimeT, UnknownOrPre1970FieldsFail) {
  EXPECT_EQ(tm_to_time_t(ptr(Fields(1969, 12, 31, 23, 59, 59))), -1);
  atm a = Fields(2023, 1, 15, 10, 0, 0);
  a.tm_mon = -1;
  EXPECT_EQ(tm_to_time_t(&a), -1);
  a = Fields(2023, 1, 15, 10, 0, 0);
  a.tm_mon = 12;
  EXPECT_EQ(tm_to_time_t(&a), -1);
  for (int field = 0; field < 3; ++field) {
    a = Fields(2023, 1, 15, 10, 0, 0);
    (field == 0 ? a.tm_hour : field == 1 ? a.tm_min : a.tm_sec) = -1;
    EXPECT_EQ(tm_to_time_t(&a), -1) << field;
  }
}

TEST(TmToTimeT, EveryFourthYearIsLeapWithoutTheCenturyRule) {
  // 2100 is not a leap year, but is counted as one: March 1 comes a day late.
  atm a = Fields(2100, 3, 1, 0, 0, 0);
  EXPECT_EQ(tm_to_time_t(&a), Utc(2100, 3, 1) + 86400);
  atm b = Fields(2100, 2, 28, 0, 0, 0);
  EXPECT_EQ(tm_to_time_t(&b), Utc(2100, 2, 28));
}

TEST(TmToTimeT, DayOfMonthIsUsedWithoutRangeTest) {
  EXPECT_EQ(tm_to_time_t(ptr(Fields(2023, 2, 29, 10, 0, 0))), Utc(2023, 3, 1, 10));
  EXPECT_EQ(tm_to_time_t(ptr(Fields(2023, 1, -1, 10, 0, 0))), Utc(2022, 12, 30, 10));
  EXPECT_EQ(tm_to_time_t(ptr(Fields(2023, 1, 0, 0, 0, 0))), Utc(2022, 12, 31));
}

TEST(TmToTimeT, HoursMinutesAndSecondsAreNotRangeChecked) {
  EXPECT_EQ(tm_to_time_t(ptr(Fields(2023, 1, 15, 24, 0, 60))), Utc(2023, 1, 16, 0, 1, 0));
}

TEST(TmToTimeT, MinutesWrapIn32BitsPastTheRange) {
  // 7000-01-01: the minute count no longer fits 32 bits and wraps.
  atm a = Fields(7000, 1, 1, 0, 0, 0);
  int64_t y = 7000 - 1970;
  int64_t days = y * 365 + (y + 1) / 4;
  int32_t wrapped = static_cast<int32_t>(static_cast<uint32_t>(days * 1440));
  EXPECT_EQ(tm_to_time_t(&a), static_cast<time_t>(wrapped) * 60);
  EXPECT_NE(tm_to_time_t(&a), days * 86400);
}

// ---- check_date_candidate -----------------------------------------------------------------

TEST(CheckDateCandidate, RejectsOutOfRangeMonthAndDay) {
  atm r = Unknown();
  tm now = BrokenDownUtc(Utc(2024, 3, 15, 10, 30));
  time_t t = Utc(2024, 3, 15, 10, 30);
  EXPECT_EQ(check_date_candidate(2023, 0, 1, &now, t, &r), 0);
  EXPECT_EQ(check_date_candidate(2023, 13, 1, &now, t, &r), 0);
  EXPECT_EQ(check_date_candidate(2023, 1, 0, &now, t, &r), 0);
  EXPECT_EQ(check_date_candidate(2023, 1, 32, &now, t, &r), 0);
  EXPECT_EQ(r.tm_mon, -1);
  EXPECT_EQ(r.tm_mday, -1);
}

TEST(CheckDateCandidate, YearRules) {
  tm now = BrokenDownUtc(Utc(2024, 3, 15, 10, 30));
  time_t t = Utc(2024, 3, 15, 10, 30);
  struct Case {
    int year;
    int accepted;
    int tm_year;
  } const cases[] = {
      {1970, 1, 70}, {2023, 1, 123}, {2099, 0, 0},  // 2099-01-05 lies in the future
      {71, 1, 71},   {99, 1, 99},    {0, 1, 100},  {23, 1, 123}, {37, 0, 0},  // 2037: future
      {38, 0, 0},    {70, 0, 0},     {100, 0, 0},  {1969, 0, 0}, {2100, 0, 0},
      {-5, 1, 95},  // "up to 37" includes negative values
  };
  for (Case const& c : cases) {
    atm r = Unknown();
    r.tm_hour = r.tm_min = r.tm_sec = 0;  // a known time makes the future test apply
    EXPECT_EQ(check_date_candidate(c.year, 1, 5, &now, t, &r), c.accepted) << c.year;
    if (c.accepted) {
      EXPECT_EQ(r.tm_year, c.tm_year) << c.year;
      EXPECT_EQ(r.tm_mon, 0);
      EXPECT_EQ(r.tm_mday, 5);
    } else {
      EXPECT_EQ(r.tm_year, -1) << c.year;
      EXPECT_EQ(r.tm_mon, -1) << c.year;
    }
  }
}

TEST(CheckDateCandidate, AbsentYearTakesTheCurrentYearForTheCheckOnly) {
  tm now = BrokenDownUtc(Utc(2024, 3, 15, 10, 30));
  atm r = Fields(2000, 1, 1, 10, 0, 0);
  r.tm_year = -1;
  EXPECT_EQ(check_date_candidate(-1, 3, 20, &now, Utc(2024, 3, 15, 10, 30), &r), 1);
  EXPECT_EQ(r.tm_mon, 2);
  EXPECT_EQ(r.tm_mday, 20);
  EXPECT_EQ(r.tm_year, -1);  // not written
  // March 26 of the current year is more than ten days ahead.
  EXPECT_EQ(check_date_candidate(-1, 3, 26, &now, Utc(2024, 3, 15, 10, 30), &r), 0);
}

TEST(CheckDateCandidate, TenDayFutureBoundary) {
  tm now = BrokenDownUtc(Utc(2024, 1, 10, 8));
  time_t t = Utc(2024, 1, 10, 8);
  atm r = Fields(2000, 1, 1, 8, 0, 0);                           // carries 08:00:00
  EXPECT_EQ(check_date_candidate(2024, 1, 20, &now, t, &r), 1);  // exactly 864000 s ahead
  r.tm_sec = 1;
  EXPECT_EQ(check_date_candidate(2024, 1, 20, &now, t, &r), 0);  // one second more
  // An unknown time of day gives -1, which is never "in the future".
  atm u = Unknown();
  EXPECT_EQ(check_date_candidate(2030, 6, 1, &now, t, &u), 1);
  EXPECT_EQ(u.tm_year, 130);
}

TEST(CheckDateCandidate, WithoutBreakdownOfNowWritesTheRecordDirectly) {
  atm r = Unknown();
  EXPECT_EQ(check_date_candidate(-1, 4, 9, nullptr, 0, &r), 1);
  EXPECT_EQ(r.tm_mon, 3);
  EXPECT_EQ(r.tm_mday, 9);
  EXPECT_EQ(r.tm_year, -1);
  atm s = Unknown();
  EXPECT_EQ(check_date_candidate(2090, 4, 9, nullptr, 0, &s), 1);  // no future test
  EXPECT_EQ(s.tm_year, 190);
  atm bad = Unknown();
  EXPECT_EQ(check_date_candidate(50, 4, 9, nullptr, 0, &bad), 0);
  // Month and day were already written when the year is rejected.
  EXPECT_EQ(bad.tm_mon, 3);
  EXPECT_EQ(bad.tm_year, -1);
}

// ---- match_multi_number: times (no clock involved) ---------------------------------------

namespace {

int Multi(char const* text, atm* r) {
  char const* end = nullptr;
  unsigned long num = read_unsigned(text, &end);
  return match_multi_number(num, *end, text, end, r);
}

}  // namespace

TEST(MatchMultiNumber, TimeOfDay) {
  atm r = Unknown();
  EXPECT_EQ(Multi("10:20:30 rest", &r), 8);
  EXPECT_EQ(r.tm_hour, 10);
  EXPECT_EQ(r.tm_min, 20);
  EXPECT_EQ(r.tm_sec, 30);
  EXPECT_EQ(r.tm_usec, 0);
}

TEST(MatchMultiNumber, AbsentSecondsAreZero) {
  atm r = Unknown();
  EXPECT_EQ(Multi("7:05", &r), 4);
  EXPECT_EQ(r.tm_hour, 7);
  EXPECT_EQ(r.tm_min, 5);
  EXPECT_EQ(r.tm_sec, 0);
}

TEST(MatchMultiNumber, TimeLimits) {
  atm r = Unknown();
  EXPECT_EQ(Multi("24:59:60", &r), 8);
  EXPECT_EQ(Multi("25:00:00", &r), 0);
  EXPECT_EQ(Multi("10:60:00", &r), 0);
  EXPECT_EQ(Multi("10:00:61", &r), 0);
}

TEST(MatchMultiNumber, FractionScaledToMicroseconds) {
  struct Case {
    char const* text;
    int64_t usec;
    int length;
  } const cases[] = {
      {"10:20:30.5", 500000, 10},        {"10:20:30.25", 250000, 11},
      {"10:20:30.123", 123000, 12},      {"10:20:30.00001", 10, 14},
      {"10:20:30.123456", 123456, 15},   {"10:20:30.000001", 1, 15},
      {"10:20:30.1234567", 1234567, 16},  // six digits or more: kept as read
      {"10:20:30.0000001", 1, 16},       {"10:20:30.", 0, 9},
  };
  for (Case const& c : cases) {
    atm r = Unknown();
    EXPECT_EQ(Multi(c.text, &r), c.length) << c.text;
    EXPECT_EQ(r.tm_usec, c.usec) << c.text;
  }
}

TEST(MatchMultiNumber, ThirdNumberNeedsTheSameSeparator) {
  atm r = Unknown();
  EXPECT_EQ(Multi("10:20-30", &r), 5);
  EXPECT_EQ(r.tm_sec, 0);
  EXPECT_EQ(Multi("10:20:x", &r), 5);
}

TEST(MatchMultiNumber, PastDateReadings) {
  struct Case {
    char const* text;
    int year, mon, mday;
  } const cases[] = {
      {"2023-01-15", 123, 0, 15},  // year-month-day
      {"2023-15-01", 123, 0, 15},  // year-day-month
      {"10/02/2023", 123, 9, 2},   // month/day/year
      {"13/02/2023", 123, 1, 13},  // day/month/year
      {"10.02.2023", 123, 1, 10},  // day.month.year preferred for "."
      {"02.13.2023", 123, 1, 13},  // month.day.year as the last resort
      {"10-02-2023", 123, 9, 2},  {"71-01-15", 71, 0, 15},    {"15-01-23", 123, 0, 15},
      {"01/15/99", 99, 0, 15},    {"2023/01/15", 123, 0, 15},
  };
  for (Case const& c : cases) {
    atm r = Unknown();
    EXPECT_EQ(Multi(c.text, &r), static_cast<int>(std::strlen(c.text))) << c.text;
    EXPECT_EQ(r.tm_year, c.year) << c.text;
    EXPECT_EQ(r.tm_mon, c.mon) << c.text;
    EXPECT_EQ(r.tm_mday, c.mday) << c.text;
    EXPECT_EQ(r.tm_hour, -1) << c.text;  // dates leave the time alone
  }
}

TEST(MatchMultiNumber, UnreadableDatesAreRejected) {
  for (char const* text : {"01/15/50", "70-01-15", "1969-12-31", "2100-03-01", "13.13.2023"}) {
    atm r = Unknown();
    EXPECT_EQ(Multi(text, &r), 0) << text;
    EXPECT_EQ(r.tm_mon, -1) << text;
  }
}

TEST(MatchMultiNumber, OtherSeparatorsAreNotGroups) {
  atm r = Unknown();
  char const* text = "10,20";
  char const* end = text + 2;
  EXPECT_EQ(match_multi_number(10, ',', text, end, &r), 0);
}

// ---- match_tz ---------------------------------------------------------------------------

TEST(MatchTz, Forms) {
  struct Case {
    char const* text;
    int offset;  // -9999: unchanged
    int consumed;
  } const cases[] = {
      {"+05", 300, 3},    {"-05", -300, 3},    {"+0530", 330, 5},   {"-0530", -330, 5},
      {"+05:30", 330, 6}, {"-05:30", -330, 6}, {"+23:59", 1439, 6}, {"-00:00", 0, 6},
      {"+14", 840, 3},    {"+5", -9999, 2},    {"+123", -9999, 4},  {"+12345", -9999, 6},
      {"+24", -9999, 3},  {"+2360", -9999, 5}, {"+05:3", -9999, 5}, {"+05:300", -9999, 7},
      {"+05:", -9999, 4},
  };
  for (Case const& c : cases) {
    int offset = -9999;
    EXPECT_EQ(match_tz(c.text, &offset), c.consumed) << c.text;
    EXPECT_EQ(offset, c.offset) << c.text;
  }
}

// ---- match_alpha ------------------------------------------------------------------------

TEST(MatchAlpha, PmWithoutHourGivesEleven) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("PM", &r, &offset), 2);
  EXPECT_EQ(r.tm_hour, 11);  // -1 % 12 + 12
}

TEST(MatchAlpha, AmWithoutHourStaysUnknown) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("am", &r, &offset), 2);
  EXPECT_EQ(r.tm_hour, -1);
}

TEST(MatchAlpha, PmAndAmWithHour) {
  int offset = -1;
  atm r = Unknown();
  r.tm_hour = 12;
  match_alpha("pm", &r, &offset);
  EXPECT_EQ(r.tm_hour, 12);
  r.tm_hour = 12;
  match_alpha("AM", &r, &offset);
  EXPECT_EQ(r.tm_hour, 0);
  r.tm_hour = 1;
  match_alpha("PM.", &r, &offset);
  EXPECT_EQ(r.tm_hour, 13);
  r.tm_hour = 1;
  EXPECT_EQ(match_alpha("PMx", &r, &offset), 3);  // not PM: the run is skipped
  EXPECT_EQ(r.tm_hour, 1);
}

TEST(MatchAlpha, ZoneNameOnlyWhenNoOffsetYet) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("EDT", &r, &offset), 3);
  EXPECT_EQ(offset, -240);
  offset = 60;
  EXPECT_EQ(match_alpha("EDT", &r, &offset), 3);
  EXPECT_EQ(offset, 60);
}

TEST(MatchAlpha, ShortZoneNamesNeedTheirFullLength) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("NT", &r, &offset), 2);
  EXPECT_EQ(offset, -660);
  offset = -1;
  EXPECT_EQ(match_alpha("z", &r, &offset), 1);
  EXPECT_EQ(offset, 0);
  offset = -1;
  EXPECT_EQ(match_alpha("ED", &r, &offset), 2);  // "ED" is no zone: skipped
  EXPECT_EQ(offset, -1);
}

TEST(MatchAlpha, FourLetterZonesMatchByThreeLetterPrefix) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("MES", &r, &offset), 3);  // first row that matches: MEST
  EXPECT_EQ(offset, 120);
}

TEST(MatchAlpha, MonthsThenWeekdays) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("Sept", &r, &offset), 4);
  EXPECT_EQ(r.tm_mon, 8);
  EXPECT_EQ(match_alpha("wed,", &r, &offset), 3);
  EXPECT_EQ(r.tm_wday, 3);
  EXPECT_EQ(match_alpha("Fridays", &r, &offset), 7);
  EXPECT_EQ(r.tm_wday, 5);
  EXPECT_EQ(match_alpha("Mar", &r, &offset), 3);
  EXPECT_EQ(r.tm_mon, 2);
}

TEST(MatchAlpha, UnknownRunOfLettersIsSkippedWhole) {
  atm r = Unknown();
  int offset = -1;
  EXPECT_EQ(match_alpha("garbage 12", &r, &offset), 7);
  EXPECT_EQ(match_alpha("T10", &r, &offset), 1);
  EXPECT_EQ(match_alpha("ab\xC3\xA9", &r, &offset), 2);
}

TEST(ZoneTable, FortyFourRowsWithExactOffsets) {
  ASSERT_EQ(std::size(timezone_names), 44u);
  EXPECT_STREQ(timezone_names[0].name, "IDLW");
  EXPECT_STREQ(timezone_names[43].name, "IDLE");
  for (zone_name const& z : timezone_names)
    EXPECT_EQ(z.length, static_cast<int>(std::strlen(z.name))) << z.name;
  // The odd rows are kept as they have always been.
  auto row = [](char const* name) {
    for (zone_name const& z : timezone_names)
      if (std::strcmp(z.name, name) == 0) return 60 * (z.hours + z.dst);
    return -99999;
  };
  EXPECT_EQ(row("AST"), -180);
  EXPECT_EQ(row("ADT"), -120);
  EXPECT_EQ(row("WAST"), 420);
  EXPECT_EQ(row("WADT"), 480);
  EXPECT_EQ(row("BST"), 60);
  EXPECT_EQ(row("EDT"), -240);
}

// ---- match_digit ------------------------------------------------------------------------

TEST(MatchDigit, FourDigitZoneOrYear) {
  int offset = -1;
  int gmt = 0;
  atm r = Unknown();
  EXPECT_EQ(match_digit("1400", &r, &offset, &gmt), 4);
  EXPECT_EQ(offset, 840);
  offset = 60;
  EXPECT_EQ(match_digit("0930", &r, &offset, &gmt), 4);
  EXPECT_EQ(offset, 60);  // an offset already known wins
  EXPECT_EQ(r.tm_year, -1);
  for (char const* ignored : {"1401", "1700", "1900", "2100", "9999"}) {
    offset = -1;
    EXPECT_EQ(match_digit(ignored, &r, &offset, &gmt), 4);
    EXPECT_EQ(offset, -1) << ignored;
    EXPECT_EQ(r.tm_year, -1) << ignored;
  }
  offset = -1;
  match_digit("1901", &r, &offset, &gmt);
  EXPECT_EQ(r.tm_year, 1);
  match_digit("2099", &r, &offset, &gmt);
  EXPECT_EQ(r.tm_year, 199);
}

TEST(MatchDigit, EpochSecondsOnlyWhileNothingIsKnown) {
  int offset = -1;
  int gmt = 0;
  atm r = Unknown();
  EXPECT_EQ(match_digit("1673690400", &r, &offset, &gmt), 10);
  EXPECT_EQ(gmt, 1);
  EXPECT_EQ(r.tm_year, 123);
  EXPECT_EQ(r.tm_hour, 10);
  EXPECT_EQ(r.tm_isdst, 0);

  atm known = Unknown();
  known.tm_mday = 3;
  gmt = 0;
  EXPECT_EQ(match_digit("1673690400", &known, &offset, &gmt), 10);
  EXPECT_EQ(gmt, 0);
  EXPECT_EQ(known.tm_year, -1);

  atm eight = Unknown();
  EXPECT_EQ(match_digit("99999999", &eight, &offset, &gmt), 8);
  EXPECT_EQ(gmt, 0);
}

TEST(MatchDigit, OneAndTwoDigitNumbers) {
  int offset = -1;
  int gmt = 0;
  atm r = Unknown();
  match_digit("7", &r, &offset, &gmt);
  EXPECT_EQ(r.tm_mday, 7);
  match_digit("05", &r, &offset, &gmt);  // day known: a year 2000 + 5
  EXPECT_EQ(r.tm_year, 105);

  atm s = Unknown();
  s.tm_mday = 1;
  match_digit("99", &s, &offset, &gmt);
  EXPECT_EQ(s.tm_year, 99);

  atm t = Unknown();
  t.tm_mday = 1;
  match_digit("45", &t, &offset, &gmt);  // neither year nor month
  EXPECT_EQ(t.tm_year, -1);
  EXPECT_EQ(t.tm_mon, -1);
  match_digit("12", &t, &offset, &gmt);
  EXPECT_EQ(t.tm_mon, 11);

  atm u = Unknown();
  match_digit("05", &u, &offset, &gmt);  // day unknown: it is the day
  EXPECT_EQ(u.tm_mday, 5);
  match_digit("5", &u, &offset, &gmt);  // one digit is never a year
  EXPECT_EQ(u.tm_year, -1);
  EXPECT_EQ(u.tm_mon, 4);

  atm v = Unknown();
  match_digit("00", &v, &offset, &gmt);  // zero: neither day nor year without a day
  EXPECT_EQ(v.tm_mday, -1);
  EXPECT_EQ(v.tm_year, -1);
  EXPECT_EQ(v.tm_mon, -1);
}

TEST(MatchDigit, OtherLengthsAreIgnored) {
  int offset = -1;
  int gmt = 0;
  atm r = Unknown();
  EXPECT_EQ(match_digit("123", &r, &offset, &gmt), 3);
  EXPECT_EQ(match_digit("12345", &r, &offset, &gmt), 5);
  EXPECT_EQ(r.tm_mday, -1);
  EXPECT_EQ(r.tm_year, -1);
  EXPECT_EQ(offset, -1);
}

// ---- the "@" form -----------------------------------------------------------------------

TEST(MatchStampForm, AcceptsOnlyTheExactShape) {
  timeval tv{-1, 4242};
  int offset = 0;
  EXPECT_EQ(match_stamp_form("1673690400 +0100", &tv, &offset), 0);
  EXPECT_EQ(tv.tv_sec, 1673690400);
  EXPECT_EQ(tv.tv_usec, 4242);
  EXPECT_EQ(offset, 60);
  EXPECT_EQ(match_stamp_form("1673690400 -0130\n", &tv, &offset), 0);
  EXPECT_EQ(offset, -90);
  // The four characters are read as a signed number.
  EXPECT_EQ(match_stamp_form("1 +-100", &tv, &offset), 0);
  EXPECT_EQ(offset, -60);
  for (char const* bad :
       {"1673690400 +01:00", "1673690400 +010", "1673690400 +01000", "1673690400  +0100",
        "1673690400 +0100 ", "x1 +0100", "18446744073709551615 +0000", "1673690400+0100"}) {
    offset = 77;
    EXPECT_EQ(match_stamp_form(bad, &tv, &offset), -1) << bad;
    EXPECT_EQ(offset, 77) << bad;
  }
}

// ---- relative helpers with a fixed "now" ----------------------------------------------------

namespace {

// Friday 2024-03-15 10:30:00 in the pinned zone.
atm NowRecord() {
  time_t t = Utc(2024, 3, 15, 10, 30);
  tm local{};
  localtime_r(&t, &local);
  return atm_from_tm(local);
}

atm Pending(atm now) {
  now.tm_mday = now.tm_mon = now.tm_year = -1;
  return now;
}

}  // namespace

TEST(FillAndShift, FillsUnknownDateFieldsFromNow) {
  TzGuard tz(test_support::kUtc);
  atm now = NowRecord();
  atm r = Pending(now);
  EXPECT_EQ(fill_and_shift(&r, &now, 0), Utc(2024, 3, 15, 10, 30));
  EXPECT_EQ(r.tm_mday, 15);
  EXPECT_EQ(r.tm_wday, 5);
}

TEST(FillAndShift, LaterMonthMeansLastYear) {
  TzGuard tz(test_support::kUtc);
  atm now = NowRecord();
  atm r = Pending(now);
  r.tm_mon = 11;
  EXPECT_EQ(fill_and_shift(&r, &now, 0), Utc(2023, 12, 15, 10, 30));
  r = Pending(now);
  r.tm_mon = 2;  // the current month stays in this year
  EXPECT_EQ(fill_and_shift(&r, &now, 0), Utc(2024, 3, 15, 10, 30));
}

TEST(FillAndShift, ShiftsBackBySeconds) {
  TzGuard tz(test_support::kEast8);
  atm now = NowRecord();
  atm r = Pending(now);
  EXPECT_EQ(fill_and_shift(&r, &now, 3600), Utc(2024, 3, 15, 9, 30));
  EXPECT_EQ(r.tm_hour, 17);  // local time again
}

TEST(FlushPendingNumber, DayThenMonthThenYear) {
  atm r = Unknown();
  int num = 7;
  flush_pending_number(&r, &num);
  EXPECT_EQ(num, 0);
  EXPECT_EQ(r.tm_mday, 7);
  num = 12;
  flush_pending_number(&r, &num);
  EXPECT_EQ(r.tm_mon, 11);
  num = 31;  // day and month known, 31 is a year 2031
  flush_pending_number(&r, &num);
  EXPECT_EQ(r.tm_year, 131);
}

TEST(FlushPendingNumber, YearRangesAndDrops) {
  struct Case {
    int num;
    int year;
  } const cases[] = {{1970, 70}, {2099, 199}, {2100, -1}, {1969, -1}, {70, 70},
                     {99, 99},   {100, -1},   {37, 137},  {38, -1},   {69, -1}};
  for (Case const& c : cases) {
    atm r = Unknown();
    r.tm_mday = 1;
    r.tm_mon = 0;
    int num = c.num;
    flush_pending_number(&r, &num);
    EXPECT_EQ(r.tm_year, c.year) << c.num;
    EXPECT_EQ(num, 0);
  }
  atm r = Unknown();
  int zero = 0;
  flush_pending_number(&r, &zero);
  EXPECT_EQ(r.tm_mday, -1);
}

// Only -1 is unknown: a year before 1900 is negative and known.
TEST(FlushPendingNumber, NegativeKnownYearIsNotReplaced) {
  atm r = Unknown();
  r.tm_mday = 14;
  r.tm_mon = 10;
  r.tm_year = -28;  // 1872
  int num = 99;
  flush_pending_number(&r, &num);
  EXPECT_EQ(r.tm_year, -28);
  EXPECT_EQ(num, 0);
}

TEST(FillAndShift, ReplacesOnlyAnUnknownYear) {
  TzGuard tz(test_support::kUtc);
  atm const now = Fields(2023, 11, 14, 22, 13, 20);
  atm r = Unknown();
  r.tm_hour = 22;
  r.tm_min = 13;
  r.tm_sec = 20;
  r.tm_year = -28;
  EXPECT_EQ(fill_and_shift(&r, &now, 0), Utc(1872, 11, 14, 22, 13, 20));
  EXPECT_EQ(r.tm_year, -28);
  EXPECT_EQ(r.tm_mon, 10);
  EXPECT_EQ(r.tm_mday, 14);
  r.tm_year = -1;  // unknown: now's year
  EXPECT_EQ(fill_and_shift(&r, &now, 86400), Utc(2023, 11, 13, 22, 13, 20));
  r = Unknown();
  r.tm_hour = 0;
  r.tm_min = 0;
  r.tm_sec = 0;
  r.tm_year = -609;  // 1291
  r.tm_mon = 9;
  r.tm_mday = 22;
  EXPECT_EQ(fill_and_shift(&r, &now, 0), Utc(1291, 10, 22));
  EXPECT_EQ(r.tm_year, -609);
}

TEST(ApproxDigit, LeadingZeroOnlyForShortNumbers) {
  atm r = Unknown();
  int num = 0;
  char const* s = "02 x";
  EXPECT_EQ(approx_digit(s, &r, &num), s + 2);
  EXPECT_EQ(num, 2);
  num = 0;
  s = "0002 x";
  EXPECT_EQ(approx_digit(s, &r, &num), s + 4);
  EXPECT_EQ(num, 0);
  s = "2002";
  approx_digit(s, &r, &num);
  EXPECT_EQ(num, 2002);
}

TEST(SpecialHandlers, TableOrder) {
  char const* names[] = {"yesterday", "noon", "midnight", "tea", "PM", "AM", "never", "now"};
  special_handler fns[] = {date_yesterday, date_noon, date_midnight, date_tea,
                           date_pm,        date_am,   date_never,    date_now};
  for (int i = 0; i < 8; ++i) {
    EXPECT_STREQ(special[i].name, names[i]);
    EXPECT_EQ(special[i].fn, fns[i]);
  }
}

TEST(SpecialHandlers, PmAndAmTakeThePendingNumber) {
  TzGuard tz(test_support::kUtc);
  atm now = NowRecord();
  atm r = Pending(now);
  int num = 5;
  date_pm(&r, &now, &num);
  EXPECT_EQ(num, 0);
  EXPECT_EQ(r.tm_hour, 17);
  EXPECT_EQ(r.tm_min, 0);
  EXPECT_EQ(r.tm_sec, 0);

  r = Pending(now);
  num = 0;
  date_pm(&r, &now, &num);  // no number: the current hour
  EXPECT_EQ(r.tm_hour, 22);
  EXPECT_EQ(r.tm_min, 30);

  r = Pending(now);
  num = 12;
  date_am(&r, &now, &num);
  EXPECT_EQ(r.tm_hour, 0);
  r = Pending(now);
  num = 0;
  date_am(&r, &now, &num);
  EXPECT_EQ(r.tm_hour, 10);
}

TEST(SpecialHandlers, NeverKeepsThePendingNumber) {
  TzGuard tz(test_support::kEast8);
  atm now = NowRecord();
  atm r = Pending(now);
  int num = 3;
  date_never(&r, &now, &num);
  EXPECT_EQ(num, 3);
  EXPECT_EQ(r.tm_year, 70);
  EXPECT_EQ(r.tm_mon, 0);
  EXPECT_EQ(r.tm_mday, 1);
  EXPECT_EQ(r.tm_hour, 8);  // the epoch in local time
}

TEST(SpecialHandlers, OtherHandlersLeaveThePendingNumber) {
  TzGuard tz(test_support::kUtc);
  atm now = NowRecord();
  for (special_handler fn : {date_yesterday, date_noon, date_midnight, date_tea, date_now}) {
    atm r = Pending(now);
    int num = 4;
    fn(&r, &now, &num);
    EXPECT_EQ(num, 4);
  }
}

TEST(SpecialHandlers, NoonMidnightTea) {
  TzGuard tz(test_support::kUtc);
  atm now = NowRecord();  // 10:30
  atm r = Pending(now);
  int num = 0;
  date_noon(&r, &now, &num);  // before noon: yesterday's
  EXPECT_EQ(r.tm_mday, 14);
  EXPECT_EQ(r.tm_hour, 12);
  EXPECT_EQ(r.tm_min, 0);
  EXPECT_EQ(r.tm_sec, 0);

  r = Pending(now);
  date_midnight(&r, &now, &num);  // hour known: today's start, date still open
  EXPECT_EQ(r.tm_mday, -1);
  EXPECT_EQ(r.tm_hour, 0);

  r = Pending(now);
  r.tm_hour = -1;
  date_midnight(&r, &now, &num);  // unknown hour: mktime reads -1 as 23:00 of the 14th,
  EXPECT_EQ(r.tm_mday, 13);       // and a day is taken off that
  EXPECT_EQ(r.tm_hour, 0);

  r = Pending(now);
  r.tm_hour = 18;
  date_tea(&r, &now, &num);  // after five: today
  EXPECT_EQ(r.tm_mday, -1);
  EXPECT_EQ(r.tm_hour, 17);
}

TEST(UtcBreakdown, AgreesWithGmtime) {
  auto same = [](time_t t) {
    tm ours{};
    tm libc{};
    ASSERT_NE(utc_breakdown(t, &ours), nullptr) << t;
    ASSERT_NE(gmtime_r(&t, &libc), nullptr) << t;
    EXPECT_EQ(ours.tm_year, libc.tm_year) << t;
    EXPECT_EQ(ours.tm_mon, libc.tm_mon) << t;
    EXPECT_EQ(ours.tm_mday, libc.tm_mday) << t;
    EXPECT_EQ(ours.tm_hour, libc.tm_hour) << t;
    EXPECT_EQ(ours.tm_min, libc.tm_min) << t;
    EXPECT_EQ(ours.tm_sec, libc.tm_sec) << t;
    EXPECT_EQ(ours.tm_wday, libc.tm_wday) << t;
    EXPECT_EQ(ours.tm_yday, libc.tm_yday) << t;
    EXPECT_EQ(ours.tm_isdst, libc.tm_isdst) << t;
  };
  for (time_t t : {time_t{0}, time_t{-1}, time_t{86399}, time_t{951782400}, time_t{951868800},
                   time_t{4107542400}, time_t{-62135596800}, time_t{253402300799},
                   time_t{-2208988800}, time_t{67767976233532799}})
    same(t);
  // A walk over four centuries in steps that hit every time of day.
  for (time_t t = -6311433600; t < 6311433600; t += 7654321)
    same(t);
  for (time_t t = -4000; t < 4000; ++t)
    same(t);
}

TEST(UtcBreakdown, FailsWhereGmtimeFails) {
  tm out{};
  time_t huge = static_cast<time_t>(1) << 62;
  EXPECT_EQ(gmtime_r(&huge, &out), nullptr);
  EXPECT_EQ(utc_breakdown(huge, &out), nullptr);
  time_t tiny = -huge;
  EXPECT_EQ(utc_breakdown(tiny, &out), nullptr);
}
