#include "util/paths.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// ---- slash helpers ----

TEST(Paths, EnsureEndsWithDivider) {
  EXPECT_EQ(ensure_ends_with_divider(""), "/");
  EXPECT_EQ(ensure_ends_with_divider("a/"), "a/");
  EXPECT_EQ(ensure_ends_with_divider("a"), "a/");
  EXPECT_EQ(ensure_ends_with_divider("/"), "/");
  // A trailing backslash does not count as a divider.
  EXPECT_EQ(ensure_ends_with_divider("a\\"), "a\\/");
}

TEST(Paths, RemoveHeadSlashes) {
  EXPECT_EQ(remove_head_slashes("//\\a/b"), "a/b");
  EXPECT_EQ(remove_head_slashes("///"), "///");
  EXPECT_EQ(remove_head_slashes("\\\\"), "\\\\");
  EXPECT_EQ(remove_head_slashes(""), "");
  EXPECT_EQ(remove_head_slashes("a/"), "a/");
}

TEST(Paths, RemoveTailSlashes) {
  EXPECT_EQ(remove_tail_slashes("a/b\\/"), "a/b");
  EXPECT_EQ(remove_tail_slashes("/"), "/");
  EXPECT_EQ(remove_tail_slashes("/\\/"), "/\\/");
  EXPECT_EQ(remove_tail_slashes(""), "");
  EXPECT_EQ(remove_tail_slashes("/a"), "/a");
}

TEST(Paths, RemoveDuplicatedSlashes) {
  EXPECT_EQ(remove_duplicated_slashes("a//b///c"), "a/b/c");
  EXPECT_EQ(remove_duplicated_slashes("a\\\\b"), "a\\\\b");
  EXPECT_EQ(remove_duplicated_slashes("//"), "/");
  EXPECT_EQ(remove_duplicated_slashes("/\\/"), "/\\/");
  EXPECT_EQ(remove_duplicated_slashes(""), "");
}

TEST(Paths, SplitContainerName) {
  std::string container = "x";
  std::string rest = "y";
  split_container_name("/bucket/dir/file", container, rest);
  EXPECT_EQ(container, "bucket");
  EXPECT_EQ(rest, "dir/file");

  split_container_name("bucket", container, rest);
  EXPECT_EQ(container, "bucket");
  EXPECT_EQ(rest, "");

  // "///" is kept by the head removal.
  split_container_name("///", container, rest);
  EXPECT_EQ(container, "");
  EXPECT_EQ(rest, "//");
}

TEST(Paths, SplitContainerNameEmptyLeavesOutputs) {
  std::string container = "keep";
  std::string rest = "this";
  split_container_name("", container, rest);
  EXPECT_EQ(container, "keep");
  EXPECT_EQ(rest, "this");
}

TEST(Paths, SplitContainerNameOnlySlashSeparates) {
  std::string container;
  std::string rest;
  split_container_name("\\bucket\\dir/file", container, rest);
  EXPECT_EQ(container, "bucket\\dir");
  EXPECT_EQ(rest, "file");
  split_container_name("bucket/", container, rest);
  EXPECT_EQ(container, "bucket");
  EXPECT_EQ(rest, "");
}

TEST(Paths, GetFileName) {
  EXPECT_EQ(get_file_name("/a/b.txt"), "b.txt");
  EXPECT_EQ(get_file_name("/a/"), "");
  EXPECT_EQ(get_file_name("b.txt"), "b.txt");
  EXPECT_EQ(get_file_name(""), "");
  EXPECT_EQ(get_file_name("a\\b"), "a\\b");
}

TEST(Paths, ToExactPath) {
  EXPECT_EQ(ToExactPath("a\\b/./c/../d"), "/a/b/d");
  EXPECT_EQ(ToExactPath("//"), "");
  EXPECT_EQ(ToExactPath("/a/"), "/a");
  EXPECT_EQ(ToExactPath(""), "");
  EXPECT_EQ(ToExactPath("/"), "");
  EXPECT_EQ(ToExactPath("."), "");
  EXPECT_EQ(ToExactPath("a//b\\\\c"), "/a/b/c");
  EXPECT_EQ(ToExactPath("/a/b/.."), "/a");
  EXPECT_EQ(ToExactPath("..."), "/...");
}

TEST(Paths, ToExactPathNeverClimbsAboveTop) {
  EXPECT_EQ(ToExactPath(".."), "");
  EXPECT_EQ(ToExactPath("../../a"), "/a");
  EXPECT_EQ(ToExactPath("/a/../../b"), "/b");
}

