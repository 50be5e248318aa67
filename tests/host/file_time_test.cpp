// The file-time codec across both 2024 clock changes of Europe/Berlin,
// through the real plug-in: SetFileTime with FileTimeText, then the file's
// own times on disk and the record GetFileInfo reports.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <string>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/file_time.h"
#include "host/core/plugin.h"
#include "tests/host/host_test_support.h"
#include "tests/time/tz_guard.h"

using plughost::FileTimeInstant;
using plughost::FileTimeText;

namespace {

// Berlin's rules for 2024 as a POSIX zone, usable without tzdata.
constexpr char kBerlinRules[] = "CET-1CEST,M3.5.0,M10.5.0/3";

// 2024-03-31 01:00:00 UTC: 02:00 CET becomes 03:00 CEST.
constexpr time_t kSpring = 1711846800;
// 2024-10-27 01:00:00 UTC: 03:00 CEST becomes 02:00 CET again.
constexpr time_t kAutumn = 1729990800;

struct Case {
  const char* what;
  time_t instant;
};

const Case kCases[] = {
    {"last second before the spring gap", kSpring - 1},
    {"first second after the spring gap", kSpring},
    {"inside the hour after the spring change", kSpring + 1800},
    {"one hour after the spring change", kSpring + 3600},
    {"ordinary summer time", 1719835200},
    {"ordinary winter time", 1704110400},
    {"first 02:00 of the repeated hour (CEST)", kAutumn - 3600},
    {"first 02:30 of the repeated hour (CEST)", kAutumn - 1800},
    {"last second of summer time", kAutumn - 1},
    {"second 02:00 of the repeated hour (CET)", kAutumn},
    {"second 02:30 of the repeated hour (CET)", kAutumn + 1800},
    {"first second after the repeated hour", kAutumn + 3600},
};

std::string LocalFields(time_t t) {
  struct tm fields {};
  localtime_r(&t, &fields);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", fields.tm_year + 1900,
                fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
  return text;
}

class FileTimeThroughPlugin : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    zone_ = std::make_unique<timetest::TzGuard>(GetParam());
    plugin_ = std::make_unique<plughost::Plugin>(plughost::Plugin::Load(LOCALDISK_PLUGIN));
    client_ = std::make_unique<plughost::Client>(*plugin_, plugin_->CreateProtocol(&config_));
    client_->SetOpt("root_path", dir_.path());
    plughost_test::WriteFile(dir_ / "f", "x");
  }
  void TearDown() override {
    client_.reset();
    plugin_.reset();
    zone_.reset();
  }

  plughost_test::TempDir dir_;
  std::unique_ptr<timetest::TzGuard> zone_;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<plughost::Plugin> plugin_;
  std::unique_ptr<plughost::Client> client_;
};

}  // namespace

TEST_P(FileTimeThroughPlugin, EveryInstantIsStoredExactlyAndReadBack) {
  if (std::string(GetParam()) == "Europe/Berlin") {
    struct stat st {};
    if (stat("/usr/share/zoneinfo/Europe/Berlin", &st) != 0) GTEST_SKIP() << "no tzdata";
  }
  const std::string path = dir_ / "f";
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    const std::string text = FileTimeText(c.instant);
    client_->SetFileTime(path, text, text, text, {"touch", "f"});

    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, c.instant) << text;
    EXPECT_EQ(st.st_atime, c.instant) << text;

    _FS_FILE_V2 record = client_->Info(path, {"stat", "f"});
    EXPECT_EQ(record.modify_time, LocalFields(c.instant));
    // The record's wall-clock fields name two instants in the repeated
    // hour; the codec reads them as the earlier one.
    bool second_of_repeated = c.instant >= kAutumn && c.instant < kAutumn + 3600;
    EXPECT_EQ(FileTimeInstant(record.modify_time),
              second_of_repeated ? c.instant - 3600 : c.instant);
  }
}

TEST_P(FileTimeThroughPlugin, BothOccurrencesOfTheRepeatedHourStayDistinct) {
  if (std::string(GetParam()) == "Europe/Berlin") {
    struct stat st {};
    if (stat("/usr/share/zoneinfo/Europe/Berlin", &st) != 0) GTEST_SKIP() << "no tzdata";
  }
  std::string first = FileTimeText(kAutumn - 1800);
  std::string second = FileTimeText(kAutumn + 1800);
  EXPECT_NE(first, second);
  // Standard-time fields: 01:30 and 02:30 CET.
  EXPECT_EQ(first, "2024-10-27T01:30:00.000Z");
  EXPECT_EQ(second, "2024-10-27T02:30:00.000Z");
  // The hour after the spring change: 03:30 CEST is 02:30 in standard time.
  EXPECT_EQ(FileTimeText(kSpring + 1800), "2024-03-31T02:30:00.000Z");
}

INSTANTIATE_TEST_SUITE_P(Berlin, FileTimeThroughPlugin,
                         ::testing::Values(kBerlinRules, "Europe/Berlin"));

TEST(FileTime, UtcIsTheIdentityOnFields) {
  timetest::TzGuard zone(timetest::kUtc);
  EXPECT_EQ(FileTimeText(1704110400), "2024-01-01T12:00:00.000Z");
  EXPECT_EQ(FileTimeInstant("2024-01-01T12:00:00.000Z"), 1704110400);
  EXPECT_EQ(FileTimeInstant("1969-12-31T23:59:59.000Z"), -1);
  EXPECT_EQ(FileTimeText(0), "1970-01-01T00:00:00.000Z");
}

TEST(FileTime, FieldsInTheSpringGapAreReadAsStandardTime) {
  timetest::TzGuard zone(kBerlinRules);
  // 02:30 on 2024-03-31 never happened in Berlin; SetFileTime reads it as
  // 02:30 CET, which is 01:30 UTC.
  EXPECT_EQ(FileTimeInstant("2024-03-31T02:30:00.000Z"), kSpring + 1800);
}

TEST(FileTime, TextWithoutFieldsIsZero) {
  timetest::TzGuard zone(timetest::kUtc);
  EXPECT_EQ(FileTimeInstant(""), 0);
  EXPECT_EQ(FileTimeInstant("yesterday"), 0);
}

TEST(PinTimeZone, SetsAnUnsetZoneToTheSystemFileAndKeepsAGivenOne) {
  timetest::TzGuard restore(timetest::kUtc);  // restores the original at the end
  unsetenv("TZ");
  tzset();
  time_t t = 1719835200;
  struct tm unpinned {};
  localtime_r(&t, &unpinned);
  plughost::PinTimeZone();
  ASSERT_NE(std::getenv("TZ"), nullptr);
  EXPECT_STREQ(std::getenv("TZ"), ":/etc/localtime");
  struct tm pinned {};
  localtime_r(&t, &pinned);
  EXPECT_EQ(pinned.tm_hour, unpinned.tm_hour);
  EXPECT_EQ(pinned.tm_gmtoff, unpinned.tm_gmtoff);

  setenv("TZ", kBerlinRules, 1);
  plughost::PinTimeZone();
  EXPECT_STREQ(std::getenv("TZ"), kBerlinRules);
}
