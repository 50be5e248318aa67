// The mount's file system against the real plug-in, without the kernel: each
// operation as the kernel bridge would call it, on a fresh temporary root.
#include "host/mount/mount_fs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/plugin.h"
#include "tests/support/files.h"
#include "tests/support/page_cache.h"
#include "tests/support/time_zone.h"

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
    work_ = work_dir_.path();
    root_ = work_ + "/root";
    cache_ = work_ + "/cache";
    fs::create_directory(root_);
    fs::create_directory(cache_);
    plugin_ = std::make_unique<plughost::Plugin>(plughost::Plugin::Load(LD_PLUGIN_PATH));
    client_ = std::make_unique<plughost::Client>(*plugin_, plugin_->CreateProtocol(&config_));
    client_->SetOpt("root_path", root_);
    root_id_ = client_->RootId();
    Remount(plughost::MountSettings{});
  }

  // A fresh MountFs over the same client; the mounting user owns everything.
  void Remount(plughost::MountSettings settings) {
    settings.owner.uid = getuid();
    settings.owner.gid = getgid();
    settings.local_root = root_;
    mount_.reset();
    mount_ = std::make_unique<plughost::MountFs>(*client_, root_id_, cache_, settings);
  }

  void TearDown() override {
    mount_.reset();
    client_.reset();
    plugin_.reset();
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

  test_support::TzGuard zone_{test_support::kUtc};
  test_support::TempDir work_dir_{"mount_fs_test"};
  std::string work_, root_, cache_;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<plughost::Plugin> plugin_;
  std::unique_ptr<plughost::Client> client_;
  std::string root_id_;
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
  EXPECT_EQ(st.st_mode & 07777, 0600u) << "private by default";
  EXPECT_EQ(st.st_blksize, 4096);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(st.st_uid, getuid());
  EXPECT_EQ(st.st_gid, getgid());
  EXPECT_EQ(st.st_atim.tv_sec, 1600000000);
  EXPECT_EQ(st.st_mtim.tv_sec, 1650000000);

  ASSERT_EQ(mount_->GetAttr("/d", 0, &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0700u);
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
  // Visible in the mount at once, uploaded once, at the flush.
  EXPECT_FALSE(fs::exists(Root("new")));
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr("/new", 0, &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_size, 0);
  std::vector<plughost::DirEntry> entries;
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "new");
  ASSERT_EQ(mount_->Write(fh, "hello ", 6, 0), 6);
  ASSERT_EQ(mount_->Write(fh, "world", 5, 6), 5);
  EXPECT_FALSE(fs::exists(Root("new")));
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
  // The plug-in refuses with ACCESS_DENIED; the mount can tell why.
  EXPECT_EQ(mount_->Rmdir("/d"), -ENOTEMPTY);
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

// touch on a new file: the upload stamps it with its own time, and a "now"
// wins over times set before it.
TEST_F(MountFsTest, NowSetOnANewFileIsTheUploadsOwnTime) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/f", O_WRONLY | O_CREAT, &fh), 0);
  struct timespec old_times[2] = {{1300000000, 0}, {1300000000, 0}};
  ASSERT_EQ(mount_->Utimens(nullptr, fh, old_times), 0);
  const time_t before = time(nullptr);
  struct timespec now[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
  ASSERT_EQ(mount_->Utimens(nullptr, fh, now), 0);
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr(nullptr, fh, &st), 0);
  EXPECT_GE(st.st_mtim.tv_sec, before);
  ASSERT_EQ(mount_->Release(fh), 0);
  struct stat direct {};
  ASSERT_EQ(stat(Root("f").c_str(), &direct), 0);
  EXPECT_GE(direct.st_mtim.tv_sec, before);
  EXPECT_GE(direct.st_atim.tv_sec, before);
  EXPECT_EQ(direct.st_size, 0);
}