TEST(Paths, ToExactPathDoesNotTouchFileSystem) {
  EXPECT_EQ(ToExactPath("/no/such/dir/../file"), "/no/such/file");
}

TEST(Paths, ToExactPathNull) {
  EXPECT_EQ(ToExactPath(nullptr), "");
}

// ---- pexec ----

TEST(Pexec, EchoHi) {
  EXPECT_EQ(pexec("echo hi"), "hi\n");
}

TEST(Pexec, OutputLongerThanOneChunk) {
  std::string expected;
  for (int i = 0; i < 300; ++i)
    expected += std::to_string(i) + "\n";
  EXPECT_EQ(pexec("seq 0 299"), expected);
  // One line far longer than the 128-byte chunk.
  EXPECT_EQ(pexec("head -c 1000 /dev/zero | tr '\\000' x"), std::string(1000, 'x'));
}

TEST(Pexec, NoOutput) {
  EXPECT_EQ(pexec("true"), "");
  EXPECT_EQ(pexec(":"), "");
}

TEST(Pexec, ExitStatusIgnored) {
  EXPECT_EQ(pexec("echo x; exit 3"), "x\n");
  EXPECT_EQ(pexec("false"), "");
}

TEST(Pexec, StandardErrorNotCaptured) {
  EXPECT_EQ(pexec("echo out; echo err 1>&2"), "out\n");
}

size_t OpenDescriptors() {
  size_t n = 0;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++n;
  }
  return n;
}

TEST(Pexec, ManyRunsDoNotLeakStreams) {
  size_t const before = OpenDescriptors();
  for (int i = 0; i < 300; ++i)
    ASSERT_EQ(pexec("echo " + std::to_string(i)), std::to_string(i) + "\n");
  EXPECT_EQ(OpenDescriptors(), before);
}

// Exits 0 when pexec throws the expected error.
[[noreturn]] void RunPexecWithoutDescriptors() {
  // With no descriptor number below the soft limit free for the pipe, popen
  // fails.
  rlimit saved{};
  getrlimit(RLIMIT_NOFILE, &saved);
  rlimit limit = saved;
  limit.rlim_cur = 3;
  setrlimit(RLIMIT_NOFILE, &limit);
  try {
    pexec("echo hi");
  } catch (std::runtime_error const& e) {
    // Descriptors back first: sanitizer checks of the call below need a pipe.
    setrlimit(RLIMIT_NOFILE, &saved);
    std::_Exit(std::string(e.what()) == "popen() failed!" ? 0 : 2);
  }
  std::_Exit(1);
}

TEST(PexecDeathTest, PopenFailureThrows) {
  EXPECT_EXIT(RunPexecWithoutDescriptors(), ::testing::ExitedWithCode(0), "");
}

// ---- processes ----

TEST(Process, OwnPidIsRunning) {
  EXPECT_TRUE(IsRunningPID(getpid()));
}

TEST(Process, ReapedChildIsNotRunning) {
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_FALSE(IsRunningPID(child));
}

TEST(Process, LiveChildIsRunning) {
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pause();
    _exit(0);
  }
  EXPECT_TRUE(IsRunningPID(child));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(Process, UnsignallableProcessCountsAsNotRunning) {
  if (geteuid() != 0) {
    EXPECT_FALSE(IsRunningPID(1));  // init exists but may not be signalled
    return;
  }
  // As root every process may be signalled: drop to an unprivileged user in a
  // child and ask about the (root-owned, running) parent from there.
  pid_t const parent = getpid();
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
    _exit(IsRunningPID(parent) ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Process, NumbersOutsidePidRangeAreNotRunning) {
  EXPECT_FALSE(IsRunningPID(1LL << 32));  // would narrow to 0, the own group
  EXPECT_FALSE(IsRunningPID((1LL << 32) - 1));
  EXPECT_FALSE(IsRunningPID(-(1LL << 40)));
}

TEST(Process, CurrentPathIsExecutableDirectory) {
  std::filesystem::path const exe = std::filesystem::read_symlink("/proc/self/exe");
  std::string const dir = GetCurrentPath();
  EXPECT_EQ(dir, exe.parent_path().string());
  ASSERT_FALSE(dir.empty());
  EXPECT_NE(dir.back(), '/');
}

TEST(Process, UserNameFromPasswordDatabase) {
  passwd const* pw = getpwuid(getuid());
  std::string const expected = pw != nullptr && pw->pw_name != nullptr ? pw->pw_name : "";
  EXPECT_EQ(GetUserName(), expected);
}

}  // namespace
