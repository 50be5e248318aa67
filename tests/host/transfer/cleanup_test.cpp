// Stale temporary files: found through the protocol in every subdirectory,
// removed (a ".partial") or put back (a ".old" whose final name is missing),
// recent ones left alone, and a dry run that changes nothing.
#include <sys/stat.h>
#include <sys/time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/transfer/transfer_test_support.h"

namespace {

using namespace transfer_test;
using plughost::CleanupAction;
using plughost::CleanupEntry;
using plughost::CleanupOptions;
using plughost::TemporaryFile;
using plughost::TemporaryKind;

// Sets a file's modification time `seconds` into the past.
void Age(const std::string& path, long seconds) {
  struct timeval times[2];
  gettimeofday(&times[0], nullptr);
  times[0].tv_sec -= seconds;
  times[1] = times[0];
  ASSERT_EQ(utimes(path.c_str(), times), 0);
}

class Cleanup : public LocalDiskTest {
 protected:
  void SetUp() override {
    LocalDiskTest::SetUp();
    mkdir(Local("docs").c_str(), 0755);
    mkdir(Local("docs/sub").c_str(), 0755);
    WriteFile(Local("keep.txt"), "mine");
    WriteFile(Local(".keep.txt.plughost-aaaaaa.partial"), "half");
    WriteFile(Local("docs/sub/.deep.bin.plughost-bbbbbb.partial"), "half");
    WriteFile(Local("docs/.fresh.plughost-cccccc.partial"), "busy");
    // A swap interrupted between its two moves: the name is missing.
    WriteFile(Local("docs/.report.txt.plughost-dddddd.old"), "old report");
    // A swap interrupted after the new file moved in.
    WriteFile(Local("docs/notes.txt"), "new notes");
    WriteFile(Local("docs/.notes.txt.plughost-eeeeee.old"), "old notes");
    for (const char* name :
         {".keep.txt.plughost-aaaaaa.partial", "docs/sub/.deep.bin.plughost-bbbbbb.partial",
          "docs/.report.txt.plughost-dddddd.old", "docs/.notes.txt.plughost-eeeeee.old"})
      Age(Local(name), 3600);
  }
};

TEST_F(Cleanup, FindsEveryTemporaryFileInEverySubdirectory) {
  std::vector<TemporaryFile> found = plughost::FindTemporaryFiles(*client_, root_id_);
  std::vector<std::string> relative;
  for (const TemporaryFile& file : found)
    relative.push_back(file.relative);
  EXPECT_THAT(relative, ::testing::ElementsAre(".keep.txt.plughost-aaaaaa.partial",
                                               "docs/.fresh.plughost-cccccc.partial",
                                               "docs/.notes.txt.plughost-eeeeee.old",
                                               "docs/.report.txt.plughost-dddddd.old",
                                               "docs/sub/.deep.bin.plughost-bbbbbb.partial"));
  EXPECT_EQ(found[0].path, root_id_ + "/.keep.txt.plughost-aaaaaa.partial");
  EXPECT_EQ(found[0].kind, TemporaryKind::kPartial);
  EXPECT_EQ(found[0].size, 4);
  EXPECT_EQ(found[2].kind, TemporaryKind::kBackup);
}

TEST_F(Cleanup, BelowASubdirectory) {
  std::vector<TemporaryFile> found =
      plughost::FindTemporaryFiles(*client_, root_id_ + "/docs/sub", "docs/sub");
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].relative, "docs/sub/.deep.bin.plughost-bbbbbb.partial");
}

TEST_F(Cleanup, AMissingDirectoryThrows) {
  EXPECT_THROW(plughost::FindTemporaryFiles(*client_, root_id_ + "/missing"),
               plughost::ProtocolError);
}

TEST_F(Cleanup, DryRunChangesNothing) {
  std::vector<std::string> before = Names(Local("docs"));
  CleanupOptions options;
  options.dry_run = true;
  std::vector<CleanupEntry> done = plughost::CleanupTemporaryFiles(
      *client_, plughost::FindTemporaryFiles(*client_, root_id_), options);
  ASSERT_EQ(done.size(), 5u);
  EXPECT_EQ(done[0].action, CleanupAction::kRemoved);
  EXPECT_EQ(done[1].action, CleanupAction::kSkippedRecent);
  EXPECT_EQ(done[2].action, CleanupAction::kRemoved);
  EXPECT_EQ(done[3].action, CleanupAction::kRestored);
  EXPECT_EQ(done[3].detail, "report.txt");
  EXPECT_EQ(done[4].action, CleanupAction::kRemoved);
  EXPECT_EQ(Names(Local("docs")), before);
  EXPECT_TRUE(Exists(Local(".keep.txt.plughost-aaaaaa.partial")));
}

TEST_F(Cleanup, RemovesRestoresAndLeavesRecentFilesAlone) {
  std::vector<CleanupEntry> done =
      plughost::CleanupTemporaryFiles(*client_, plughost::FindTemporaryFiles(*client_, root_id_));
  ASSERT_EQ(done.size(), 5u);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("docs", "keep.txt"));
  EXPECT_THAT(Names(Local("docs")), ::testing::ElementsAre(".fresh.plughost-cccccc.partial",
                                                           "notes.txt", "report.txt", "sub"));
  EXPECT_TRUE(Names(Local("docs/sub")).empty());
  EXPECT_EQ(ReadFile(Local("docs/report.txt")), "old report");
  EXPECT_EQ(ReadFile(Local("docs/notes.txt")), "new notes");
  EXPECT_EQ(ReadFile(Local("keep.txt")), "mine");
}

TEST_F(Cleanup, AgeZeroTakesRecentFilesToo) {
  CleanupOptions options;
  options.min_age_seconds = 0;
  plughost::CleanupTemporaryFiles(*client_, plughost::FindTemporaryFiles(*client_, root_id_),
                                  options);
  EXPECT_TRUE(plughost::FindTemporaryFiles(*client_, root_id_).empty());
}

TEST(AgeSeconds, ReadsLocalWallClockFields) {
  const char* saved = std::getenv("TZ");
  std::string restore = saved != nullptr ? saved : "";
  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  // 2024-07-01 12:00:00 local summer time is 10:00:00 UTC.
  const std::time_t noon = 1719828000;
  EXPECT_EQ(plughost::AgeSeconds("2024-07-01T12:00:00.000Z", noon + 90), 90);
  EXPECT_EQ(plughost::AgeSeconds("2024-07-01T12:00:00.000Z", noon), 0);
  EXPECT_FALSE(plughost::AgeSeconds("yesterday", noon).has_value());
  EXPECT_FALSE(plughost::AgeSeconds("", noon).has_value());
  if (saved != nullptr) {
    setenv("TZ", restore.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

}  // namespace