// A file with content keeps its "now" too: the upload comes later still.
TEST_F(MountFsTest, NowSetOnAWrittenFileIsTheUploadsOwnTime) {
  Spit(Root("f"), "old");
  struct timespec old_times[2] = {{1300000000, 0}, {1300000000, 0}};
  ASSERT_EQ(mount_->Utimens("/f", 0, old_times), 0);
  std::uint64_t fh = 0;
  bool keep = false;
  ASSERT_EQ(mount_->Open("/f", O_WRONLY, &fh, &keep), 0);
  ASSERT_EQ(mount_->Write(fh, "new", 3, 0), 3);
  const time_t before = time(nullptr);
  ASSERT_EQ(mount_->Utimens(nullptr, fh, nullptr), 0);
  ASSERT_EQ(mount_->Release(fh), 0);
  struct stat direct {};
  ASSERT_EQ(stat(Root("f").c_str(), &direct), 0);
  EXPECT_GE(direct.st_mtim.tv_sec, before);
  EXPECT_EQ(Slurp(Root("f")), "new");
}

// Asked only when the kernel leaves mode checks to the mount.
TEST_F(MountFsTest, AccessAnswersForTheShownModes) {
  Spit(Root("f"), "x");
  plughost::Caller root{0, 0, {}};
  plughost::Caller stranger{getuid() + 1, getgid() + 1, {}};
  EXPECT_EQ(mount_->Access("/f", R_OK | W_OK, root), 0);
  EXPECT_EQ(mount_->Access("/f", X_OK, root), -EACCES);
  EXPECT_EQ(mount_->Access("/", X_OK, root), 0);
  EXPECT_EQ(mount_->Access("/missing", F_OK, root), -ENOENT);
  EXPECT_EQ(mount_->Access("/f", R_OK, stranger), -EACCES);
}

// Without the kernel's checks the mount refuses what the kernel would.
TEST_F(MountFsTest, ChownWithoutTheKernelsChecksRefusesGivingAway) {
  plughost::MountSettings settings;
  settings.kernel_checks_modes = false;
  Remount(settings);
  Spit(Root("f"), "x");
  plughost::Caller owner{getuid(), getgid(), {}};
  plughost::Caller root{0, 0, {}};
  if (getuid() != 0) {
    EXPECT_EQ(mount_->Chown("/f", 0, getuid() + 1, static_cast<gid_t>(-1), owner), -EPERM);
  }
  EXPECT_EQ(mount_->Chown("/f", 0, getuid(), static_cast<gid_t>(-1), owner), 0);
  EXPECT_EQ(mount_->Chown("/f", 0, getuid() + 1, static_cast<gid_t>(-1), root), 0);
  plughost::Caller stranger{getuid() + 1, getgid() + 1, {}};
  EXPECT_EQ(mount_->Chown("/f", 0, getuid(), static_cast<gid_t>(-1), stranger), -EPERM);
}

