// The mount's file system against the real plug-in, without the kernel: each
// operation as the kernel bridge would call it, on a fresh temporary root.
#include "host/mount/mount_fs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/plugin.h"

namespace {

namespace fs = std::filesystem;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void Spit(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary);
  out << data;
}

class MountFsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    if (tz != nullptr) saved_tz_ = tz;
    had_tz_ = tz != nullptr;
    setenv("TZ", "UTC", 1);
    tzset();
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/mount_fs_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    work_ = pattern;
    root_ = work_ + "/root";
    cache_ = work_ + "/cache";
    fs::create_directory(root_);
    fs::create_directory(cache_);
    plugin_ = std::make_unique<plughost::Plugin>(plughost::Plugin::Load(LD_PLUGIN_PATH));
    protocol_ = plugin_->CreateProtocol(&config_);
    protocol_->SetOpt("root_path", root_.c_str());
    char buffer[4096] = {};
    int length = sizeof buffer;
    ASSERT_EQ(protocol_->GetRootID(buffer, &length), SUCCESS);
    mount_ = std::make_unique<plughost::MountFs>(protocol_.get(), std::string(buffer, length),
                                                 cache_, getuid(), getgid());
  }

  void TearDown() override {
    mount_.reset();
    protocol_.reset();
    plugin_.reset();
    if (!work_.empty()) fs::remove_all(work_);
    if (had_tz_) {
      setenv("TZ", saved_tz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

  std::string Root(const std::string& relative) const { return root_ + "/" + relative; }

  std::uint64_t OpenOk(const char* path, int flags) {
    std::uint64_t fh = 0;
    bool keep = false;
    EXPECT_EQ(mount_->Open(path, flags, &fh, &keep), 0) << path;
    return fh;
  }

  std::string ReadAll(std::uint64_t fh, std::size_t chunk = 1 << 20) {
    std::string out;
    std::vector<char> buffer(chunk);
    for (;;) {
      long long n = mount_->Read(fh, buffer.data(), buffer.size(), static_cast<off_t>(out.size()));
      if (n <= 0) break;
      out.append(buffer.data(), static_cast<std::size_t>(n));
    }
    return out;
  }

  std::string work_, root_, cache_;
  std::string saved_tz_;
  bool had_tz_ = false;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<plughost::Plugin> plugin_;
  plughost::ProtocolHandle protocol_;
  std::unique_ptr<plughost::MountFs> mount_;
};

TEST_F(MountFsTest, AttributesComeFromTheRecord) {
  fs::create_directory(Root("d"));
  Spit(Root("d/f"), "hello");
  struct timeval times[2] = {{1600000000, 0}, {1650000000, 0}};
  ASSERT_EQ(utimes(Root("d/f").c_str(), times), 0);

  struct stat st {};
  ASSERT_EQ(mount_->GetAttr("/d/f", 0, &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(st.st_uid, getuid());
  EXPECT_EQ(st.st_gid, getgid());
  EXPECT_EQ(st.st_atim.tv_sec, 1600000000);
  EXPECT_EQ(st.st_mtim.tv_sec, 1650000000);

  ASSERT_EQ(mount_->GetAttr("/d", 0, &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  ASSERT_EQ(mount_->GetAttr("/", 0, &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(MountFsTest, MissingEntryIsENOENT) {
  struct stat st {};
  EXPECT_EQ(mount_->GetAttr("/missing", 0, &st), -ENOENT);
  std::uint64_t fh = 0;
  bool keep = false;
  EXPECT_EQ(mount_->Open("/missing", O_RDONLY, &fh, &keep), -ENOENT);
  EXPECT_EQ(mount_->Unlink("/missing"), -ENOENT);
  std::vector<plughost::DirEntry> entries;
  EXPECT_EQ(mount_->ListDir("/missing", &entries), -ENOENT);
  EXPECT_EQ(mount_->OpenNodes(), 0u);
}

TEST_F(MountFsTest, UnknownHandlesAreRefused) {
  char buffer[4];
  EXPECT_EQ(mount_->Read(12345, buffer, sizeof buffer, 0), -EBADF);
  EXPECT_EQ(mount_->Write(12345, buffer, sizeof buffer, 0), -EBADF);
  EXPECT_EQ(mount_->Flush(12345), -EBADF);
  EXPECT_EQ(mount_->Release(12345), -EBADF);
  Spit(Root("f"), "x");
  std::uint64_t fh = OpenOk("/f", O_RDONLY);
  EXPECT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(mount_->Release(fh), -EBADF) << "a second release";
}

TEST_F(MountFsTest, ListingCarriesAttributesAndNoDotEntries) {
  Spit(Root("a"), "12345");
  fs::create_directory(Root("sub"));
  Spit(Root(".hidden"), "");
  std::vector<plughost::DirEntry> entries;
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  std::sort(entries.begin(), entries.end(),
            [](const auto& x, const auto& y) { return x.name < y.name; });
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].name, ".hidden");
  EXPECT_EQ(entries[1].name, "a");
  EXPECT_EQ(entries[1].st.st_size, 5);
  EXPECT_TRUE(S_ISREG(entries[1].st.st_mode));
  EXPECT_EQ(entries[2].name, "sub");
  EXPECT_TRUE(S_ISDIR(entries[2].st.st_mode));
}

TEST_F(MountFsTest, ReadsAreClampedToTheSize) {
  Spit(Root("f"), "0123456789");
  std::uint64_t fh = OpenOk("/f", O_RDONLY);
  char buffer[64] = {};
  EXPECT_EQ(mount_->Read(fh, buffer, sizeof buffer, 4), 6);
  EXPECT_EQ(std::string(buffer, 6), "456789");
  EXPECT_EQ(mount_->Read(fh, buffer, sizeof buffer, 10), 0);
  EXPECT_EQ(mount_->Read(fh, buffer, sizeof buffer, 1000), 0);
  EXPECT_EQ(mount_->Release(fh), 0);
}

TEST_F(MountFsTest, ReadSeesAFileThatGrewAfterTheOpen) {
  Spit(Root("f"), "abc");
  std::uint64_t fh = OpenOk("/f", O_RDONLY);
  Spit(Root("f"), "abcdef");
  char buffer[16] = {};
  EXPECT_EQ(mount_->Read(fh, buffer, sizeof buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 3), "def");
  mount_->Release(fh);
}

TEST_F(MountFsTest, ReadOfAFileTruncatedMeanwhileIsCancelledAndShort) {
  // The plug-in hands out empty chunks past the end until cancelled; the
  // mount must cancel instead of hanging.
  Spit(Root("f"), std::string(2000000, 'x'));
  std::uint64_t fh = OpenOk("/f", O_RDONLY);
  ASSERT_EQ(truncate(Root("f").c_str(), 600000), 0);
  std::vector<char> buffer(1 << 20);
  EXPECT_EQ(mount_->Read(fh, buffer.data(), buffer.size(), 0), 600000);
  EXPECT_EQ(mount_->Read(fh, buffer.data(), buffer.size(), 1000000), 0);
  mount_->Release(fh);
}

TEST_F(MountFsTest, LargeReadsCrossChunkBoundaries) {
  std::string data(3 * 524288 + 17, '\0');
  for (std::size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>(i * 31 + 7);
  Spit(Root("big"), data);
  std::uint64_t fh = OpenOk("/big", O_RDONLY);
  EXPECT_TRUE(ReadAll(fh) == data);
  EXPECT_TRUE(ReadAll(fh, 4096 * 3 + 1) == data);
  mount_->Release(fh);
}

TEST_F(MountFsTest, CreatedFileExistsAtOnceAndIsUploadedAtFlush) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/new", O_WRONLY | O_CREAT, &fh), 0);
  EXPECT_TRUE(fs::exists(Root("new")));
  EXPECT_EQ(fs::file_size(Root("new")), 0u);
  ASSERT_EQ(mount_->Write(fh, "hello ", 6, 0), 6);
  ASSERT_EQ(mount_->Write(fh, "world", 5, 6), 5);
  // Not there before the flush: the protocol only takes whole files.
  EXPECT_EQ(Slurp(Root("new")), "");
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr("/new", 0, &st), 0);
  EXPECT_EQ(st.st_size, 11) << "the size of the staged file while open";
  ASSERT_EQ(mount_->Flush(fh), 0);
  EXPECT_EQ(Slurp(Root("new")), "hello world");
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(mount_->OpenNodes(), 0u);
  EXPECT_TRUE(fs::is_empty(cache_));
}

TEST_F(MountFsTest, WritingIntoAnExistingFileKeepsTheRest) {
  Spit(Root("f"), "0123456789");
  std::uint64_t fh = OpenOk("/f", O_RDWR);
  ASSERT_EQ(mount_->Write(fh, "ab", 2, 4), 2);
  char buffer[16] = {};
  EXPECT_EQ(mount_->Read(fh, buffer, sizeof buffer, 0), 10);
  EXPECT_EQ(std::string(buffer, 10), "0123ab6789");
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "0123ab6789");
}

TEST_F(MountFsTest, AppendAndTruncateOnOpen) {
  Spit(Root("f"), "hello\n");
  std::uint64_t fh = OpenOk("/f", O_WRONLY | O_APPEND);
  ASSERT_EQ(mount_->Write(fh, "world\n", 6, 6), 6);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "hello\nworld\n");

  fh = OpenOk("/f", O_WRONLY | O_TRUNC);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "");
}

TEST_F(MountFsTest, TruncateByNameShrinksAndExtends) {
  Spit(Root("f"), "0123456789");
  ASSERT_EQ(mount_->Truncate("/f", 0, 4), 0);
  EXPECT_EQ(Slurp(Root("f")), "0123");
  ASSERT_EQ(mount_->Truncate("/f", 0, 6), 0);
  EXPECT_EQ(Slurp(Root("f")), std::string("0123\0\0", 6));
  ASSERT_EQ(mount_->Truncate("/f", 0, 0), 0);
  EXPECT_EQ(Slurp(Root("f")), "");
  EXPECT_EQ(mount_->Truncate("/missing", 0, 0), -ENOENT);
  EXPECT_EQ(mount_->OpenNodes(), 0u);
}

TEST_F(MountFsTest, TruncateOfAnOpenFileWaitsForTheFlush) {
  Spit(Root("f"), "0123456789");
  std::uint64_t fh = OpenOk("/f", O_RDWR);
  ASSERT_EQ(mount_->Truncate(nullptr, fh, 3), 0);
  EXPECT_EQ(Slurp(Root("f")), "0123456789");
  ASSERT_EQ(mount_->Fsync(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "012");
  mount_->Release(fh);
}

TEST_F(MountFsTest, UploadFailureIsReportedByFlushAndFsync) {
  fs::create_directory(Root("d"));
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/d/f", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "data", 4, 0), 4);
  fs::remove_all(Root("d"));
  EXPECT_EQ(mount_->Fsync(fh), -ENOENT);
  EXPECT_EQ(mount_->Flush(fh), -ENOENT);
  // Once the directory is back, the next flush delivers the data.
  fs::create_directory(Root("d"));
  EXPECT_EQ(mount_->Flush(fh), 0);
  EXPECT_EQ(Slurp(Root("d/f")), "data");
  EXPECT_EQ(mount_->Release(fh), 0);
}

TEST_F(MountFsTest, OpenFilesFollowARename) {
  fs::create_directory(Root("a"));
  fs::create_directory(Root("b"));
  Spit(Root("a/f"), "old");
  std::uint64_t fh = OpenOk("/a/f", O_RDWR);
  ASSERT_EQ(mount_->Write(fh, "new", 3, 0), 3);
  ASSERT_EQ(mount_->Rename("/a", "/c", 0), 0);
  ASSERT_EQ(mount_->Rename("/c/f", "/b/g", 0), 0);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("b/g")), "new");
  EXPECT_FALSE(fs::exists(Root("c/f")));
  EXPECT_FALSE(fs::exists(Root("a")));
}

TEST_F(MountFsTest, RemovedOpenFileIsNotUploadedAgain) {
  Spit(Root("f"), "old");
  std::uint64_t fh = OpenOk("/f", O_RDWR);
  ASSERT_EQ(mount_->Write(fh, "new", 3, 0), 3);
  ASSERT_EQ(mount_->Unlink("/f"), 0);
  char buffer[8] = {};
  EXPECT_EQ(mount_->Read(fh, buffer, sizeof buffer, 0), 3) << "still readable while open";
  struct stat st {};
  EXPECT_EQ(mount_->GetAttr(nullptr, fh, &st), 0);
  EXPECT_EQ(mount_->Flush(fh), 0);
  EXPECT_EQ(mount_->Release(fh), 0);
  EXPECT_FALSE(fs::exists(Root("f")));
}

TEST_F(MountFsTest, RenameOverAnOpenFileDropsItsPendingData) {
  Spit(Root("src"), "source");
  Spit(Root("dst"), "target");
  std::uint64_t fh = OpenOk("/dst", O_RDWR);
  ASSERT_EQ(mount_->Write(fh, "xx", 2, 0), 2);
  ASSERT_EQ(mount_->Rename("/src", "/dst", 0), 0);
  EXPECT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("dst")), "source");
}

