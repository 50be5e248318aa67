// The per-operation check: links judged by where the kernel would take them.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host/core/confine.h"
#include "tests/support/files.h"

namespace {

using plughost::CheckBeneath;
using test_support::TempDir;
using test_support::WriteFile;

// The three ways to ask, which must agree everywhere: by path (the kernel's
// openat2 answer with the walk behind it), the walk alone (kernels without
// openat2), and a checker holding the root open (the mount).
enum class Way { kByPath, kByWalk, kHeldRoot };

std::string WayName(const ::testing::TestParamInfo<Way>& info) {
  switch (info.param) {
    case Way::kByPath:
      return "ByPath";
    case Way::kByWalk:
      return "ByWalk";
    case Way::kHeldRoot:
      return "HeldRoot";
  }
  return "Unknown";
}

int CheckWith(Way way, const std::string& root, const std::string& relative, bool no_follow) {
  switch (way) {
    case Way::kByPath:
      return CheckBeneath(root, relative, no_follow);
    case Way::kByWalk:
      return plughost::CheckBeneathByWalk(root, relative, no_follow);
    case Way::kHeldRoot:
      return plughost::BeneathChecker(root).Check(relative, no_follow);
  }
  return -1;
}

// base/root: file, sub/{inner, deeper/}, and links made by each test;
// base/outside: secret, dir/.
class CheckBeneathTest : public ::testing::TestWithParam<Way> {
 protected:
  void SetUp() override {
    root_ = base_ / "root";
    outside_ = base_ / "outside";
    for (const std::string& dir :
         {root_, root_ + "/sub", root_ + "/sub/deeper", outside_, outside_ + "/dir"}) {
      ASSERT_EQ(mkdir(dir.c_str(), 0755), 0) << dir;
    }
    WriteFile(root_ + "/file", "inside");
    WriteFile(root_ + "/sub/inner", "inner");
    WriteFile(outside_ + "/secret", "SECRET");
  }

  void Link(const std::string& target, const std::string& name) {
    ASSERT_EQ(symlink(target.c_str(), (root_ + "/" + name).c_str()), 0) << name;
  }

  int Check(const std::string& relative, bool no_follow = false) {
    return CheckWith(GetParam(), root_, relative, no_follow);
  }

