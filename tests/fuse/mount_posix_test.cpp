// POSIX behaviour through a real mount: what applications rely on, checked
// the way they use it. Each test names the behaviour; what the protocol
// cannot express (links, special files, modes, owners) must fail cleanly or,
// for modes and owners, be accepted without effect.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fuse/mount_fixture.h"

namespace {

namespace fs = std::filesystem;
using plughost_test::Errno;
using plughost_test::MountTest;
using plughost_test::Names;
using plughost_test::ReadFd;
using plughost_test::Slurp;
using plughost_test::Spit;

class PosixTest : public MountTest {};

// Pages of `path` that the kernel holds once a handle opened with `flags`
// wrote 64 KiB at its start, seen through a mapping taken before the write
// (opening the mapping afterwards would drop them). -1 on failure.
int CachedPagesAfterWriting(const std::string& path, int flags) {
  constexpr std::size_t kSize = 64 << 10;
  Spit(path, "");
  int reader = open(path.c_str(), O_RDONLY);
  if (reader < 0) return -1;
  void* mapped = mmap(nullptr, kSize, PROT_READ, MAP_SHARED, reader, 0);
  int writer = open(path.c_str(), flags);
  const std::string data(kSize, 'x');
  int cached = -1;
  if (mapped != MAP_FAILED && writer >= 0 &&
      pwrite(writer, data.data(), kSize, 0) == static_cast<ssize_t>(kSize)) {
    unsigned char resident[kSize / 4096] = {};
    if (mincore(mapped, kSize, resident) == 0) {
      cached = 0;
      for (unsigned char page : resident)
        cached += page & 1;
    }
  }
  if (writer >= 0) close(writer);
  if (mapped != MAP_FAILED) munmap(mapped, kSize);
  close(reader);
  return cached;
}

// Linux 6.6 is the first to drop other handles' pages on a write that
// bypasses the page cache; the mount bypasses it only from there on.
bool KernelAtLeast(int major, int minor) {
  struct utsname name {};
  int have_major = 0, have_minor = 0;
  if (uname(&name) != 0 || std::sscanf(name.release, "%d.%d", &have_major, &have_minor) != 2) {
    return false;
  }
  return have_major > major || (have_major == major && have_minor >= minor);
}

TEST_F(PosixTest, CreateWriteCloseReadBack) {
  ASSERT_NO_FATAL_FAILURE(CheckCreateWriteCloseReadBack());
  EXPECT_EQ(Slurp(R("f")), "hello");
  EXPECT_EQ(Names(root_), std::vector<std::string>{"f"}) << "no temporary name left";
}

TEST_F(PosixTest, ExclusiveCreate) {
  int fd = open(M("x").c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(Errno(open(M("x").c_str(), O_CREAT | O_EXCL | O_RDWR, 0600)), EEXIST);
  char name[] = "/tmp-placeholder-XXXXXX";
  std::string pattern = mnt_ + name;
  fd = mkstemp(pattern.data());
  ASSERT_GE(fd, 0) << "mkstemp: " << std::strerror(errno);
  EXPECT_EQ(fchmod(fd, 0644), 0) << "rsync sets the mode of its temporary file";
  ASSERT_EQ(write(fd, "t", 1), 1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(pattern), "t");
}

TEST_F(PosixTest, PartialWritesKeepTheRest) {
  Spit(R("f"), "0123456789");
  int fd = open(M("f").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, "ab", 2, 3), 2);
  char buffer[16] = {};
  ASSERT_EQ(pread(fd, buffer, sizeof buffer, 0), 10);
  EXPECT_EQ(std::string(buffer, 10), "012ab56789");
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(R("f")), "012ab56789");
}