TEST_F(MountFsTest, RenameFlags) {
  Spit(Root("a"), "a");
  Spit(Root("b"), "b");
  EXPECT_EQ(mount_->Rename("/a", "/b", RENAME_NOREPLACE), -EEXIST);
  EXPECT_EQ(mount_->Rename("/a", "/b", RENAME_EXCHANGE), -EINVAL);
  EXPECT_EQ(mount_->Rename("/a", "/c", RENAME_NOREPLACE), 0);
  EXPECT_EQ(Slurp(Root("c")), "a");
  EXPECT_EQ(mount_->Rename("/missing", "/d", 0), -ENOENT);
}

TEST_F(MountFsTest, DirectoriesAndTheirErrors) {
  EXPECT_EQ(mount_->Mkdir("/d"), 0);
  EXPECT_TRUE(fs::is_directory(Root("d")));
  EXPECT_EQ(mount_->Mkdir("/missing/d"), -ENOENT);
  Spit(Root("file"), "");
  // The plug-in accepts an existing name of any kind; a file is not a directory.
  EXPECT_EQ(mount_->Mkdir("/file"), -EEXIST);
  Spit(Root("d/x"), "");
  // Refused by the plug-in (ACCESS_DENIED): EACCES, not ENOTEMPTY.
  EXPECT_EQ(mount_->Rmdir("/d"), -EACCES);
  EXPECT_EQ(mount_->Unlink("/d/x"), 0);
  EXPECT_EQ(mount_->Rmdir("/d"), 0);
  EXPECT_FALSE(fs::exists(Root("d")));
}

