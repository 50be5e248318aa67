// approxidate and convert_last_modified_to_rfc3339 on texts whose result does
// not depend on the clock. Relative phrases run under a fixed fake clock in
// relative_test.cpp.
#include "time/approxidate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/time_zone.h"
#include "tests/time/civil.h"
#include "time/rfc3339.h"

using test_support::TzGuard;
using timetest::Utc;

namespace {

tm Sentinel() {
  tm t{};
  t.tm_year = 4242;
  t.tm_mday = 42;
  return t;
}

}  // namespace

TEST(Approxidate, StrictTextGivesTheUtcBreakdown) {
  for (char const* zone :
       {test_support::kUtc, test_support::kEast8, test_support::kParis, test_support::kNewYork}) {
    TzGuard tz(zone);
    tm out = Sentinel();
    ASSERT_EQ(approxidate("Sat, 14 Jan 2023 08:00:00 EDT", &out), 0) << zone;
    EXPECT_EQ(out.tm_year, 123);
    EXPECT_EQ(out.tm_mon, 0);
    EXPECT_EQ(out.tm_mday, 14);
    EXPECT_EQ(out.tm_hour, 12);
    EXPECT_EQ(out.tm_min, 0);
    EXPECT_EQ(out.tm_sec, 0);
    EXPECT_EQ(out.tm_wday, 6);
    EXPECT_EQ(out.tm_yday, 13);
    EXPECT_EQ(out.tm_isdst, 0);
  }
}

TEST(Approxidate, StrictTextWithoutZoneIsLocalTime) {
  TzGuard tz(test_support::kEast8);
  tm out = Sentinel();
  ASSERT_EQ(approxidate("2023-01-15 10:20:30", &out), 0);
  EXPECT_EQ(out.tm_mday, 15);
  EXPECT_EQ(out.tm_hour, 2);
  EXPECT_EQ(out.tm_min, 20);
}

TEST(Approxidate, FailureLeavesTheResultUntouched) {
  TzGuard tz(test_support::kUtc);
  for (char const* text : {"", "friday", "garbage", "   ", "ago", "Friday!", "\xC3\xA9t\xC3\xA9"}) {
    tm out = Sentinel();
    EXPECT_EQ(approxidate(text, &out), -1) << text;
    EXPECT_EQ(out.tm_year, 4242) << text;
    EXPECT_EQ(out.tm_mday, 42) << text;
  }
}

TEST(Approxidate, NeverIsTheEpoch) {
  for (char const* zone : {test_support::kUtc, test_support::kEast8, test_support::kNewYork}) {
    TzGuard tz(zone);
    tm out = Sentinel();
    ASSERT_EQ(approxidate("never", &out), 0);
    EXPECT_EQ(timegm(&out), 0) << zone;
  }
}

TEST(Approxidate, NeverKeepsThePendingNumber) {
  TzGuard tz(test_support::kUtc);
  tm out = Sentinel();
  // "3" is still pending after "never", so "days" goes back from the epoch.
  ASSERT_EQ(approxidate("3 never days", &out), 0);
  EXPECT_EQ(timegm(&out), -3 * 86400);
}

TEST(Approxidate, ConcurrentCallsAgree) {
  TzGuard tz(test_support::kUtc);
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i, &ok] {
      int good = 1;
      for (int n = 0; n < 500; ++n) {
        tm out{};
        timeval tv{};
        int offset = 0;
        good &= approxidate("Sat, 14 Jan 2023 08:00:00 +0100", &out) == 0 && out.tm_hour == 7 &&
                parse_date_basic("2023-01-15T10:20:30Z", &tv, &offset) == 0 &&
                tv.tv_sec == 1673778030;
      }
      ok[i] = good;
    });
  }
  for (std::thread& t : threads)
    t.join();
  for (int good : ok)
    EXPECT_EQ(good, 1);
}

// ---- convert_last_modified_to_rfc3339 --------------------------------------------------------

TEST(ConvertLastModified, FormatsTheUtcFields) {
  TzGuard tz(test_support::kEast8);
  EXPECT_EQ(convert_last_modified_to_rfc3339("Sat, 14 Jan 2023 08:00:00 GMT"),
            "2023-01-14T08:00:00.000Z");
  EXPECT_EQ(convert_last_modified_to_rfc3339("Sat, 14 Jan 2023 08:00:00 +0200"),
            "2023-01-14T06:00:00.000Z");
  EXPECT_EQ(convert_last_modified_to_rfc3339("2023-01-15T10:20:30.5Z"), "2023-01-15T10:20:30.000Z");
}

TEST(ConvertLastModified, UnreadableTextPrintsTheZeroedFields) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(convert_last_modified_to_rfc3339(""), "1900-01-00T00:00:00.000Z");
  EXPECT_EQ(convert_last_modified_to_rfc3339("friday"), "1900-01-00T00:00:00.000Z");
}

TEST(ConvertLastModified, FieldsAreSixteenBitUnsigned) {
  TzGuard tz(test_support::kUtc);
  // Year 67560 prints as 67560 - 65536 = 2024.
  std::string text = "@" + std::to_string(Utc(67560, 1, 1)) + " +0000";
  EXPECT_EQ(convert_last_modified_to_rfc3339(text), "2024-01-01T00:00:00.000Z");
  std::string year70000 = "@" + std::to_string(Utc(70000, 12, 31, 23, 59, 58)) + " +0000";
  EXPECT_EQ(convert_last_modified_to_rfc3339(year70000), "4464-12-31T23:59:58.000Z");
}

TEST(ConvertLastModified, ResultIs24Characters) {
  TzGuard tz(test_support::kUtc);
  EXPECT_EQ(convert_last_modified_to_rfc3339("@1673690400 +0100").size(), 24u);
}
