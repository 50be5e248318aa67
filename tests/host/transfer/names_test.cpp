// Temporary names: recognisable, random, within the 255-byte limit, and
// never confused with a user's own files; the same-file and space checks.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "tests/host/transfer/transfer_test_support.h"

namespace {

using namespace transfer_test;
using plughost::TemporaryKind;
using ::testing::MatchesRegex;

TEST(TemporaryName, HasTheDocumentedShape) {
  const std::string name = plughost::TemporaryNameFor("report.txt");
  EXPECT_TRUE(
      std::regex_match(name, std::regex(R"(\.report\.txt\.plughost-[A-Za-z0-9]{6}\.partial)")))
      << name;
  EXPECT_TRUE(plughost::IsTemporaryName(name));
  EXPECT_EQ(plughost::TemporaryKindOf(name), TemporaryKind::kPartial);
  EXPECT_EQ(plughost::OriginalNameOf(name), "report.txt");
}

TEST(TemporaryName, IsRandom) {
  std::set<std::string> names;
  for (int i = 0; i < 200; ++i)
    names.insert(plughost::TemporaryNameFor("a"));
  EXPECT_GT(names.size(), 195u);
}

TEST(TemporaryName, BackupNames) {
  const std::string name = plughost::BackupNameFor("report.txt");
  EXPECT_TRUE(std::regex_match(name, std::regex(R"(\.report\.txt\.plughost-[A-Za-z0-9]{6}\.old)")))
      << name;
  EXPECT_EQ(plughost::TemporaryKindOf(name), TemporaryKind::kBackup);
  EXPECT_EQ(plughost::OriginalNameOf(name), "report.txt");
}

TEST(TemporaryName, LongNamesAreShortenedToFit) {
  const std::string longest(255, 'n');
  const std::string name = plughost::TemporaryNameFor(longest);
  EXPECT_EQ(name.size(), 255u);
  EXPECT_TRUE(plughost::IsTemporaryName(name));
  EXPECT_EQ(plughost::OriginalNameOf(name), std::string(230, 'n'));
  // A backup name is never shortened: it must lead back to the name.
  EXPECT_EQ(plughost::BackupNameFor(longest), "");
  EXPECT_EQ(plughost::BackupNameFor(std::string(234, 'n')).size(), 255u);
  EXPECT_EQ(plughost::BackupNameFor(std::string(235, 'n')), "");
}

TEST(TemporaryName, ShorteningKeepsUtf8CharactersWhole) {
  std::string name;
  while (name.size() < 300)
    name += "\xC3\xA9";  // é, two bytes
  name = "x" + name;     // so that the cut falls inside a character
  const std::string temporary = plughost::TemporaryNameFor(name);
  EXPECT_LE(temporary.size(), 255u);
  const std::string kept = plughost::OriginalNameOf(temporary);
  EXPECT_EQ(kept.size() % 2, 1u);  // "x" plus whole characters
  EXPECT_EQ(name.compare(0, kept.size(), kept), 0);
}

TEST(TemporaryName, OtherNamesAreNotOurs) {
  for (const char* name :
       {"report.txt", ".report.txt", ".a.plughost-ABCDE.partial", ".a.plughost-ABCDEFG.partial",
        "a.plughost-ABCDEF.partial", "..plughost-ABCDEF.partial", ".plughost-ABCDEF.partial",
        ".a.plughost-ABC_EF.partial", ".a.plughost-ABCDEF.part", ".a.plughost-ABCDEF.older",
        ".a.plughost_ABCDEF.partial", ""}) {
    EXPECT_FALSE(plughost::IsTemporaryName(name)) << name;
    EXPECT_EQ(plughost::OriginalNameOf(name), "") << name;
  }
  EXPECT_TRUE(plughost::IsTemporaryName(".a.plughost-ABCDEF.partial"));
  EXPECT_TRUE(plughost::IsTemporaryName("..a.plughost-abc123.old"));
  EXPECT_EQ(plughost::OriginalNameOf("..a.plughost-abc123.old"), ".a");
}

TEST(SameLocalFile, SamePathHardLinkAndSymbolicLink) {
  TempDir dir;
  WriteFile(dir / "a", "a");
  WriteFile(dir / "b", "a");
  ASSERT_EQ(link((dir / "a").c_str(), (dir / "hard").c_str()), 0);
  ASSERT_EQ(symlink("a", (dir / "soft").c_str()), 0);
  EXPECT_TRUE(plughost::SameLocalFile(dir / "a", dir / "a"));
  EXPECT_TRUE(plughost::SameLocalFile(dir / "a", dir.path() + "/./a"));
  EXPECT_TRUE(plughost::SameLocalFile(dir / "a", dir / "hard"));
  EXPECT_TRUE(plughost::SameLocalFile(dir / "soft", dir / "a"));
  EXPECT_FALSE(plughost::SameLocalFile(dir / "a", dir / "b"));
  EXPECT_FALSE(plughost::SameLocalFile(dir / "a", dir / "missing"));
  EXPECT_FALSE(plughost::SameLocalFile(dir / "missing", dir / "missing"));
  EXPECT_FALSE(plughost::SameLocalFile("", ""));
}

TEST(LocalRootFor, OnlyWhenTheRootIdIsTheLocalRoot) {
  TempDir dir;
  mkdir((dir / "root").c_str(), 0755);
  ASSERT_EQ(symlink("root", (dir / "link").c_str()), 0);
  EXPECT_EQ(plughost::LocalRootFor(dir / "root", dir / "root"), dir / "root");
  EXPECT_EQ(plughost::LocalRootFor(dir / "root", dir / "link"), dir / "root");
  EXPECT_EQ(plughost::LocalRootFor(dir / "root", dir.path()), "");
  EXPECT_EQ(plughost::LocalRootFor("remote:/", dir / "root"), "");
  EXPECT_EQ(plughost::LocalRootFor(dir / "missing", dir / "missing"), "");
  EXPECT_EQ(plughost::LocalRootFor("", ""), "");
}

TEST(FreeBytes, OfADirectoryAndOfNothing) {
  TempDir dir;
  std::optional<unsigned long long> free = plughost::FreeBytes(dir.path());
  ASSERT_TRUE(free.has_value());
  EXPECT_GT(*free, 0u);
  EXPECT_FALSE(plughost::FreeBytes(dir / "missing").has_value());
  EXPECT_FALSE(plughost::FreeBytes("").has_value());
}

TEST(FreeBytes, OfASmallTmpfs) {
  TempDir dir;
  Tmpfs tmpfs(dir.path(), 1 << 20);
  if (!tmpfs.mounted()) GTEST_SKIP() << "no tmpfs for this test: " << tmpfs.reason();
  EXPECT_EQ(plughost::FreeBytes(tmpfs.path()).value_or(0), 1u << 20);
  FillUp(tmpfs.path() + "/filler");
  EXPECT_EQ(plughost::FreeBytes(tmpfs.path()).value_or(1), 0u);
}

}  // namespace