TEST_F(MountFsTest, TimesAreSetAndReadBack) {
  Spit(Root("f"), "x");
  struct timespec times[2] = {{1500000000, 0}, {1500003600, 0}};
  ASSERT_EQ(mount_->Utimens("/f", 0, times), 0);
  struct stat direct {};
  ASSERT_EQ(stat(Root("f").c_str(), &direct), 0);
  EXPECT_EQ(direct.st_atim.tv_sec, 1500000000);
  EXPECT_EQ(direct.st_mtim.tv_sec, 1500003600);
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr("/f", 0, &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1500003600);

  struct timespec omit_access[2] = {{0, UTIME_OMIT}, {1400000000, 0}};
  ASSERT_EQ(mount_->Utimens("/f", 0, omit_access), 0);
  ASSERT_EQ(stat(Root("f").c_str(), &direct), 0);
  EXPECT_EQ(direct.st_atim.tv_sec, 1500000000);
  EXPECT_EQ(direct.st_mtim.tv_sec, 1400000000);
  EXPECT_EQ(mount_->Utimens("/missing", 0, times), -ENOENT);
}

TEST_F(MountFsTest, TimesSetWhileDirtySurviveTheUpload) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/f", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "data", 4, 0), 4);
  struct timespec times[2] = {{1300000000, 0}, {1300000000, 0}};
  ASSERT_EQ(mount_->Utimens(nullptr, fh, times), 0);
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr(nullptr, fh, &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1300000000);
  ASSERT_EQ(mount_->Release(fh), 0);
  struct stat direct {};
  ASSERT_EQ(stat(Root("f").c_str(), &direct), 0);
  EXPECT_EQ(direct.st_mtim.tv_sec, 1300000000);
  EXPECT_EQ(Slurp(Root("f")), "data");
}

