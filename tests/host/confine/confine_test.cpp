// The kernel confinement of a host process: the probe, what a confined
// process can and cannot reach, and the fallback. Every confinement happens
// in a forked child; the test process itself stays unrestricted.
#include "host/core/confine.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include "tests/host/confine/child.h"
#include "tests/support/files.h"

namespace {

using confine_test::Failures;
using confine_test::RunInChild;
using plughost::Confine;
using plughost::ConfineMode;
using plughost::ConfineRequest;
using plughost::ConfineResult;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::WriteFile;

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

// Reads a whole file through open(2) so that errno tells why it failed.
long ReadAll(const std::string& path, std::string* content) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  content->clear();
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0)
    content->append(buffer, static_cast<size_t>(n));
  int error = errno;
  close(fd);
  errno = error;
  return n < 0 ? -1 : 0;
}

long WriteNew(const std::string& path, const std::string& content) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  ssize_t n = write(fd, content.data(), content.size());
  int error = errno;
  close(fd);
  errno = error;
  return n < 0 ? -1 : 0;
}

// The environment a confined child needs unset.
void ClearSwitch() {
  unsetenv(plughost::kConfineEnvironment);
}

// Confines this process to `root`; true when Confine refused with an error
// whose text holds `cause`. What an accepted call returned goes to `confined`.
bool Refused(const std::string& root, const std::string& cause = "",
             ConfineResult* confined = nullptr) {
  ConfineRequest request;
  request.root = root;
  try {
    ConfineResult result = Confine(request);
    if (confined != nullptr) *confined = result;
    return false;
  } catch (const std::runtime_error& error) {
    return std::string(error.what()).find(cause) != std::string::npos;
  }
}

// A storage root with an outside world next to it:
//   base/root/{file, sub/inner}  base/outside/{secret, dir/deep}
class ConfineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!plughost::LandlockAvailable()) GTEST_SKIP() << "this kernel has no Landlock";
    root_ = base_ / "root";
    outside_ = base_ / "outside";
    ASSERT_EQ(mkdir(root_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((root_ + "/sub").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(outside_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((outside_ + "/dir").c_str(), 0755), 0);
    WriteFile(root_ + "/file", "inside");
    WriteFile(root_ + "/sub/inner", "inner");
    WriteFile(outside_ + "/secret", "SECRET");
    WriteFile(outside_ + "/dir/deep", "DEEP");
  }

  ConfineResult ConfineRoot(Failures& f, ConfineRequest request = {}) {
    ClearSwitch();
    request.root = root_;
    ConfineResult result = Confine(request);
    f.Expect(result.mode == ConfineMode::kLandlock, "not confined with Landlock");
    f.Expect(result.abi == plughost::LandlockAbi(), "ABI differs from the probe");
    return result;
  }

  TempDir base_;
  std::string root_;
  std::string outside_;
};

// --- the probe --------------------------------------------------------------------

// The probe agrees with the kernel's list of active security modules.
TEST(LandlockProbe, AgreesWithTheActiveSecurityModules) {
  std::ifstream lsm("/sys/kernel/security/lsm");
  std::string modules((std::istreambuf_iterator<char>(lsm)), std::istreambuf_iterator<char>());
  EXPECT_EQ(plughost::LandlockAvailable(), plughost::LandlockAbi() > 0);
  if (!lsm || modules.empty()) GTEST_SKIP() << "no readable /sys/kernel/security/lsm";
  bool listed = ("," + modules + ",").find(",landlock") != std::string::npos;
  EXPECT_EQ(plughost::LandlockAvailable(), listed) << "lsm: " << modules;
  if (listed) {
    EXPECT_GE(plughost::LandlockAbi(), 1);
  }
}

// The probe agrees with what the kernel does when asked for a real ruleset.
TEST(LandlockProbe, AgreesWithARealRuleset) {
  uint64_t handled = LANDLOCK_ACCESS_FS_READ_FILE;
  long fd = syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0);
  int error = errno;
  if (plughost::LandlockAvailable()) {
    EXPECT_GE(fd, 0) << std::strerror(error);
  } else {
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(error == ENOSYS || error == EOPNOTSUPP) << std::strerror(error);
  }
  if (fd >= 0) close(static_cast<int>(fd));
  // Asking for the version twice gives the same answer.
  EXPECT_EQ(plughost::LandlockAbi(), plughost::LandlockAbi());
}

TEST(LandlockProbe, DescribesBothModes) {
  ConfineResult landlock;
  landlock.mode = ConfineMode::kLandlock;
  landlock.abi = 4;
  EXPECT_EQ(plughost::DescribeConfinement(landlock), "landlock (ABI 4)");
  EXPECT_EQ(plughost::DescribeConfinement(ConfineResult{}),
            "fallback (per-operation checks, not race-free)");
}

