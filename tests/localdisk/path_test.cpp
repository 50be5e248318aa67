// Path normalisation, mapping and joining.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "localdisk/local_disk.h"
#include "localdisk/path_internal.h"

namespace {

std::string Normal(const std::string& path) {
  char* out = normalize_path(path.data(), path.size());
  std::string result(out);
  std::free(out);
  return result;
}

std::string Normal(const char* path, unsigned long length) {
  char* out = normalize_path(path, length);
  std::string result(out);
  std::free(out);
  return result;
}

TEST(NormalizePath, DropsEmptyAndDotSegments) {
  EXPECT_EQ(Normal("/a//b/./c/"), "/a/b/c");
  EXPECT_EQ(Normal("/a/b/c"), "/a/b/c");
  EXPECT_EQ(Normal("///a///"), "/a");
  EXPECT_EQ(Normal("/./././a/."), "/a");
}

TEST(NormalizePath, DotDotCutsThePreviousSegment) {
  EXPECT_EQ(Normal("/a/b/../c"), "/a/c");
  EXPECT_EQ(Normal("/a/b/c/../../d"), "/a/d");
  EXPECT_EQ(Normal("/a/b/.."), "/a");
}

TEST(NormalizePath, DotDotNeverClimbsAboveTheStart) {
  EXPECT_EQ(Normal("/.."), "/");
  EXPECT_EQ(Normal("/../.."), "/");
  EXPECT_EQ(Normal("/../a"), "/a");
  EXPECT_EQ(Normal("/a/../../b"), "/b");
}

TEST(NormalizePath, CollapsingAbsoluteInputGivesTheRoot) {
  EXPECT_EQ(Normal("//"), "/");
  EXPECT_EQ(Normal("/"), "/");
  EXPECT_EQ(Normal("/a/.."), "/");
  EXPECT_EQ(Normal("/./"), "/");
}

TEST(NormalizePath, RelativeInputStaysRelative) {
  EXPECT_EQ(Normal("a/b"), "a/b");
  EXPECT_EQ(Normal("a"), "a");
  EXPECT_EQ(Normal("a//b/./c/"), "a/b/c");
  EXPECT_EQ(Normal("./a/../b"), "b");
  EXPECT_EQ(Normal("../a"), "a");
}

TEST(NormalizePath, RelativeInputCollapsingToNothingIsEmpty) {
  EXPECT_EQ(Normal("a/.."), "");
  EXPECT_EQ(Normal("."), "");
  EXPECT_EQ(Normal(".."), "");
  EXPECT_EQ(Normal("./"), "");
  EXPECT_EQ(Normal(""), "");
}

TEST(NormalizePath, OnlyExactDotAndDotDotAreReserved) {
  EXPECT_EQ(Normal("/a/.../b"), "/a/.../b");
  EXPECT_EQ(Normal("/a/..b"), "/a/..b");
  EXPECT_EQ(Normal("/a/b.."), "/a/b..");
  EXPECT_EQ(Normal("/.hidden/x."), "/.hidden/x.");
}

TEST(NormalizePath, OnlyThePrefixOfTheGivenLengthIsRead) {
  EXPECT_EQ(Normal("/abc/def", 4), "/abc");
  EXPECT_EQ(Normal("/abc/def", 0), "");
  EXPECT_EQ(Normal("/abc/def", 1), "/");
  // The input need not be terminated: a buffer with no NUL at all.
  char raw[3] = {'x', '/', 'y'};
  EXPECT_EQ(Normal(raw, 3), "x/y");
}

TEST(NormalizePath, ShortRelativeInputsFitTheirAllocation) {
  // One-byte and two-byte relative names are the tightest case for the buffer
  // (they gain a separator before it is dropped again); the sanitizer builds
  // check the bounds.
  for (const char* input : {"a", "ab", "a/b", "ab/c", "a/bc"}) {
    char* exact = static_cast<char*>(std::malloc(std::strlen(input)));
    std::memcpy(exact, input, std::strlen(input));
    EXPECT_EQ(Normal(exact, std::strlen(input)), input);
    std::free(exact);
  }
}

TEST(NormalizePath, ResultNeverHoldsDoubleSeparatorsOrDotSegments) {
  const char* inputs[] = {"/a//b//",          "//x/./../y/", "/.../..",
                          "a/./b/../../c/./", "////",        "/a/b/c/../../../../d"};
  for (const char* input : inputs) {
    const std::string out = Normal(input);
    EXPECT_EQ(out.find("//"), std::string::npos) << input;
    EXPECT_EQ(out.find("/./"), std::string::npos) << input;
    EXPECT_EQ(out.find("/../"), std::string::npos) << input;
    if (out.size() > 1) {
      EXPECT_NE(out.back(), '/') << input;
    }
  }
}

TEST(NormalizePath, MemrchrBehaviourOfTheBackwardScan) {
  // The backward scan stops at the last separator, even inside a long name.
  EXPECT_EQ(Normal("/aaaa/bbbbbbbb/cc/.."), "/aaaa/bbbbbbbb");
  const char text[] = "a/b/c";
  EXPECT_EQ(static_cast<const char*>(memrchr(text, '/', 5)), text + 3);
  EXPECT_EQ(static_cast<const char*>(memrchr(text, '/', 3)), text + 1);
  EXPECT_EQ(memrchr(text, '/', 0), nullptr);
  EXPECT_EQ(memrchr(text, 'z', 5), nullptr);
}

class PathMapping : public ::testing::Test {
 protected:
  LocalDisk disk{nullptr};
};

TEST_F(PathMapping, RootMapsToRootDot) {
  EXPECT_EQ(disk.GetPath("/"), "/.");
}

TEST_F(PathMapping, GetPathNormalises) {
  EXPECT_EQ(disk.GetPath("/tmp/"), "/tmp");
  EXPECT_EQ(disk.GetPath("/tmp/x/.."), "/tmp");
  EXPECT_EQ(disk.GetPath("//"), "/.");
  EXPECT_EQ(disk.GetPath("/a//b/./c/"), "/a/b/c");
  EXPECT_EQ(disk.GetPath(""), "");
  EXPECT_EQ(disk.GetPath("a/.."), "");
  EXPECT_EQ(disk.GetPath("rel/x"), "rel/x");
}

TEST_F(PathMapping, GetPathIsNotPrefixedWithTheRoot) {
  disk.SetOpt("root_path", "/data/");
  EXPECT_EQ(disk.GetPath("/etc/x"), "/etc/x");
  EXPECT_EQ(disk.GetPath("/data/../etc"), "/etc");
  EXPECT_EQ(disk.RootPath(), "/data/");
}

TEST_F(PathMapping, JoinPathAddsOneSeparatorWhereNeeded) {
  EXPECT_EQ(disk.JoinPath("/", "a"), "/a");
  EXPECT_EQ(disk.JoinPath("/data", "a"), "/data/a");
  EXPECT_EQ(disk.JoinPath("", "a"), "/a");
  EXPECT_EQ(disk.JoinPath("/tmp/", "x"), "/tmp/x");
}

TEST_F(PathMapping, JoinPathKeepsTheRootsDoubleSeparator) {
  EXPECT_EQ(disk.JoinPath("/", "/"), "//");
}

TEST_F(PathMapping, JoinPathTakesTheNameAsItStands) {
  EXPECT_EQ(disk.JoinPath("/d", "x/../y"), "/d/x/../y");
  EXPECT_EQ(disk.JoinPath("/d//", ""), "/d//");
}

}  // namespace
