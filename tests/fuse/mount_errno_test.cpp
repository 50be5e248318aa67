// Through a real mount: the errno values applications see, upload errors at
// fsync() and close(), and concurrent readers. Skipped when /dev/fuse cannot
// be used here.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/mount/mount_support.h"
#include "tests/fuse/mount_fixture.h"
#include "tests/support/page_cache.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using plughost_test::MountTest;
using plughost_test::Slurp;
using plughost_test::Spit;

TEST_F(MountTest, MissingEntriesGiveENOENT) {
  errno = 0;
  EXPECT_EQ(open((mnt_ + "/missing").c_str(), O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
  struct stat st {};
  errno = 0;
  EXPECT_EQ(stat((mnt_ + "/missing/below").c_str(), &st), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(unlink((mnt_ + "/missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(MountTest, NonEmptyDirectoriesGiveENOTEMPTY) {
  ASSERT_EQ(mkdir((mnt_ + "/full").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((mnt_ + "/full/x").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((mnt_ + "/other").c_str(), 0755), 0);
  errno = 0;
  EXPECT_EQ(rmdir((mnt_ + "/full").c_str()), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  errno = 0;
  EXPECT_EQ(rename((mnt_ + "/other").c_str(), (mnt_ + "/full").c_str()), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_TRUE(fs::is_directory(root_ + "/full/x"));
  EXPECT_TRUE(fs::is_directory(root_ + "/other"));
}

TEST_F(MountTest, UploadErrorsReachFsyncAndClose) {
  ASSERT_EQ(mkdir((mnt_ + "/dir").c_str(), 0755), 0);
  int fd = open((mnt_ + "/dir/f").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "abc", 3), 3);
  // The directory disappears behind the mount's back: the upload has nowhere to go.
  fs::remove_all(root_ + "/dir");
  errno = 0;
  EXPECT_EQ(fsync(fd), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(close(fd), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(MountTest, ExtendedAttributesAreUnsupported) {
  Spit(root_ + "/f", "x");
  char buffer[64];
  errno = 0;
  EXPECT_EQ(getxattr((mnt_ + "/f").c_str(), "user.test", buffer, sizeof buffer), -1);
  EXPECT_EQ(errno, ENOTSUP);
  errno = 0;
  EXPECT_EQ(setxattr((mnt_ + "/f").c_str(), "user.test", "v", 1, 0), -1);
  EXPECT_EQ(errno, ENOTSUP);
}

TEST_F(MountTest, ConcurrentReadersGetIdenticalBytes) {
  std::string data(24 * 1024 * 1024 + 12345, '\0');
  std::mt19937_64 random(42);
  for (char& c : data)
    c = static_cast<char>(random());
  Spit(root_ + "/large", data);
  std::vector<std::string> got(4);
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&, i] {
      int fd = open((mnt_ + "/large").c_str(), O_RDONLY);
      if (fd < 0) return;
      got[i] = plughost_test::ReadFd(fd);
      close(fd);
    });
  }
  for (std::thread& reader : readers)
    reader.join();
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(got[i].size(), data.size()) << "reader " << i;
    EXPECT_TRUE(got[i] == data) << "reader " << i;
  }
}

TEST_F(MountTest, ReadOfAFileTruncatedMeanwhileEndsShort) {
  Spit(root_ + "/shrinking", std::string(300000, 'x'));
  int fd = open((mnt_ + "/shrinking").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  // Shrunk directly on the root: the mount still believes the old size.
  ASSERT_EQ(truncate((root_ + "/shrinking").c_str(), 1000), 0);
  std::vector<char> buffer(300000);
  ssize_t n = pread(fd, buffer.data(), buffer.size(), 0);
  EXPECT_GE(n, 0);
  EXPECT_LE(n, 1000);
  close(fd);
}

TEST_F(MountTest, WrittenDataIsReadBackBeforeAndAfterClose) {
  int fd = open((mnt_ + "/w").c_str(), O_CREAT | O_RDWR, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, "0123456789", 10, 0), 10);
  char buffer[16] = {};
  ASSERT_EQ(pread(fd, buffer, sizeof buffer, 0), 10);
  EXPECT_EQ(std::string(buffer, 10), "0123456789");
  struct stat st {};
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_size, 10);
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(root_ + "/w"), "0123456789");
}

using test_support::PageCacheOf;
using PageState = test_support::PageCacheState;

TEST_F(MountTest, FsyncMakesTheDataDurable) {
  Spit(work_ + "/probe", "x");
  PageState probe;
  if (!PageCacheOf(work_ + "/probe", &probe)) {
    GTEST_SKIP() << "the kernel cannot report dirty pages (cachestat): " << std::strerror(errno);
  }
  std::string data(32 << 20, '\0');
  for (std::size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>(i * 7 + (i >> 12));
  int fd = open((mnt_ + "/synced").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  ASSERT_EQ(fsync(fd), 0);
  // Checked while the file is still open: no close has uploaded it since.
  PageState state;
  ASSERT_TRUE(PageCacheOf(root_ + "/synced", &state));
  EXPECT_EQ(state.dirty, 0u) << "pages of the root's file still dirty after fsync";
  EXPECT_EQ(state.writeback, 0u);
  EXPECT_TRUE(Slurp(root_ + "/synced") == data);
  EXPECT_EQ(close(fd), 0);

  // The same without fsync normally leaves dirty pages: the check above can fail.
  fd = open((mnt_ + "/unsynced").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  EXPECT_EQ(close(fd), 0);
  if (PageCacheOf(root_ + "/unsynced", &state)) {
    std::printf("without fsync: %llu of %llu cached pages dirty\n", state.dirty, state.cached);
  }
}

}  // namespace