TEST_F(MountFsTest, StatfsReportsTheQuota) {
  struct statvfs st {};
  ASSERT_EQ(mount_->Statfs(&st), 0);
  unsigned long long total = 0, used = 0;
  ASSERT_EQ(client_->get()->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(st.f_blocks * st.f_frsize, total / 4096 * 4096);
  // Other processes write to the same disk meanwhile: near, not equal.
  EXPECT_NEAR(static_cast<double>(st.f_bavail * st.f_frsize),
              static_cast<double>((total - used) / 4096 * 4096), 256.0 * 1024 * 1024);
  struct statvfs direct {};
  ASSERT_EQ(statvfs(root_.c_str(), &direct), 0);
  EXPECT_NEAR(static_cast<double>(st.f_blocks * st.f_frsize),
              static_cast<double>(direct.f_blocks * direct.f_frsize), 4096.0);
}

TEST_F(MountFsTest, ModesAndOwnersAreAcceptedWithoutEffect) {
  Spit(Root("f"), "");
  EXPECT_EQ(mount_->Chmod("/f", 0, 0755), 0);
  EXPECT_EQ(mount_->Chown("/f", 0, getuid() + 1, static_cast<gid_t>(-1)), 0);
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr("/f", 0, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(mount_->Chmod("/missing", 0, 0644), -ENOENT);
}

TEST_F(MountFsTest, StrictModesRefuseChanges) {
  plughost::MountSettings strict;
  strict.strict_modes = true;
  strict.owner.file_mode = 0644;
  Remount(strict);
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

// The entries of the root as the storage has them (temporary names included).
std::vector<std::string> Names(const std::string& directory) {
  std::vector<std::string> out;
  for (const auto& entry : fs::directory_iterator(directory))
    out.push_back(entry.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(MountFsTest, UploadsReplaceAtomicallyAndLeaveNoTemporaryName) {
  Spit(Root("f"), "old content");
  std::uint64_t fh = OpenOk("/f", O_WRONLY | O_TRUNC);
  ASSERT_EQ(mount_->Write(fh, "new", 3, 0), 3);
  ASSERT_EQ(mount_->Flush(fh), 0);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "new");
  EXPECT_EQ(Names(root_), std::vector<std::string>{"f"});
}

TEST_F(MountFsTest, TemporaryNamesAreNotListed) {
  Spit(Root("a"), "a");
  Spit(Root(".a.plughost-Ab12Cd.partial"), "partial");
  Spit(Root(".a.plughost-long.partial"), "not the pattern");
  std::vector<plughost::DirEntry> entries;
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  std::vector<std::string> names;
  for (const auto& entry : entries)
    names.push_back(entry.name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".a.plughost-long.partial", "a"}));
}

TEST_F(MountFsTest, AnOpenFileSurvivesItsRemoval) {
  Spit(Root("f"), "hello\n");
  std::uint64_t fh = OpenOk("/f", O_RDONLY);
  ASSERT_EQ(mount_->Unlink("/f"), 0);
  struct stat st {};
  EXPECT_EQ(mount_->GetAttr("/f", 0, &st), -ENOENT);
  std::vector<plughost::DirEntry> entries;
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  EXPECT_TRUE(entries.empty()) << "the aside name is never listed";
  EXPECT_EQ(ReadAll(fh), "hello\n");
  ASSERT_EQ(mount_->GetAttr(nullptr, fh, &st), 0);
  EXPECT_EQ(st.st_size, 6);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_TRUE(Names(root_).empty()) << "the aside entry goes with the last close";
}

TEST_F(MountFsTest, AReaderKeepsTheContentItOpenedAcrossARenameOver) {
  Spit(Root("f"), "version1");
  std::uint64_t fh = OpenOk("/f", O_RDONLY);
  Spit(Root("f.tmp"), "version2!");
  ASSERT_EQ(mount_->Rename("/f.tmp", "/f", 0), 0);
  EXPECT_EQ(ReadAll(fh), "version1");
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "version2!");
  EXPECT_EQ(Names(root_), std::vector<std::string>{"f"});
}

TEST_F(MountFsTest, ErrorsTheMountCanTellItself) {
  const std::string long_name = "/" + std::string(256, 'n');
  struct stat st {};
  EXPECT_EQ(mount_->GetAttr(long_name.c_str(), 0, &st), -ENAMETOOLONG);
  std::uint64_t fh = 0;
  EXPECT_EQ(mount_->Create(long_name.c_str(), O_WRONLY | O_CREAT, &fh), -ENAMETOOLONG);
  EXPECT_EQ(mount_->Mkdir(long_name.c_str()), -ENAMETOOLONG);
  EXPECT_EQ(mount_->GetAttr(("/" + std::string(255, 'n')).c_str(), 0, &st), -ENOENT);
  fs::create_directories(Root("full/x"));
  fs::create_directory(Root("empty"));
  fs::create_directory(Root("moving"));
  EXPECT_EQ(mount_->Rmdir("/full"), -ENOTEMPTY);
  EXPECT_EQ(mount_->Rename("/moving", "/full", 0), -ENOTEMPTY);
  EXPECT_EQ(mount_->Rename("/moving", "/empty", 0), 0);
  Spit(Root("file"), "");
  EXPECT_EQ(mount_->Rename("/file", "/full", 0), -EISDIR);
  EXPECT_EQ(mount_->Rename("/full", "/file", 0), -ENOTDIR);
}

TEST_F(MountFsTest, ARemovedNewFileNeverReachesTheStorage) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/new", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "x", 1, 0), 1);
  ASSERT_EQ(mount_->Unlink("/new"), 0);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_TRUE(Names(root_).empty());
}

