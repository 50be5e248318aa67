// What the mount promises for any plug-in that keeps the protocol's
// contract, checked through a real mount of each plug-in built here: the
// local disk and the RAM disk. Only the mount is looked at, never the
// storage behind it, so nothing here depends on one plug-in's answers.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/fuse/mount_fixture.h"
#include "tests/support/files.h"

namespace {

using plughost_test::Errno;
using plughost_test::MountTest;
using plughost_test::Names;
using plughost_test::ReadFd;
using plughost_test::Slurp;
using plughost_test::Spit;
using plughost_test::WriteFd;

struct PluginUnderTest {
  const char* name;
  const char* path;
};

class ContractTest : public MountTest, public ::testing::WithParamInterface<PluginUnderTest> {
 protected:
  void SetUp() override {
    plugin_ = GetParam().path;
    Mount({});
  }
};

TEST_P(ContractTest, CreateWriteCloseReadBack) {
  ASSERT_NO_FATAL_FAILURE(CheckCreateWriteCloseReadBack());
  EXPECT_EQ(Names(mnt_), std::vector<std::string>{"f"}) << "no temporary name shows";
}

TEST_P(ContractTest, ExclusiveCreate) {
  int fd = open(M("x").c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(Errno(open(M("x").c_str(), O_CREAT | O_EXCL | O_RDWR, 0600)), EEXIST);
  std::string pattern = M("tmp-placeholder-XXXXXX");
  fd = mkstemp(pattern.data());
  ASSERT_GE(fd, 0) << "mkstemp: " << std::strerror(errno);
  ASSERT_EQ(write(fd, "t", 1), 1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(pattern), "t");
}

TEST_P(ContractTest, PartialWritesKeepTheRest) {
  Spit(M("f"), "0123456789");
  int fd = open(M("f").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, "ab", 2, 3), 2);
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(M("f")), "012ab56789");
  fd = open(M("f").c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "!", 1), 1);
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(Slurp(M("f")), "012ab56789!");
}

TEST_P(ContractTest, TruncateShrinksAndGrows) {
  Spit(M("f"), "0123456789");
  ASSERT_EQ(truncate(M("f").c_str(), 4), 0);
  EXPECT_EQ(Slurp(M("f")), "0123");
  ASSERT_EQ(truncate(M("f").c_str(), 8), 0);
  EXPECT_EQ(Slurp(M("f")), std::string("0123\0\0\0\0", 8));
}