TEST_F(PosixTest, AppendAndSeek) {
  Spit(R("f"), "one\n");
  int fd = open(M("f").c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "two\n", 4), 4);
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(M("f")), "one\ntwo\n");
  fd = open(M("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lseek(fd, 4, SEEK_SET), 4);
  EXPECT_EQ(ReadFd(fd), "two\n");
  ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
  EXPECT_EQ(ReadFd(fd), "one\ntwo\n");
  close(fd);
}

TEST_F(PosixTest, TruncateAndSparseGrowth) {
  Spit(R("f"), "0123456789");
  ASSERT_EQ(truncate(M("f").c_str(), 4), 0);
  EXPECT_EQ(Slurp(R("f")), "0123");
  int fd = open(M("f").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 1 << 20), 0);
  struct stat st {};
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_size, 1 << 20);
  EXPECT_EQ(st.st_blksize, 4096);
  ASSERT_EQ(close(fd), 0);
  std::string data = Slurp(R("f"));
  ASSERT_EQ(data.size(), 1u << 20);
  EXPECT_EQ(data.substr(0, 5), std::string("0123\0", 5));
}

TEST_F(PosixTest, OpenFileSurvivesUnlink) {
  Spit(R("f"), "hello\n");
  int fd = open(M("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(unlink(M("f").c_str()), 0);
  EXPECT_EQ(Errno(access(M("f").c_str(), F_OK)), ENOENT);
  EXPECT_TRUE(Names(mnt_).empty());
  struct stat st {};
  EXPECT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_size, 6);
  EXPECT_EQ(ReadFd(fd), "hello\n");
  close(fd);
}

TEST_F(PosixTest, OpenFileKeepsItsContentAcrossRenameOver) {
  Spit(R("f"), "version1");
  int fd = open(M("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  Spit(M("f.tmp"), "version2!");
  ASSERT_EQ(rename(M("f.tmp").c_str(), M("f").c_str()), 0);
  EXPECT_EQ(ReadFd(fd), "version1");
  close(fd);
  EXPECT_EQ(Slurp(M("f")), "version2!");
}

TEST_F(PosixTest, RenameFilesAndDirectories) {
  ASSERT_EQ(mkdir(M("a").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(M("b").c_str(), 0755), 0);
  Spit(M("a/f"), "f");
  ASSERT_EQ(rename(M("a/f").c_str(), M("b/g").c_str()), 0);
  EXPECT_EQ(Slurp(M("b/g")), "f");
  ASSERT_EQ(rename(M("b").c_str(), M("c").c_str()), 0);
  EXPECT_EQ(Slurp(M("c/g")), "f");
  ASSERT_EQ(rename(M("a").c_str(), M("c").c_str()), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  ASSERT_EQ(rename(M("c/g").c_str(), M("a").c_str()), -1);
  EXPECT_EQ(errno, EISDIR);
  ASSERT_EQ(rename(M("a").c_str(), M("c/g").c_str()), -1);
  EXPECT_EQ(errno, ENOTDIR);
  Spit(M("h"), "h");
  ASSERT_EQ(rename(M("h").c_str(), M("c/g").c_str()), 0) << "a file replaces a file";
  EXPECT_EQ(Slurp(M("c/g")), "h");
}

TEST_F(PosixTest, DirectoryErrors) {
  ASSERT_NO_FATAL_FAILURE(CheckDirectoryErrors());
}

TEST_F(PosixTest, NamesLongerThan255BytesAreRefused) {
  std::string longest(255, 'n');
  Spit(M(longest), "x");
  EXPECT_EQ(Slurp(M(longest)), "x");
  std::string too_long(256, 'n');
  EXPECT_EQ(Errno(open(M(too_long).c_str(), O_CREAT | O_WRONLY, 0644)), ENAMETOOLONG);
  EXPECT_EQ(Errno(mkdir(M(too_long).c_str(), 0755)), ENAMETOOLONG);
  struct statvfs st {};
  ASSERT_EQ(statvfs(mnt_.c_str(), &st), 0);
  EXPECT_EQ(st.f_namemax, 255u);
}

TEST_F(PosixTest, LinksAndSpecialFilesAreRefusedAtOnce) {
  ASSERT_NO_FATAL_FAILURE(CheckLinksAndSpecialFilesRefused());
}

TEST_F(PosixTest, ModesAndOwnersAreAcceptedWithoutEffect) {
  Spit(M("f"), "x");
  EXPECT_EQ(chmod(M("f").c_str(), 0755), 0);
  EXPECT_EQ(chown(M("f").c_str(), 12345, 12345), 0);
  struct stat st {};
  ASSERT_EQ(stat(M("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u) << "the mount's own modes stay";
  EXPECT_EQ(st.st_uid, getuid());
  ASSERT_EQ(stat(mnt_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST_F(PosixTest, TimesAreKept) {
  Spit(M("f"), "x");
  struct timeval times[2] = {{1500000000, 0}, {1600000000, 0}};
  ASSERT_EQ(utimes(M("f").c_str(), times), 0);
  struct stat st {};
  ASSERT_EQ(stat(M("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1600000000);
  EXPECT_EQ(st.st_atim.tv_sec, 1500000000);
  // Times set on an open file with changes survive its upload (cp -p, tar).
  int fd = open(M("g").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "g", 1), 1);
  struct timespec ts[2] = {{1400000000, 0}, {1400000000, 0}};
  ASSERT_EQ(futimens(fd, ts), 0);
  ASSERT_EQ(close(fd), 0);
  ASSERT_EQ(stat(R("g").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1400000000);
}

TEST_F(PosixTest, ListingsShowEveryEntryOnce) {
  for (int i = 0; i < 300; ++i)
    Spit(R("f" + std::to_string(i)), "");
  ASSERT_EQ(mkdir(M("sub").c_str(), 0755), 0);
  std::vector<std::string> names = Names(mnt_);
  EXPECT_EQ(names.size(), 301u);
  EXPECT_TRUE(std::adjacent_find(names.begin(), names.end()) == names.end());
}

TEST_F(PosixTest, WriteOnlyHandlesLeaveNoCopyInTheKernelsCache) {
  if (!KernelAtLeast(6, 6)) {
    GTEST_SKIP() << "kernel before 6.6: every handle keeps the page cache";
  }
  EXPECT_EQ(CachedPagesAfterWriting(M("w"), O_WRONLY), 0) << "the staging file has them";
  EXPECT_EQ(CachedPagesAfterWriting(M("rw"), O_RDWR), 16) << "a handle that can read keeps them";
  EXPECT_EQ(Slurp(R("w")), std::string(64 << 10, 'x'));
}

// With --writeback-cache the kernel gathers writes in its own pages, also
// those of write-only handles, and hands them over at flush and fsync.
class WritebackCacheTest : public MountTest {
 protected:
  void SetUp() override { Mount({"--writeback-cache"}); }
};

TEST_F(WritebackCacheTest, SmallWritesOfAWriteOnlyHandleArriveWhole) {
  int fd = open(M("f").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    ASSERT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    expected += line;
  }
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(R("f")), expected) << "stored whole once close returns";
  EXPECT_EQ(Slurp(M("f")), expected);
  EXPECT_EQ(Names(root_), std::vector<std::string>{"f"}) << "no temporary name left";
}

TEST_F(WritebackCacheTest, WriteOnlyHandlesKeepTheKernelsPages) {
  EXPECT_EQ(CachedPagesAfterWriting(M("w"), O_WRONLY), 16);
  EXPECT_EQ(Slurp(R("w")), std::string(64 << 10, 'x'));
}

TEST_F(WritebackCacheTest, PartialWritesAndFsyncKeepTheRest) {
  Spit(R("f"), "0123456789");
  int fd = open(M("f").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, "ab", 2, 3), 2);
  ASSERT_EQ(fsync(fd), 0);
  EXPECT_EQ(Slurp(R("f")), "012ab56789") << "fsync hands the kernel's pages over first";
  ASSERT_EQ(pwrite(fd, "!", 1, 10), 1);
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(R("f")), "012ab56789!");
}

}  // namespace
