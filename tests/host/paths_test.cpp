// Root confinement: lexical normalisation relative to the storage root.
#include <gtest/gtest.h>

#include "host/core/paths.h"

using plughost::NormalizeUserPath;

TEST(NormalizeUserPath, RootForms) {
  EXPECT_EQ(NormalizeUserPath(""), "");
  EXPECT_EQ(NormalizeUserPath("/"), "");
  EXPECT_EQ(NormalizeUserPath("."), "");
  EXPECT_EQ(NormalizeUserPath("//./"), "");
  EXPECT_EQ(NormalizeUserPath("a/.."), "");
  EXPECT_EQ(NormalizeUserPath("/a/../"), "");
}

TEST(NormalizeUserPath, RelativeAndLeadingSlashMeanTheSame) {
  EXPECT_EQ(NormalizeUserPath("docs/a.txt"), "docs/a.txt");
  EXPECT_EQ(NormalizeUserPath("/docs/a.txt"), "docs/a.txt");
  EXPECT_EQ(NormalizeUserPath("docs//./a.txt/"), "docs/a.txt");
  EXPECT_EQ(NormalizeUserPath("docs/x/../a.txt"), "docs/a.txt");
}

TEST(NormalizeUserPath, DotNamesAreOrdinary) {
  EXPECT_EQ(NormalizeUserPath("..."), "...");
  EXPECT_EQ(NormalizeUserPath(".hidden"), ".hidden");
  EXPECT_EQ(NormalizeUserPath("a/..b"), "a/..b");
}

TEST(NormalizeUserPath, EscapesAreRefused) {
  EXPECT_FALSE(NormalizeUserPath(".."));
  EXPECT_FALSE(NormalizeUserPath("../x"));
  EXPECT_FALSE(NormalizeUserPath("/../x"));
  EXPECT_FALSE(NormalizeUserPath("a/../../x"));
  EXPECT_FALSE(NormalizeUserPath("a/b/../../.."));
  // Climbing out and back in is still an escape: the walk leaves the root.
  EXPECT_FALSE(NormalizeUserPath("../root/x"));
}

TEST(JoinProtocolPath, OneSeparatorBetween) {
  EXPECT_EQ(plughost::JoinProtocolPath("/srv/data", ""), "/srv/data");
  EXPECT_EQ(plughost::JoinProtocolPath("/srv/data", "a/b"), "/srv/data/a/b");
  EXPECT_EQ(plughost::JoinProtocolPath("/srv/data/", "a"), "/srv/data/a");
  EXPECT_EQ(plughost::JoinProtocolPath("/", "a"), "/a");
  EXPECT_EQ(plughost::JoinProtocolPath("/", ""), "/");
}

TEST(PathParts, BaseDirDisplayAndNames) {
  EXPECT_EQ(plughost::BaseName("docs/a.txt"), "a.txt");
  EXPECT_EQ(plughost::BaseName("a.txt"), "a.txt");
  EXPECT_EQ(plughost::BaseName(""), "");
  EXPECT_EQ(plughost::DirName("docs/sub/a.txt"), "docs/sub");
  EXPECT_EQ(plughost::DirName("a.txt"), "");
  EXPECT_EQ(plughost::DisplayPath(""), "/");
  EXPECT_EQ(plughost::DisplayPath("docs/a.txt"), "/docs/a.txt");
  EXPECT_TRUE(plughost::IsPlainName("a.txt"));
  EXPECT_TRUE(plughost::IsPlainName("..."));
  EXPECT_FALSE(plughost::IsPlainName(""));
  EXPECT_FALSE(plughost::IsPlainName("."));
  EXPECT_FALSE(plughost::IsPlainName(".."));
  EXPECT_FALSE(plughost::IsPlainName("a/b"));
  EXPECT_FALSE(plughost::IsPlainName(std::string_view("a\0b", 3)));
}