TEST_F(MountFsTest, ANewFileIsMovedOnceItIsUploaded) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/new", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "data", 4, 0), 4);
  ASSERT_EQ(mount_->Rename("/new", "/moved", 0), 0);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Names(root_), std::vector<std::string>{"moved"});
  EXPECT_EQ(Slurp(Root("moved")), "data");
}

TEST_F(MountFsTest, ShutdownUploadsOpenChanges) {
  Spit(Root("f"), "old");
  std::uint64_t fh = OpenOk("/f", O_RDWR);
  ASSERT_EQ(mount_->Write(fh, "new", 3, 0), 3);
  std::uint64_t created = 0;
  ASSERT_EQ(mount_->Create("/g", O_WRONLY | O_CREAT, &created), 0);
  ASSERT_EQ(mount_->Write(created, "g", 1, 0), 1);
  plughost::ShutdownReport report = mount_->Shutdown();
  EXPECT_EQ(report.uploaded, 2);
  EXPECT_TRUE(report.failed.empty());
  EXPECT_EQ(Slurp(Root("f")), "new");
  EXPECT_EQ(Slurp(Root("g")), "g");
}

TEST_F(MountFsTest, ShutdownKeepsWhatItCannotUpload) {
  fs::create_directory(Root("d"));
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/d/f", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "precious", 8, 0), 8);
  fs::remove_all(Root("d"));
  plughost::ShutdownReport report = mount_->Shutdown();
  EXPECT_EQ(report.uploaded, 0);
  ASSERT_EQ(report.failed.size(), 1u);
  EXPECT_EQ(report.failed[0].first, "/d/f");
  ASSERT_FALSE(report.failed[0].second.empty());
  EXPECT_EQ(report.failed[0].second.rfind(cache_ + "/", 0), 0u) << report.failed[0].second;
  EXPECT_EQ(Slurp(report.failed[0].second), "precious");
}

// The descriptor of the one staging file open in this process, or -1.
int StagingDescriptor(const std::string& cache) {
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    fs::path target = fs::read_symlink(entry.path(), ignored);
    if (target.string().rfind(cache + "/", 0) == 0) {
      return std::atoi(entry.path().filename().c_str());
    }
  }
  return -1;
}

TEST_F(MountFsTest, ALargeWriteLosesNoByteWhenItsStagedPagesGoBehindTheUpload) {
  fs::create_directory(Root("d"));
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/d/f", O_WRONLY | O_CREAT, &fh), 0);
  std::string data((72 << 20) + 100, '\0');
  for (std::size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>(i * 13 + (i >> 16));
  constexpr std::size_t kPiece = 1 << 20;
  for (std::size_t at = 0; at < data.size(); at += kPiece) {
    std::size_t n = std::min(kPiece, data.size() - at);
    ASSERT_EQ(mount_->Write(fh, data.data() + at, n, static_cast<off_t>(at)),
              static_cast<long long>(n));
  }
  mount_->WaitForWriteBehind();
  ASSERT_EQ(mount_->Flush(fh), 0);
  EXPECT_TRUE(Slurp(Root("d/f")) == data);

  // The staged copy still reads whole, part of it now from the disk.
  std::uint64_t reader = OpenOk("/d/f", O_RDONLY);
  EXPECT_TRUE(ReadAll(reader) == data);
  // A change inside the part whose pages went, then an upload that fails:
  // the copy kept at the end holds every byte.
  const std::string change(3 << 20, 'x');
  ASSERT_EQ(mount_->Write(fh, change.data(), change.size(), 20 << 20),
            static_cast<long long>(change.size()));
  data.replace(20 << 20, change.size(), change);
  fs::remove_all(Root("d"));
  EXPECT_EQ(mount_->Flush(fh), -ENOENT);
  plughost::ShutdownReport report = mount_->Shutdown();
  ASSERT_EQ(report.failed.size(), 1u);
  ASSERT_FALSE(report.failed[0].second.empty());
  EXPECT_TRUE(Slurp(report.failed[0].second) == data);
}

TEST_F(MountFsTest, CutsWhileStagedDataIsOnItsWayToTheDiskKeepEveryByte) {
  // Each cut comes right after writes whose stretches may still be queued
  // or being written back; what is uploaded must be what was written last.
  auto pattern = [](std::size_t size, int seed) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
      data[i] = static_cast<char>(i * seed + (i >> 15));
    return data;
  };
  auto write_all = [&](std::uint64_t fh, const std::string& data, std::size_t at) {
    for (std::size_t done = 0; done < data.size(); done += 1 << 20) {
      std::size_t n = std::min<std::size_t>(1 << 20, data.size() - done);
      ASSERT_EQ(mount_->Write(fh, data.data() + done, n, static_cast<off_t>(at + done)),
                static_cast<long long>(n));
    }
  };
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/f", O_WRONLY | O_CREAT, &fh), 0);
  std::string expected = pattern(48 << 20, 3);
  ASSERT_NO_FATAL_FAILURE(write_all(fh, expected, 0));
  const std::size_t cut = (20 << 20) + 3;
  ASSERT_EQ(mount_->Truncate("/f", fh, static_cast<off_t>(cut)), 0);
  expected.resize(cut);
  const std::string more = pattern(40 << 20, 5);
  ASSERT_NO_FATAL_FAILURE(write_all(fh, more, cut));
  expected += more;
  ASSERT_EQ(mount_->Flush(fh), 0);
  EXPECT_TRUE(Slurp(Root("f")) == expected);

  // Emptied by a truncating open of a second handle, then written again.
  std::uint64_t again = OpenOk("/f", O_WRONLY | O_TRUNC);
  expected = pattern(36 << 20, 7);
  ASSERT_NO_FATAL_FAILURE(write_all(again, expected, 0));
  ASSERT_EQ(mount_->Release(again), 0);
  EXPECT_TRUE(Slurp(Root("f")) == expected);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_TRUE(Slurp(Root("f")) == expected);
}