TEST_P(ContractTest, OpenFileSurvivesUnlink) {
  Spit(M("f"), "hello\n");
  int fd = open(M("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(unlink(M("f").c_str()), 0);
  EXPECT_EQ(Errno(access(M("f").c_str(), F_OK)), ENOENT);
  EXPECT_TRUE(Names(mnt_).empty());
  EXPECT_EQ(ReadFd(fd), "hello\n");
  close(fd);
  EXPECT_TRUE(Names(mnt_).empty()) << "nothing is left behind at the last close";
}

TEST_P(ContractTest, AReaderHalfwayThroughALargeFileKeepsTheOldContent) {
  // Half of a 4 MiB file is read, the file is replaced by a rename over it,
  // and the reader goes on: the old content, whole, never a mix.
  const std::string old_content = test_support::Pattern(4 << 20, 1);
  const std::string new_content = test_support::Pattern(4 << 20, 2);
  Spit(M("f"), old_content);
  int fd = open(M("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::string got(old_content.size() / 2, '\0');
  ASSERT_EQ(read(fd, got.data(), got.size()), static_cast<ssize_t>(got.size()));
  Spit(M("f.tmp"), new_content);
  ASSERT_EQ(rename(M("f.tmp").c_str(), M("f").c_str()), 0);
  got += ReadFd(fd);
  close(fd);
  EXPECT_EQ(got.size(), old_content.size());
  EXPECT_TRUE(got == old_content) << "the old content, byte-exact";
  EXPECT_TRUE(Slurp(M("f")) == new_content);
  EXPECT_EQ(Names(mnt_), std::vector<std::string>{"f"});
}

TEST_P(ContractTest, RenameFilesAndDirectories) {
  ASSERT_EQ(mkdir(M("a").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(M("b").c_str(), 0755), 0);
  Spit(M("a/f"), "f");
  ASSERT_EQ(rename(M("a/f").c_str(), M("b/g").c_str()), 0);
  EXPECT_EQ(Slurp(M("b/g")), "f");
  ASSERT_EQ(rename(M("b").c_str(), M("c").c_str()), 0);
  EXPECT_EQ(Slurp(M("c/g")), "f");
  EXPECT_EQ(Errno(rename(M("a").c_str(), M("c").c_str())), ENOTEMPTY);
  EXPECT_EQ(Errno(rename(M("c/g").c_str(), M("a").c_str())), EISDIR);
  EXPECT_EQ(Errno(rename(M("a").c_str(), M("c/g").c_str())), ENOTDIR);
  Spit(M("h"), "h");
  ASSERT_EQ(rename(M("h").c_str(), M("c/g").c_str()), 0) << "a file replaces a file";
  EXPECT_EQ(Slurp(M("c/g")), "h");
  EXPECT_EQ(Names(mnt_), (std::vector<std::string>{"a", "c"}));
}

TEST_P(ContractTest, DirectoryErrors) {
  ASSERT_NO_FATAL_FAILURE(CheckDirectoryErrors());
  EXPECT_TRUE(Names(mnt_).empty());
}

TEST_P(ContractTest, OverlongNamesAndSpecialFilesAreRefusedAtOnce) {
  std::string too_long(256, 'n');
  EXPECT_EQ(Errno(open(M(too_long).c_str(), O_CREAT | O_WRONLY, 0644)), ENAMETOOLONG);
  EXPECT_EQ(Errno(mkdir(M(too_long).c_str(), 0755)), ENAMETOOLONG);
  struct statvfs vfs {};
  ASSERT_EQ(statvfs(mnt_.c_str(), &vfs), 0);
  EXPECT_EQ(vfs.f_namemax, 255u);
  ASSERT_NO_FATAL_FAILURE(CheckLinksAndSpecialFilesRefused());
}

TEST_P(ContractTest, TimesAreKept) {
  Spit(M("f"), "x");
  struct timespec times[2] = {{1500000000, 0}, {1600000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, M("f").c_str(), times, 0), 0);
  struct stat st {};
  ASSERT_EQ(stat(M("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1600000000);
}

TEST_P(ContractTest, WriteReadRenameDeleteRoundTrip) {
  // Large enough to cross every chunk and read-ahead boundary many times.
  const std::string data = test_support::Pattern((24 << 20) + 12345, 7);
  ASSERT_EQ(mkdir(M("dir").c_str(), 0755), 0);
  int fd = open(M("big").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(WriteFd(fd, data, 1 << 20));
  ASSERT_EQ(close(fd), 0);
  struct stat st {};
  ASSERT_EQ(stat(M("big").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(data.size()));
  EXPECT_TRUE(Slurp(M("big")) == data) << "read back byte-exact";

  ASSERT_EQ(rename(M("big").c_str(), M("dir/moved").c_str()), 0);
  EXPECT_EQ(Errno(access(M("big").c_str(), F_OK)), ENOENT);
  fd = open(M("dir/moved").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  // Ranges: the start, across the middle, the last byte.
  for (off_t offset : {off_t{0}, static_cast<off_t>(data.size() / 2 - 1000),
                       static_cast<off_t>(data.size() - 1)}) {
    char buffer[4096];
    std::size_t want = std::min<std::size_t>(sizeof buffer, data.size() - offset);
    ASSERT_EQ(pread(fd, buffer, want, offset), static_cast<ssize_t>(want)) << offset;
    EXPECT_EQ(std::string(buffer, want), data.substr(static_cast<std::size_t>(offset), want))
        << "at " << offset;
  }
  close(fd);
  EXPECT_TRUE(Slurp(M("dir/moved")) == data);

  ASSERT_EQ(unlink(M("dir/moved").c_str()), 0);
  EXPECT_TRUE(Names(M("dir")).empty());
  ASSERT_EQ(rmdir(M("dir").c_str()), 0);
  EXPECT_TRUE(Names(mnt_).empty());
}

TEST_P(ContractTest, WritesThroughAWriteOnlyHandleReachCachedReadersAndMappingsAtOnce) {
  // Write-only handles bypass the kernel's page cache (the staging file is
  // the cache): pages other handles hold must still show every write.
  std::string expected = test_support::Pattern(64 << 10, 3);
  Spit(M("f"), expected);
  int reader = open(M("f").c_str(), O_RDONLY);
  ASSERT_GE(reader, 0);
  EXPECT_TRUE(ReadFd(reader) == expected) << "the reader's pages are cached now";
  const std::size_t mapped_size = expected.size();
  void* mapped = mmap(nullptr, mapped_size, PROT_READ, MAP_SHARED, reader, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  const char* view = static_cast<const char*>(mapped);
  ASSERT_EQ(view[5000], expected[5000]);

  int writer = open(M("f").c_str(), O_WRONLY);
  ASSERT_GE(writer, 0);
  // Neither page- nor request-aligned.
  const std::string patch = test_support::Pattern(10007, 4);
  ASSERT_EQ(pwrite(writer, patch.data(), patch.size(), 4093), static_cast<ssize_t>(patch.size()));
  expected.replace(4093, patch.size(), patch);
  std::string seen(expected.size(), '\0');
  ASSERT_EQ(pread(reader, seen.data(), seen.size(), 0), static_cast<ssize_t>(seen.size()));
  EXPECT_TRUE(seen == expected) << "the reader sees the write before the writer closes";
  EXPECT_TRUE(std::string(view, mapped_size) == expected) << "and so does the mapping";
  ASSERT_EQ(close(writer), 0);

  writer = open(M("f").c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(write(writer, "tail", 4), 4);
  struct stat st {};
  ASSERT_EQ(fstat(writer, &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(expected.size() + 4));
  ASSERT_EQ(close(writer), 0);
  expected += "tail";
  munmap(mapped, mapped_size);
  ASSERT_EQ(pread(reader, seen.data(), 4, static_cast<off_t>(expected.size() - 4)), 4);
  EXPECT_EQ(seen.substr(0, 4), "tail");
  close(reader);
  EXPECT_TRUE(Slurp(M("f")) == expected);
}

TEST_P(ContractTest, FsyncSucceedsOnNewChangedAndUnchangedFiles) {
  // Whatever the plug-in's storage is: a root directory given to a plug-in
  // that does not serve it must not make fsync sync (and fail on) local paths.
  int fd = open(M("synced").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "hello", 5), 5);
  EXPECT_EQ(fsync(fd), 0) << "new: " << std::strerror(errno);
  EXPECT_EQ(fsync(fd), 0) << "unchanged since: " << std::strerror(errno);
  ASSERT_EQ(pwrite(fd, "J", 1, 0), 1);
  EXPECT_EQ(fdatasync(fd), 0) << "changed: " << std::strerror(errno);
  ASSERT_EQ(close(fd), 0);
  fd = open(M("synced").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fsync(fd), 0) << "read-only: " << std::strerror(errno);
  close(fd);
  EXPECT_EQ(Slurp(M("synced")), "Jello");
}

TEST_P(ContractTest, ALargeStreamingWriteSyncedAndChangedHalfwayKeepsEveryByte) {
  // Past the size from which staged data is handed to the disk early and
  // dropped from memory behind each upload: what comes back must be whole.
  std::string expected = test_support::Pattern((72 << 20) + 4099, 5);
  const std::size_t half = 40 << 20;
  int writer = open(M("stream").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(writer, 0);
  ASSERT_TRUE(WriteFd(writer, expected.substr(0, half), 1 << 20));
  ASSERT_EQ(fsync(writer), 0) << std::strerror(errno);
  ASSERT_TRUE(WriteFd(writer, expected.substr(half), 1 << 20));
  ASSERT_EQ(close(writer), 0);
  EXPECT_TRUE(Slurp(M("stream")) == expected);

  // A read-write handle changes the start, reads it back before its close,
  // and grows the file.
  int editor = open(M("stream").c_str(), O_RDWR);
  ASSERT_GE(editor, 0);
  const std::string patch = test_support::Pattern((3 << 20) + 7, 6);
  ASSERT_EQ(pwrite(editor, patch.data(), patch.size(), 4097), static_cast<ssize_t>(patch.size()));
  expected.replace(4097, patch.size(), patch);
  ASSERT_EQ(fsync(editor), 0);
  std::string seen(16 << 20, '\0');
  ASSERT_EQ(pread(editor, seen.data(), seen.size(), 0), static_cast<ssize_t>(seen.size()));
  EXPECT_TRUE(seen == expected.substr(0, seen.size()));
  const std::string tail = test_support::Pattern(9 << 20, 8);
  ASSERT_EQ(pwrite(editor, tail.data(), tail.size(), static_cast<off_t>(expected.size())),
            static_cast<ssize_t>(tail.size()));
  expected += tail;
  ASSERT_EQ(close(editor), 0);
  EXPECT_TRUE(Slurp(M("stream")) == expected);
}

INSTANTIATE_TEST_SUITE_P(Plugins, ContractTest,
                         ::testing::Values(PluginUnderTest{"localdisk", LD_PLUGIN_PATH},
                                           PluginUnderTest{"memory", MEMORY_PLUGIN_PATH}),
                         [](const ::testing::TestParamInfo<PluginUnderTest>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