  TempDir base_;
  std::string root_;
  std::string outside_;
};

TEST_P(CheckBeneathTest, PlainPathsPass) {
  EXPECT_EQ(Check(""), 0);
  EXPECT_EQ(Check("file"), 0);
  EXPECT_EQ(Check("sub"), 0);
  EXPECT_EQ(Check("sub/inner"), 0);
  EXPECT_EQ(Check("sub/deeper"), 0);
}

// What does not exist yet cannot lead anywhere: it is made where the path
// stops, beneath the root.
TEST_P(CheckBeneathTest, MissingComponentsPass) {
  EXPECT_EQ(Check("new"), 0);
  EXPECT_EQ(Check("sub/new"), 0);
  EXPECT_EQ(Check("missing/deeper/new"), 0);
  EXPECT_EQ(Check("file/below-a-file"), 0);
}

TEST_P(CheckBeneathTest, AbsoluteLinksOutAreRefused) {
  Link(outside_, "abs-dir");
  Link(outside_ + "/secret", "abs-file");
  Link("/", "slash");
  Link("/etc", "etc");
  EXPECT_EQ(Check("abs-dir"), EXDEV);
  EXPECT_EQ(Check("abs-dir/secret"), EXDEV);
  EXPECT_EQ(Check("abs-dir/not-there"), EXDEV);
  EXPECT_EQ(Check("abs-file"), EXDEV);
  EXPECT_EQ(Check("slash"), EXDEV);
  EXPECT_EQ(Check("etc/passwd"), EXDEV);
}

TEST_P(CheckBeneathTest, RelativeLinksOutAreRefused) {
  Link("../outside", "rel-dir");
  Link("../outside/secret", "rel-file");
  Link("..", "parent");
  Link("../../outside/secret", "sub/two-up");
  Link("deeper/../../../outside", "sub/winding");
  EXPECT_EQ(Check("rel-dir"), EXDEV);
  EXPECT_EQ(Check("rel-dir/secret"), EXDEV);
  EXPECT_EQ(Check("rel-file"), EXDEV);
  EXPECT_EQ(Check("parent"), EXDEV);
  EXPECT_EQ(Check("parent/root/file"), EXDEV);  // out and back in still went out
  EXPECT_EQ(Check("sub/two-up"), EXDEV);
  EXPECT_EQ(Check("sub/winding"), EXDEV);
}

// A dangling link is judged by where its target would be made.
TEST_P(CheckBeneathTest, DanglingLinks) {
  Link(outside_ + "/created-by-link", "dangling-abs");
  Link("../outside/made", "dangling-rel");
  Link("/nonexistent-top/x", "dangling-top");
  Link("sub/later", "dangling-in");
  Link(root_ + "/sub/later-abs", "dangling-in-abs");
  EXPECT_EQ(Check("dangling-abs"), EXDEV);
  EXPECT_EQ(Check("dangling-rel"), EXDEV);
  EXPECT_EQ(Check("dangling-top"), EXDEV);
  EXPECT_EQ(Check("dangling-in"), 0);
  EXPECT_EQ(Check("dangling-in-abs"), 0);
}

TEST_P(CheckBeneathTest, LinksThatStayInsidePass) {
  Link("file", "rel");
  Link("sub", "rel-dir");
  Link(root_ + "/sub", "abs-dir");
  Link(root_, "abs-root");
  Link("..", "sub/up");
  Link("../file", "sub/up-file");
  Link(".", "self");
  EXPECT_EQ(Check("rel"), 0);
  EXPECT_EQ(Check("rel-dir/inner"), 0);
  EXPECT_EQ(Check("abs-dir/inner"), 0);
  EXPECT_EQ(Check("abs-root/file"), 0);
  EXPECT_EQ(Check("sub/up"), 0);
  EXPECT_EQ(Check("sub/up/sub/up/file"), 0);
  EXPECT_EQ(Check("sub/up-file"), 0);
  EXPECT_EQ(Check("self/self/file"), 0);
}

// ".." in a target climbs from where the link resolved, as the kernel does,
// not from the text: the same words can stay inside or lead out.
TEST_P(CheckBeneathTest, DotDotFollowsTheResolvedDirectory) {
  Link("sub/deeper", "d");
  Link("d/../../file", "physical-inside");  // sub/deeper/../../file = file
  Link("d/../../../outside", "physical-outside");
  Link("rel-out/..", "through-out");
  Link("../outside/dir", "rel-out");
  EXPECT_EQ(Check("physical-inside"), 0);
  EXPECT_EQ(Check("physical-outside"), EXDEV);
  EXPECT_EQ(Check("through-out"), EXDEV);
}

// The absolute form of the root counts only as its canonical path, and a
// name that merely begins with the root's name is not beneath it.
TEST_P(CheckBeneathTest, RootPrefixIsMatchedByComponent) {
  ASSERT_EQ(mkdir((base_ / "root-sibling").c_str(), 0755), 0);
  Link(base_ / "root-sibling", "sibling");
  Link(root_ + "//sub//inner", "double-slashes");
  Link(root_ + "/../outside", "root-then-up");
  EXPECT_EQ(Check("sibling"), EXDEV);
  EXPECT_EQ(Check("double-slashes"), 0);
  EXPECT_EQ(Check("root-then-up"), EXDEV);
}

// The root may be named through a link of its own; targets are compared
// with the canonical root.
TEST_P(CheckBeneathTest, RootNamedThroughALink) {
  std::string alias = base_ / "alias";
  ASSERT_EQ(symlink(root_.c_str(), alias.c_str()), 0);
  Link(root_ + "/file", "abs-in");
  Link(outside_, "abs-out");
  EXPECT_EQ(CheckWith(GetParam(), alias, "abs-in", false), 0);
  EXPECT_EQ(CheckWith(GetParam(), alias, "abs-out/secret", false), EXDEV);
  EXPECT_EQ(CheckWith(GetParam(), base_ / "no-such-root", "file", false), ENOENT);
}

TEST_P(CheckBeneathTest, LoopsEndWithEloop) {
  Link("loop-b", "loop-a");
  Link("loop-a", "loop-b");
  Link("me/x", "me");
  EXPECT_EQ(Check("loop-a"), ELOOP);
  EXPECT_EQ(Check("me"), ELOOP);
}

TEST_P(CheckBeneathTest, NoFollowRefusesEveryLink) {
  Link("file", "rel");
  Link("sub", "rel-dir");
  Link(outside_, "abs-out");
  Link("sub/later", "dangling-in");
  EXPECT_EQ(Check("rel", true), ELOOP);
  EXPECT_EQ(Check("rel-dir/inner", true), ELOOP);
  EXPECT_EQ(Check("abs-out", true), ELOOP);
  EXPECT_EQ(Check("dangling-in", true), ELOOP);
  EXPECT_EQ(Check("file", true), 0);
  EXPECT_EQ(Check("sub/inner", true), 0);
  EXPECT_EQ(Check("sub/new", true), 0);
  EXPECT_EQ(Check("", true), 0);
}

INSTANTIATE_TEST_SUITE_P(Ways, CheckBeneathTest,
                         ::testing::Values(Way::kByPath, Way::kByWalk, Way::kHeldRoot), WayName);

// The held root stays the directory it was when the checker was made, as
// the kernel's confinement rule does: a directory moved in under the root's
// name later is not what it judges.
TEST(BeneathChecker, KeepsTheDirectoryItOpened) {
  TempDir base;
  const std::string root = base / "root";
  ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
  WriteFile(root + "/file", "inside");
  plughost::BeneathChecker checker(root);
  ASSERT_EQ(rename(root.c_str(), (base / "moved").c_str()), 0);
  ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
  ASSERT_EQ(symlink("/", (root + "/out").c_str()), 0);  // only in the new directory
  EXPECT_EQ(checker.Check("file", false), 0);
  EXPECT_EQ(checker.Check("out/etc", false), 0);  // not there in the held root: missing
  EXPECT_EQ(CheckBeneath(root, "out/etc", false), EXDEV);
}

// Without the root there is nothing to hold: checks go by path.
TEST(BeneathChecker, AMissingRootIsCheckedByPath) {
  TempDir base;
  plughost::BeneathChecker checker(base / "later");
  EXPECT_EQ(checker.Check("x", false), ENOENT);
  ASSERT_EQ(mkdir((base / "later").c_str(), 0755), 0);
  EXPECT_EQ(checker.Check("x", false), 0);
}

TEST(BeneathErrorText, NamesTheReason) {
  EXPECT_EQ(plughost::BeneathErrorText(EXDEV, false),
            "a symbolic link leads outside the storage root");
  EXPECT_EQ(plughost::BeneathErrorText(ELOOP, true),
            "the path goes through a symbolic link (refused with --no-follow-links)");
  EXPECT_EQ(plughost::BeneathErrorText(ELOOP, false), "too many levels of symbolic links");
  EXPECT_EQ(plughost::BeneathErrorText(ENOENT, false), std::strerror(ENOENT));
}

}  // namespace