TEST_F(MountFsTest, TheUploadOfALargeWriteDropsTheStagedPagesBehindIt) {
  if (test_support::InMemory(cache_)) {
    GTEST_SKIP() << "the cache directory is in memory (tmpfs): its pages cannot be dropped";
  }
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/big", O_WRONLY | O_CREAT, &fh), 0);
  const std::string piece(1 << 20, 'b');
  for (int i = 0; i < 64; ++i) {
    ASSERT_EQ(mount_->Write(fh, piece.data(), piece.size(), static_cast<off_t>(i) << 20),
              static_cast<long long>(piece.size()));
  }
  int staged = StagingDescriptor(cache_);
  ASSERT_GE(staged, 0);
  test_support::PageCacheState pages;
  if (!test_support::PageCacheOf(staged, &pages)) {
    GTEST_SKIP() << "the kernel cannot report cached pages (cachestat): " << std::strerror(errno);
  }
  const unsigned long long before = pages.cached;
  mount_->WaitForWriteBehind();
  ASSERT_EQ(mount_->Flush(fh), 0);
  ASSERT_TRUE(test_support::PageCacheOf(staged, &pages));
  // All but the last step, which the upload had not passed when it dropped.
  EXPECT_LT(pages.cached, before / 4) << "of " << before << " pages";
  EXPECT_EQ(fs::file_size(Root("big")), 64u << 20);
  EXPECT_EQ(mount_->Release(fh), 0);
}

TEST_F(MountFsTest, FsyncMakesTheUploadDurable) {
  // What the host adds for a local root: the file and its directory are
  // synced. Visible here only as success; the data check is in the session.
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/f", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "sync", 4, 0), 4);
  ASSERT_EQ(mount_->Fsync(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "sync");
  ASSERT_EQ(mount_->Fsync(fh), 0) << "nothing dirty: still synced";
  ASSERT_EQ(mount_->Release(fh), 0);
}

TEST_F(MountFsTest, SyncOnCloseReplacesThroughASyncedUpload) {
  // Each close uploads through a replace that syncs the new file before its
  // rename: the name holds the old or the new content, whole.
  plughost::MountSettings settings;
  settings.sync_on_close = true;
  Remount(settings);
  Spit(Root("f"), "old content");
  std::uint64_t fh = OpenOk("/f", O_WRONLY | O_TRUNC);
  ASSERT_EQ(mount_->Write(fh, "new", 3, 0), 3);
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "new");
  fh = OpenOk("/f", O_RDWR);
  ASSERT_EQ(mount_->Write(fh, "NEW", 3, 0), 3);
  ASSERT_EQ(mount_->Fsync(fh), 0);
  EXPECT_EQ(Slurp(Root("f")), "NEW");
  ASSERT_EQ(mount_->Release(fh), 0);
  EXPECT_EQ(Names(root_), std::vector<std::string>{"f"});
}

