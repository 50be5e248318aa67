// A real mount of a fresh temporary root for tests that go through the
// kernel; skipped when /dev/fuse cannot be used here.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/mount/mount_support.h"
#include "tests/support/files.h"

extern char** environ;

namespace plughost_test {

namespace fs = std::filesystem;

inline bool FuseUsable(std::string* reason) {
  if (access("/dev/fuse", F_OK) != 0) {
    *reason = "/dev/fuse does not exist";
    return false;
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    *reason = "/dev/fuse is not usable by this user";
    return false;
  }
  return true;
}

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void Spit(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary);
  out << data;
}

// The error a call left, or 0 when it succeeded.
inline int Errno(int result) {
  return result == -1 ? errno : 0;
}

using test_support::Names;
using test_support::ReadFd;

// Writes all of `data` in writes of at most `chunk` bytes.
inline bool WriteFd(int fd, const std::string& data, std::size_t chunk) {
  for (std::size_t done = 0; done < data.size();) {
    std::size_t want = std::min(chunk, data.size() - done);
    ssize_t n = write(fd, data.data() + done, want);
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

class MountTest : public ::testing::Test {
 protected:
  void SetUp() override { Mount({}); }

  // Mounts a fresh root with the mount options `extra`; the mount process
  // runs in the foreground, as a child of the test.
  void Mount(const std::vector<std::string>& extra) {
    std::string reason;
    if (!FuseUsable(&reason)) GTEST_SKIP() << "FUSE unavailable: " << reason;
    work_dir_ = std::make_unique<test_support::TempDir>("mount_test");
    work_ = work_dir_->path();
    root_ = work_ + "/root";
    mnt_ = work_ + "/mnt";
    std::string cache = work_ + "/cache";
    for (const std::string& dir : {root_, mnt_, cache})
      fs::create_directory(dir);

    std::vector<std::string> words = {MOUNT_FRONT_END, "--plugin", plugin_, "--root",
                                      root_,           "mount",    mnt_,    "--foreground",
                                      "--cache-dir",   cache};
    words.insert(words.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (std::string& word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    ASSERT_EQ(posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ), 0);
    for (int i = 0; i < 200 && !Mounted(); ++i) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        FAIL() << "the mount process ended early";
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_TRUE(Mounted()) << "not mounted in time";
  }

  void TearDown() override { Unmount(); }

  // Ends the mount process (SIGTERM, as `kill` does) and removes the root.
  void Unmount() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      for (int i = 0; i < 200 && waitpid(pid_, &status, WNOHANG) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (waitpid(pid_, &status, WNOHANG) == 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
      }
    }
    if (!mnt_.empty() && Mounted()) umount2(mnt_.c_str(), MNT_DETACH);
    pid_ = -1;
    work_dir_.reset();
    work_.clear();
  }

  bool Mounted() const { return plughost::FindMount(mnt_).has_value(); }

  // A path below the mount point and the same path below the served root.
  std::string M(const std::string& relative) const { return mnt_ + "/" + relative; }
  std::string R(const std::string& relative) const { return root_ + "/" + relative; }

  // A file created through the mount shows at once and reads back what was written.
  void CheckCreateWriteCloseReadBack() {
    int fd = open(M("f").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(stat(M("f").c_str(), &st), 0) << "a created file is visible at once";
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(Names(mnt_), std::vector<std::string>{"f"});
    ASSERT_EQ(write(fd, "hello", 5), 5);
    ASSERT_EQ(close(fd), 0);
    EXPECT_EQ(Slurp(M("f")), "hello");
  }

  // mkdir, rmdir and unlink refuse with the errno that POSIX names.
  void CheckDirectoryErrors() {
    ASSERT_EQ(mkdir(M("d").c_str(), 0755), 0);
    EXPECT_EQ(Errno(mkdir(M("d").c_str(), 0755)), EEXIST);
    Spit(M("d/f"), "");
    EXPECT_EQ(Errno(rmdir(M("d").c_str())), ENOTEMPTY);
    EXPECT_EQ(Errno(rmdir(M("d/f").c_str())), ENOTDIR);
    EXPECT_EQ(Errno(unlink(M("d").c_str())), EISDIR);
    EXPECT_EQ(Errno(mkdir(M("missing/d").c_str(), 0755)), ENOENT);
    ASSERT_EQ(unlink(M("d/f").c_str()), 0);
    EXPECT_EQ(rmdir(M("d").c_str()), 0);
  }

  // Links, FIFOs and devices are refused with EPERM and leave nothing behind.
  void CheckLinksAndSpecialFilesRefused() {
    Spit(M("f"), "x");
    EXPECT_EQ(Errno(symlink("f", M("s").c_str())), EPERM);
    EXPECT_EQ(Errno(link(M("f").c_str(), M("h").c_str())), EPERM);
    EXPECT_EQ(Errno(mkfifo(M("p").c_str(), 0644)), EPERM);
    EXPECT_EQ(Errno(mknod(M("n").c_str(), S_IFCHR | 0644, makedev(1, 3))), EPERM);
    EXPECT_EQ(Names(mnt_), std::vector<std::string>{"f"});
  }

  // The plug-in that serves the mount; `root_` is given as its --root (a
  // plug-in that serves no local directory leaves it alone).
  std::string plugin_ = LD_PLUGIN_PATH;
  std::unique_ptr<test_support::TempDir> work_dir_;
  std::string work_, root_, mnt_;
  pid_t pid_ = -1;
};

}  // namespace plughost_test