// --- what a confined process reaches ------------------------------------------------

TEST_F(ConfineTest, OutsideTheRootIsDenied) {
  auto result = RunInChild([&](Failures& f) {
    ConfineRoot(f);
    std::string content;
    f.ExpectErrno(ReadAll("/etc/passwd", &content), EACCES, "read /etc/passwd");
    f.ExpectErrno(ReadAll(outside_ + "/secret", &content), EACCES, "read outside/secret");
    f.ExpectErrno(WriteNew(outside_ + "/new", "x"), EACCES, "create outside/new");
    f.ExpectErrno(mkdir((outside_ + "/made").c_str(), 0755), EACCES, "mkdir outside/made");
    f.ExpectErrno(unlink((outside_ + "/secret").c_str()), EACCES, "unlink outside/secret");
    f.ExpectErrno(truncate((outside_ + "/secret").c_str(), 0), EACCES, "truncate outside/secret");
    f.Expect(rename((root_ + "/file").c_str(), (outside_ + "/moved").c_str()) != 0,
             "moved a file out of the root");
    f.Expect(rename((outside_ + "/secret").c_str(), (root_ + "/stolen").c_str()) != 0,
             "moved a file into the root from outside");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
  EXPECT_EQ(ReadFile(outside_ + "/secret"), "SECRET");
  EXPECT_FALSE(std::filesystem::exists(outside_ + "/new"));
  EXPECT_FALSE(std::filesystem::exists(outside_ + "/made"));
  EXPECT_EQ(ReadFile(root_ + "/file"), "inside");
}

TEST_F(ConfineTest, InsideTheRootEverythingWorks) {
  auto result = RunInChild([&](Failures& f) {
    ConfineRoot(f);
    std::string content;
    f.ExpectOk(ReadAll(root_ + "/file", &content), "read file");
    f.Expect(content == "inside", "file content");
    f.ExpectOk(WriteNew(root_ + "/new", "new"), "create new");
    f.ExpectOk(truncate((root_ + "/new").c_str(), 1), "truncate new");
    f.ExpectOk(mkdir((root_ + "/dir").c_str(), 0755), "mkdir dir");
    f.ExpectOk(rename((root_ + "/new").c_str(), (root_ + "/renamed").c_str()), "rename in place");
    // Moving between directories needs the refer right (ABI 2 and later).
    if (plughost::LandlockAbi() >= 2) {
      f.ExpectOk(rename((root_ + "/renamed").c_str(), (root_ + "/dir/renamed").c_str()),
                 "move into dir");
      f.ExpectOk(rename((root_ + "/sub").c_str(), (root_ + "/dir/sub").c_str()),
                 "move a directory");
    }
    f.ExpectOk(symlink("file", (root_ + "/made-link").c_str()), "symlink");
    f.ExpectOk(unlink((root_ + "/made-link").c_str()), "unlink");
    f.ExpectOk(mkdir((root_ + "/gone").c_str(), 0755), "mkdir gone");
    f.ExpectOk(rmdir((root_ + "/gone").c_str()), "rmdir gone");
    f.ExpectOk(access(root_.c_str(), R_OK), "list the root");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

TEST_F(ConfineTest, LinksOutOfTheRootLeadNowhere) {
  ASSERT_EQ(symlink((outside_ + "/secret").c_str(), (root_ + "/abs-file").c_str()), 0);
  ASSERT_EQ(symlink("../outside/secret", (root_ + "/rel-file").c_str()), 0);
  ASSERT_EQ(symlink(outside_.c_str(), (root_ + "/abs-dir").c_str()), 0);
  ASSERT_EQ(symlink("../../outside", (root_ + "/sub/rel-dir").c_str()), 0);
  ASSERT_EQ(symlink((outside_ + "/created").c_str(), (root_ + "/dangling").c_str()), 0);
  ASSERT_EQ(symlink("../outside/made", (root_ + "/dangling-rel").c_str()), 0);
  auto result = RunInChild([&](Failures& f) {
    ConfineRoot(f);
    std::string content;
    f.ExpectErrno(ReadAll(root_ + "/abs-file", &content), EACCES, "read abs-file");
    f.ExpectErrno(ReadAll(root_ + "/rel-file", &content), EACCES, "read rel-file");
    f.ExpectErrno(ReadAll(root_ + "/abs-dir/secret", &content), EACCES, "read abs-dir/secret");
    f.ExpectErrno(ReadAll(root_ + "/sub/rel-dir/dir/deep", &content), EACCES,
                  "read sub/rel-dir/dir/deep");
    f.ExpectErrno(WriteNew(root_ + "/abs-file", "overwritten"), EACCES, "write abs-file");
    f.ExpectErrno(WriteNew(root_ + "/abs-dir/new", "x"), EACCES, "create abs-dir/new");
    f.ExpectErrno(WriteNew(root_ + "/dangling", "x"), EACCES, "create through dangling");
    f.ExpectErrno(mkdir((root_ + "/abs-dir/made").c_str(), 0755), EACCES, "mkdir abs-dir/made");
    f.ExpectErrno(unlink((root_ + "/abs-dir/secret").c_str()), EACCES, "unlink abs-dir/secret");
    f.ExpectErrno(open((root_ + "/abs-dir").c_str(), O_RDONLY | O_DIRECTORY), EACCES,
                  "list abs-dir");
    // The link itself is an entry of the root: removing it is allowed.
    f.ExpectOk(unlink((root_ + "/dangling-rel").c_str()), "unlink the link dangling-rel");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
  EXPECT_EQ(ReadFile(outside_ + "/secret"), "SECRET");
  EXPECT_FALSE(std::filesystem::exists(outside_ + "/created"));
  EXPECT_FALSE(std::filesystem::exists(outside_ + "/new"));
  EXPECT_FALSE(std::filesystem::exists(outside_ + "/made"));
}

TEST_F(ConfineTest, LinksThatStayInsideWork) {
  ASSERT_EQ(symlink("file", (root_ + "/rel").c_str()), 0);
  ASSERT_EQ(symlink((root_ + "/sub").c_str(), (root_ + "/abs-dir").c_str()), 0);
  ASSERT_EQ(symlink("../file", (root_ + "/sub/up").c_str()), 0);
  ASSERT_EQ(symlink("sub/later", (root_ + "/dangling").c_str()), 0);
  auto result = RunInChild([&](Failures& f) {
    ConfineRoot(f);
    std::string content;
    f.ExpectOk(ReadAll(root_ + "/rel", &content), "read rel");
    f.Expect(content == "inside", "rel content");
    f.ExpectOk(ReadAll(root_ + "/abs-dir/inner", &content), "read abs-dir/inner");
    f.Expect(content == "inner", "abs-dir/inner content");
    f.ExpectOk(ReadAll(root_ + "/sub/up", &content), "read sub/up");
    f.ExpectOk(WriteNew(root_ + "/abs-dir/new", "new"), "create abs-dir/new");
    f.ExpectOk(WriteNew(root_ + "/dangling", "later"), "create through dangling");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
  EXPECT_EQ(ReadFile(root_ + "/sub/new"), "new");
  EXPECT_EQ(ReadFile(root_ + "/sub/later"), "later");
}

TEST_F(ConfineTest, ReadOnlyAndReadWriteEntries) {
  std::string source = outside_ + "/secret";
  std::string destination = base_ / "destination";
  ASSERT_EQ(mkdir(destination.c_str(), 0755), 0);
  auto result = RunInChild([&](Failures& f) {
    ConfineRequest request;
    request.read_only = {source, base_ / "missing-is-skipped"};
    request.read_write = {destination, base_ / "also-missing"};
    ConfineRoot(f, request);
    std::string content;
    f.ExpectOk(ReadAll(source, &content), "read the read-only file");
    f.ExpectErrno(WriteNew(source, "x"), EACCES, "write the read-only file");
    f.ExpectErrno(ReadAll(outside_ + "/dir/deep", &content), EACCES, "read its neighbour");
    // A temporary file renamed over the final name, as a download does.
    f.ExpectOk(WriteNew(destination + "/.part", "data"), "create in the destination");
    f.ExpectOk(rename((destination + "/.part").c_str(), (destination + "/final").c_str()),
               "rename in the destination");
    f.ExpectOk(WriteNew(destination + "/final", "data2"), "overwrite in the destination");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
  EXPECT_EQ(ReadFile(source), "SECRET");
  EXPECT_EQ(ReadFile(destination + "/final"), "data2");
}

TEST_F(ConfineTest, FilesOpenedBeforeStayUsable) {
  auto result = RunInChild([&](Failures& f) {
    int before = open((outside_ + "/secret").c_str(), O_RDONLY | O_CLOEXEC);
    f.ExpectOk(before, "open before");
    ConfineRoot(f);
    char buffer[16] = {};
    f.Expect(read(before, buffer, sizeof buffer - 1) == 6, "read the file opened before");
    f.Expect(std::string(buffer) == "SECRET", "content of the file opened before");
    close(before);
    f.Expect(write(STDERR_FILENO, "", 0) == 0, "stderr still writable");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

// Local times still convert: the time-zone database stays readable.
TEST_F(ConfineTest, TimeZoneDatabaseStaysReadable) {
  if (access("/usr/share/zoneinfo/Europe/Berlin", R_OK) != 0) {
    GTEST_SKIP() << "no time-zone database";
  }
  auto result = RunInChild([&](Failures& f) {
    // Only this child's environment changes; it ends with _exit.
    setenv("TZ", "Europe/Berlin", 1);
    ConfineRoot(f);
    tzset();
    time_t epoch = 0;
    struct tm fields {};
    localtime_r(&epoch, &fields);
    f.Expect(fields.tm_hour == 1,
             "1970-01-01 00:00 UTC is 01:00 in Berlin, got hour " + std::to_string(fields.tm_hour));
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

// What a mount must know: once confined, the process can neither unmount
// (not even as root) nor execute a helper such as fusermount3.
TEST_F(ConfineTest, NoUnmountAndNoExecuteOnceConfined) {
  std::string point = base_ / "point";
  ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
  if (mount("confine-test", point.c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  }
  auto result = RunInChild([&](Failures& f) {
    ConfineRequest request;
    request.read_write = {point};
    ConfineRoot(f, request);
    f.ExpectErrno(umount2(point.c_str(), 0), EPERM, "umount2");
    f.ExpectErrno(umount2(point.c_str(), MNT_DETACH), EPERM, "umount2 lazily");
    char* const argv[] = {const_cast<char*>("true"), nullptr};
    f.ExpectErrno(execv("/bin/true", argv), EACCES, "execv /bin/true");
  });
  EXPECT_EQ(umount2(point.c_str(), 0), 0) << std::strerror(errno);
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

TEST_F(ConfineTest, OtherThreadsAreRefused) {
  if (kThreadSanitizer) GTEST_SKIP() << "the thread sanitizer runs a thread of its own";
  auto result = RunInChild([&](Failures& f) {
    ClearSwitch();
    std::mutex lock;
    std::condition_variable wake;
    bool done = false;
    std::thread other([&] {
      std::unique_lock<std::mutex> hold(lock);
      wake.wait(hold, [&] { return done; });
    });
    bool threw = Refused(root_, "threads");
    {
      std::lock_guard<std::mutex> hold(lock);
      done = true;
    }
    wake.notify_all();
    other.join();
    f.Expect(threw, "Confine ran beside another thread");
    std::string content;
    f.ExpectOk(ReadAll(outside_ + "/secret", &content), "nothing was restricted");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

TEST_F(ConfineTest, MissingRootIsAnError) {
  auto result = RunInChild([&](Failures& f) {
    ClearSwitch();
    f.Expect(Refused(base_ / "no-such-root"), "confined to a missing root");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

// --- the environment switch and the fallback ---------------------------------------

// Captures what the child writes to stderr while `body` runs.
std::string CaptureStderr(const std::function<void()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "<pipe failed>";
  int saved = dup(STDERR_FILENO);
  dup2(fds[1], STDERR_FILENO);
  close(fds[1]);
  body();
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::string text = test_support::ReadFd(fds[0]);
  close(fds[0]);
  return text;
}

TEST(ConfineFallback, ForcedByTheEnvironmentWarnsOnce) {
  TempDir base;
  auto result = RunInChild([&](Failures& f) {
    setenv(plughost::kConfineEnvironment, "fallback", 1);
    ConfineRequest request;
    request.root = base.path();
    ConfineResult first, second;
    std::string warning = CaptureStderr([&] {
      first = Confine(request);
      second = Confine(request);
    });
    f.Expect(first.mode == ConfineMode::kFallback, "first call not in the fallback");
    f.Expect(second.mode == ConfineMode::kFallback, "second call not in the fallback");
    f.Expect(first.abi == 0, "an ABI in the fallback");
    f.Expect(first.reason.find("PLUGHOST_CONFINE=fallback") != std::string::npos,
             "reason: " + first.reason);
    f.Expect(warning.find("plughost: warning: ") == 0, "warning: " + warning);
    f.Expect(warning.find("not race-free") != std::string::npos, "warning: " + warning);
    f.Expect(warning.find('\n') == warning.size() - 1, "not exactly one line: " + warning);
    std::string content;
    f.ExpectOk(ReadAll("/etc/passwd", &content), "the fallback restricts nothing");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

TEST(ConfineFallback, LandlockDemandedByTheEnvironment) {
  TempDir base;
  auto result = RunInChild([&](Failures& f) {
    setenv(plughost::kConfineEnvironment, "landlock", 1);
    ConfineResult confined;
    bool threw = Refused(base.path(), "", &confined);
    if (plughost::LandlockAvailable()) {
      f.Expect(!threw && confined.mode == ConfineMode::kLandlock, "not confined with Landlock");
    } else {
      f.Expect(threw, "fell back although Landlock was demanded");
    }
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

TEST(ConfineFallback, UnknownSwitchValueIsAnError) {
  TempDir base;
  auto result = RunInChild([&](Failures& f) {
    setenv(plughost::kConfineEnvironment, "off", 1);
    f.Expect(Refused(base.path(), "PLUGHOST_CONFINE=off"), "PLUGHOST_CONFINE=off accepted");
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
}

}  // namespace