TEST_F(MountFsTest, TimesAcrossTheSpringClockChange) {
  test_support::TzGuard berlin("Europe/Berlin");
  Spit(Root("f"), "x");
  // The hour after the 2024 spring change, and the repeated autumn hour.
  for (time_t t : {1711846800L, 1711850400L, 1729990800L, 1729994400L}) {
    struct timespec times[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(mount_->Utimens("/f", 0, times), 0);
    struct stat direct {};
    ASSERT_EQ(stat(Root("f").c_str(), &direct), 0);
    EXPECT_EQ(direct.st_mtim.tv_sec, t);
  }
}

TEST_F(MountFsTest, SparseTruncateOfANewFileHoldsAHole) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/f", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Truncate(nullptr, fh, 1LL << 30), 0);
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr(nullptr, fh, &st), 0);
  EXPECT_EQ(st.st_size, 1LL << 30);
  struct statvfs cache {};
  ASSERT_EQ(statvfs(cache_.c_str(), &cache), 0);
  ASSERT_EQ(mount_->Unlink("/f"), 0);
  ASSERT_EQ(mount_->Release(fh), 0);
}

TEST_F(MountFsTest, ListingsAreKeptUntilTheMountChangesSomething) {
  plughost::MountSettings settings;
  settings.dir_cache_time = 3600;
  Remount(settings);
  Spit(Root("a"), "a");
  std::vector<plughost::DirEntry> entries;
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  ASSERT_EQ(entries.size(), 1u);
  Spit(Root("behind"), "changed behind the mount's back");
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  EXPECT_EQ(entries.size(), 1u) << "kept for the directory cache time";
  ASSERT_EQ(mount_->Mkdir("/d"), 0);
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  EXPECT_EQ(entries.size(), 3u) << "a change through the mount drops kept listings";
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/new", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  EXPECT_EQ(entries.size(), 4u) << "a file being created shows at once";
  ASSERT_EQ(mount_->Write(fh, "12345", 5, 0), 5);
  ASSERT_EQ(mount_->Release(fh), 0);
  ASSERT_EQ(mount_->ListDir("/", &entries), 0);
  auto it = std::find_if(entries.begin(), entries.end(),
                         [](const plughost::DirEntry& e) { return e.name == "new"; });
  ASSERT_NE(it, entries.end());
  EXPECT_EQ(it->st.st_size, 5);
}

TEST_F(MountFsTest, TheRecordOfAnUploadAnswersTheNextAttributeRequest) {
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/new", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "12345", 5, 0), 5);
  ASSERT_EQ(mount_->Release(fh), 0);
  // Removed behind the mount's back: only the kept record can answer.
  fs::remove(Root("new"));
  struct stat st {};
  ASSERT_EQ(mount_->GetAttr("/new", 0, &st), 0) << "answered without asking the storage";
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(mount_->GetAttr("/new", 0, &st), -ENOENT) << "used once, then the storage is asked";
}