TEST_F(MountFsTest, StatfsReportsTheQuota) {
  struct statvfs st {};
  ASSERT_EQ(mount_->Statfs(&st), 0);
  unsigned long long total = 0, used = 0;
  ASSERT_EQ(protocol_->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(st.f_blocks * st.f_frsize, total / 4096 * 4096);
  EXPECT_EQ(st.f_bavail * st.f_frsize, (total - used) / 4096 * 4096);
  struct statvfs direct {};
  ASSERT_EQ(statvfs(root_.c_str(), &direct), 0);
  EXPECT_NEAR(static_cast<double>(st.f_blocks * st.f_frsize),
              static_cast<double>(direct.f_blocks * direct.f_frsize), 4096.0);
}

TEST_F(MountFsTest, ModesAndOwnersAreFixed) {
  Spit(Root("f"), "");
  EXPECT_EQ(mount_->Chmod("/f", 0, 0644), 0);
  EXPECT_EQ(mount_->Chmod("/f", 0, 0600), -ENOTSUP);
  EXPECT_EQ(mount_->Chown("/f", 0, getuid(), static_cast<gid_t>(-1)), 0);
  EXPECT_EQ(mount_->Chown("/f", 0, getuid() + 1, static_cast<gid_t>(-1)), -EPERM);
  EXPECT_EQ(mount_->Chmod("/missing", 0, 0644), -ENOENT);
}

TEST_F(MountFsTest, ConcurrentReadersGetIdenticalBytes) {
  std::string data(5 * 1024 * 1024 + 3, '\0');
  for (std::size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>((i * 2654435761u) >> 13);
  Spit(Root("big"), data);
  std::vector<std::string> got(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      std::uint64_t fh = 0;
      bool keep = false;
      if (mount_->Open("/big", O_RDONLY, &fh, &keep) != 0) return;
      got[i] = ReadAll(fh, 128 * 1024 + i * 4096);
      mount_->Release(fh);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int i = 0; i < 4; ++i)
    EXPECT_TRUE(got[i] == data) << "reader " << i;
  EXPECT_EQ(mount_->OpenNodes(), 0u);
}

TEST_F(MountFsTest, KernelCacheIsKeptOnlyForUnchangedFiles) {
  Spit(Root("f"), "abc");
  std::uint64_t fh = 0;
  bool keep = true;
  ASSERT_EQ(mount_->Open("/f", O_RDONLY, &fh, &keep), 0);
  EXPECT_FALSE(keep) << "first open: nothing cached to keep";
  mount_->Release(fh);
  ASSERT_EQ(mount_->Open("/f", O_RDONLY, &fh, &keep), 0);
  EXPECT_TRUE(keep);
  mount_->Release(fh);
  // Written through the mount: the next open must not keep old pages.
  ASSERT_EQ(mount_->Open("/f", O_WRONLY | O_TRUNC, &fh, &keep), 0);
  ASSERT_EQ(mount_->Write(fh, "xyz!", 4, 0), 4);
  mount_->Release(fh);
  ASSERT_EQ(mount_->Open("/f", O_RDONLY, &fh, &keep), 0);
  EXPECT_FALSE(keep);
  mount_->Release(fh);
  // Changed behind the mount's back (another size).
  Spit(Root("f"), "abcdefgh");
  ASSERT_EQ(mount_->Open("/f", O_RDONLY, &fh, &keep), 0);
  EXPECT_FALSE(keep);
  mount_->Release(fh);
}

}  // namespace