TEST_F(MountFsTest, ARenameRacingUploadsNeverBringsTheOldNameBack) {
  // A writer flushes new versions while another thread renames the file
  // from name to name: each upload must land under the name the file has
  // when it completes, never under the one it had when it started.
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/n0", O_RDWR | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "v0", 2, 0), 2);
  ASSERT_EQ(mount_->Flush(fh), 0);
  std::atomic<bool> writing{true};
  std::string newest;
  std::thread writer([&] {
    for (int version = 1; version <= 150; ++version) {
      std::string content = test_support::Pattern(64 * 1024 + static_cast<std::size_t>(version),
                                                  static_cast<unsigned>(version));
      EXPECT_EQ(mount_->Truncate(nullptr, fh, 0), 0);
      EXPECT_EQ(mount_->Write(fh, content.data(), content.size(), 0),
                static_cast<long long>(content.size()));
      EXPECT_EQ(mount_->Flush(fh), 0) << "version " << version;
      newest = content;
    }
    writing.store(false);
  });
  int renames = 0;
  std::thread renamer([&] {
    while (writing.load()) {
      std::string from = "/n" + std::to_string(renames);
      std::string to = "/n" + std::to_string(renames + 1);
      ASSERT_EQ(mount_->Rename(from.c_str(), to.c_str(), 0), 0) << from;
      ++renames;
    }
  });
  writer.join();
  renamer.join();
  ASSERT_EQ(mount_->Release(fh), 0);
  const std::string last = "n" + std::to_string(renames);
  EXPECT_EQ(Names(root_), std::vector<std::string>{last});
  EXPECT_TRUE(Slurp(Root(last)) == newest) << "the newest version, complete";
}

TEST_F(MountFsTest, AFailedUploadAtTheLastCloseKeepsTheStagedCopy) {
  fs::create_directory(Root("d"));
  std::uint64_t fh = 0;
  ASSERT_EQ(mount_->Create("/d/f", O_WRONLY | O_CREAT, &fh), 0);
  ASSERT_EQ(mount_->Write(fh, "precious", 8, 0), 8);
  // The directory goes behind the mount's back: the upload at close fails.
  fs::remove_all(Root("d"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(mount_->Release(fh), -ENOENT);
  const std::string said = testing::internal::GetCapturedStderr();
  std::vector<std::string> kept;
  for (const auto& entry : fs::directory_iterator(cache_)) {
    kept.push_back(entry.path().string());
  }
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(fs::path(kept[0]).filename().string().rfind("f.unsaved-", 0), 0u) << kept[0];
  EXPECT_EQ(Slurp(kept[0]), "precious");
  EXPECT_NE(said.find(kept[0]), std::string::npos) << said;
  EXPECT_NE(said.find("/d/f"), std::string::npos) << said;
}

TEST_F(MountFsTest, AReaderHalfwayThroughALargeFileKeepsTheOldContentAcrossARenameOver) {
  constexpr std::size_t kSize = 4 << 20;
  constexpr std::size_t kChunk = 128 * 1024;  // what the kernel asks for at a time
  const std::string old_content = test_support::Pattern(kSize, 1);
  const std::string new_content = test_support::Pattern(kSize, 2);
  Spit(Root("f"), old_content);
  std::uint64_t reader = OpenOk("/f", O_RDONLY);
  std::string got;
  std::vector<char> buffer(kChunk);
  auto read_until = [&](std::size_t end) {
    while (got.size() < end) {
      long long n =
          mount_->Read(reader, buffer.data(), buffer.size(), static_cast<off_t>(got.size()));
      ASSERT_GT(n, 0) << "at " << got.size();
      got.append(buffer.data(), static_cast<std::size_t>(n));
    }
  };
  read_until(kSize / 2);
  // The replacement is written and renamed over through the mount.
  std::uint64_t writer = 0;
  ASSERT_EQ(mount_->Create("/f.tmp", O_WRONLY | O_CREAT, &writer), 0);
  ASSERT_EQ(mount_->Write(writer, new_content.data(), new_content.size(), 0),
            static_cast<long long>(new_content.size()));
  ASSERT_EQ(mount_->Release(writer), 0);
  ASSERT_EQ(mount_->Rename("/f.tmp", "/f", 0), 0);
  read_until(kSize);
  EXPECT_EQ(mount_->Read(reader, buffer.data(), buffer.size(), static_cast<off_t>(kSize)), 0);
  EXPECT_EQ(got.size(), kSize);
  EXPECT_TRUE(got == old_content) << "the old content, byte-exact, never a mix";
  ASSERT_EQ(mount_->Release(reader), 0);
  EXPECT_TRUE(Slurp(Root("f")) == new_content);
  EXPECT_EQ(Names(root_), std::vector<std::string>{"f"});
}

}  // namespace
