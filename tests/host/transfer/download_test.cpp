// DownloadFile over the real localdisk plug-in: the destination holds the
// complete old or the complete new file, never a part; cancels at several
// moments, a full local file system and a concurrent writer in the storage
// leave the old local file untouched and nothing else in its directory.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <thread>

#include "tests/host/transfer/transfer_test_support.h"

namespace {

using namespace transfer_test;
using plughost::DownloadFile;
using plughost::DownloadRequest;
using plughost::DownloadResult;
using plughost::TransferStatus;
using ::testing::HasSubstr;

class Download : public LocalDiskTest {
 protected:
  void SetUp() override {
    LocalDiskTest::SetUp();
    local_ = dir_ / "local";
    mkdir(local_.c_str(), 0755);
  }
  DownloadResult Get(const std::string& name, const std::string& dest,
                     std::shared_ptr<_FS_HANDLE> handle = nullptr, long long size = -1) {
    DownloadRequest request;
    request.path = root_id_ + "/" + name;
    request.size = size >= 0 ? size : static_cast<long long>(ReadFile(Local(name)).size());
    request.local_path = dest;
    request.handle = std::move(handle);
    return DownloadFile(*client_, request);
  }
  std::string local_;
};

mode_t Mode(const std::string& path) {
  struct stat st {};
  stat(path.c_str(), &st);
  return st.st_mode & 07777;
}

TEST_F(Download, CreatesANewFile) {
  const std::string content = Pattern(2 * kChunk + 9);
  WriteFile(Local("a.bin"), content);
  DownloadResult result = Get("a.bin", local_ + "/a.bin");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_FALSE(result.existed);
  EXPECT_EQ(result.bytes, 2 * kChunk + 9);
  EXPECT_EQ(result.local_path, local_ + "/a.bin");
  EXPECT_TRUE(ReadFile(local_ + "/a.bin") == content);
  mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(Mode(local_ + "/a.bin"), 0666 & ~mask);
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.bin"));
}

TEST_F(Download, EmptyFile) {
  WriteFile(Local("empty"), "");
  WriteFile(local_ + "/empty", "old");
  ASSERT_TRUE(Get("empty", local_ + "/empty").ok());
  EXPECT_EQ(ReadFile(local_ + "/empty"), "");
}

TEST_F(Download, ReplacesAnExistingFileKeepingItsMode) {
  WriteFile(Local("a.txt"), "new");
  WriteFile(local_ + "/a.txt", "old content");
  chmod((local_ + "/a.txt").c_str(), 0640);
  DownloadResult result = Get("a.txt", local_ + "/a.txt");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(result.existed);
  EXPECT_EQ(ReadFile(local_ + "/a.txt"), "new");
  EXPECT_EQ(Mode(local_ + "/a.txt"), 0640u);
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.txt"));
}

TEST_F(Download, AReadOnlyFileIsReplacedAndStaysReadOnly) {
  WriteFile(Local("a.txt"), "new");
  WriteFile(local_ + "/a.txt", "old");
  chmod((local_ + "/a.txt").c_str(), 0444);
  ASSERT_TRUE(Get("a.txt", local_ + "/a.txt").ok());
  EXPECT_EQ(ReadFile(local_ + "/a.txt"), "new");
  EXPECT_EQ(Mode(local_ + "/a.txt"), 0444u);
}

TEST_F(Download, AHardLinkKeepsTheOldContent) {
  WriteFile(Local("a.txt"), "new");
  WriteFile(local_ + "/a.txt", "old");
  ASSERT_EQ(link((local_ + "/a.txt").c_str(), (local_ + "/other").c_str()), 0);
  ASSERT_TRUE(Get("a.txt", local_ + "/a.txt").ok());
  EXPECT_EQ(ReadFile(local_ + "/a.txt"), "new");
  EXPECT_EQ(ReadFile(local_ + "/other"), "old");
}

TEST_F(Download, ARelativeDestination) {
  WriteFile(Local("a.txt"), "new");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(local_.c_str()), 0);
  DownloadResult result = Get("a.txt", "a.txt");
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_EQ(ReadFile(local_ + "/a.txt"), "new");
}

TEST_F(Download, ASymbolicLinkIsFollowed) {
  WriteFile(Local("a.txt"), "new");
  WriteFile(local_ + "/target", "old");
  ASSERT_EQ(symlink("target", (local_ + "/link").c_str()), 0);
  DownloadResult result = Get("a.txt", local_ + "/link");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_EQ(result.local_path, local_ + "/target");  // the link, resolved
  EXPECT_EQ(ReadFile(local_ + "/target"), "new");
  struct stat st {};
  ASSERT_EQ(lstat((local_ + "/link").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(Download, ADanglingLinkIsFollowedAndItsTargetCreated) {
  WriteFile(Local("a.txt"), "new");
  mkdir((local_ + "/dest").c_str(), 0755);
  ASSERT_EQ(symlink("dest/real", (local_ + "/link").c_str()), 0);
  DownloadResult result = Get("a.txt", local_ + "/link");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_EQ(result.local_path, local_ + "/dest/real");
  EXPECT_EQ(ReadFile(local_ + "/dest/real"), "new");
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("dest", "link"));
}

TEST_F(Download, ALinkLoopIsRefused) {
  WriteFile(Local("a.txt"), "new");
  ASSERT_EQ(symlink("b", (local_ + "/a").c_str()), 0);
  ASSERT_EQ(symlink("a", (local_ + "/b").c_str()), 0);
  DownloadResult result = Get("a.txt", local_ + "/a");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.error, ELOOP);
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a", "b"));
}

TEST_F(Download, ADirectoryIsRefused) {
  WriteFile(Local("a.txt"), "new");
  mkdir((local_ + "/d").c_str(), 0755);
  DownloadResult result = Get("a.txt", local_ + "/d");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.error, EISDIR);
}

TEST_F(Download, AMissingDirectoryIsRefused) {
  WriteFile(Local("a.txt"), "new");
  DownloadResult result = Get("a.txt", local_ + "/nodir/x");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.what, "open");
  EXPECT_EQ(result.error, ENOENT);
  EXPECT_THAT(result.Describe(), HasSubstr("No such file or directory"));
}

TEST_F(Download, AMissingStorageFileKeepsTheLocalOne) {
  WriteFile(local_ + "/a.txt", "old");
  DownloadResult result = Get("missing.txt", local_ + "/a.txt", nullptr, 10);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.code, FILE_NOT_FOUND);
  EXPECT_TRUE(result.kept_existing);
  EXPECT_THAT(result.Describe(), HasSubstr("the existing file was kept"));
  EXPECT_EQ(ReadFile(local_ + "/a.txt"), "old");
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.txt"));
}

TEST_F(Download, CancelledBeforeTheStart) {
  WriteFile(Local("a.bin"), Pattern(kChunk));
  WriteFile(local_ + "/a.bin", "old");
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state.store(FS_HANDLE_STOP);
  DownloadResult result = Get("a.bin", local_ + "/a.bin", handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_EQ(result.Describe(), "cancelled; the existing file was kept");
  EXPECT_EQ(ReadFile(local_ + "/a.bin"), "old");
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.bin"));
}

class DownloadCancelledAtChunk : public Download, public ::testing::WithParamInterface<int> {};

// The progress callback stops the transfer after chunk N, as Ctrl-C would.
TEST_P(DownloadCancelledAtChunk, KeepsTheOldFileAndLeavesNothing) {
  WriteFile(Local("a.bin"), Pattern(4 * kChunk + 1));
  WriteFile(local_ + "/a.bin", "old");
  auto handle = std::make_shared<_FS_HANDLE>();
  static _FS_HANDLE* stop;
  static long long at;
  stop = handle.get();
  at = (GetParam() + 1) * kChunk;
  handle->progress = [](long long, long long done, std::uint64_t, double) {
    if (done >= at) stop->state.store(FS_HANDLE_STOP);
  };
  DownloadResult result = Get("a.bin", local_ + "/a.bin", handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_TRUE(result.kept_existing);
  EXPECT_EQ(ReadFile(local_ + "/a.bin"), "old");
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.bin"));
}

INSTANTIATE_TEST_SUITE_P(Chunks, DownloadCancelledAtChunk, ::testing::Values(0, 1, 3));

TEST_F(Download, ProgressCountsTheFileNotTheProbe) {
  WriteFile(Local("a.bin"), Pattern(kChunk + 3));
  auto handle = std::make_shared<_FS_HANDLE>();
  static std::vector<std::pair<long long, long long>> seen;
  seen.clear();
  handle->progress = [](long long total, long long done, std::uint64_t, double) {
    seen.emplace_back(total, done);
  };
  ASSERT_TRUE(Get("a.bin", local_ + "/a.bin", handle).ok());
  EXPECT_THAT(seen, ::testing::ElementsAre(std::make_pair(kChunk + 3, kChunk),
                                           std::make_pair(kChunk + 3, kChunk + 3)));
}

TEST_F(Download, AFileOfAnotherSizeThanExpectedIsReadAgain) {
  const std::string content = Pattern(kChunk + 100);
  WriteFile(Local("a.bin"), content);
  for (long long wrong : {0LL, 10LL, kChunk, kChunk + 99, kChunk + 101, 3 * kChunk}) {
    WriteFile(local_ + "/a.bin", "old");
    DownloadResult result = Get("a.bin", local_ + "/a.bin", nullptr, wrong);
    ASSERT_TRUE(result.ok()) << wrong << ": " << result.Describe();
    EXPECT_EQ(result.bytes, kChunk + 100);
    EXPECT_TRUE(ReadFile(local_ + "/a.bin") == content) << wrong;
    EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.bin"));
  }
}

TEST_F(Download, AFileThatKeepsChangingFailsAndKeepsTheOldOne) {
  WriteFile(Local("a.bin"), Pattern(1000));
  WriteFile(local_ + "/a.bin", "old");
  DownloadRequest request;
  request.path = root_id_ + "/a.bin";
  request.size = 10;
  request.local_path = local_ + "/a.bin";
  request.attempts = 1;
  DownloadResult result = DownloadFile(*client_, request);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_TRUE(result.changed);
  EXPECT_EQ(result.Describe(),
            "failed: the file kept changing while it was read; the existing file was kept");
  EXPECT_EQ(ReadFile(local_ + "/a.bin"), "old");
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("a.bin"));
}

TEST_F(Download, AFifoIsWrittenInPlace) {
  WriteFile(Local("a.txt"), "through the pipe");
  const std::string fifo = local_ + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] { received = ReadFile(fifo); });
  DownloadResult result = Get("a.txt", fifo);
  reader.join();
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(result.in_place);
  EXPECT_EQ(received, "through the pipe");
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("fifo"));
}

TEST_F(Download, AnOpenDeviceOrPipeIsWrittenAndClosed) {
  WriteFile(Local("a.txt"), "through the pipe");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  DownloadRequest request;
  request.path = root_id_ + "/a.txt";
  request.size = 16;
  request.local_path = "(pipe)";
  request.device_fd = fds[1];
  DownloadResult result = DownloadFile(*client_, request);
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(result.in_place);
  char buffer[64] = {};
  EXPECT_EQ(read(fds[0], buffer, sizeof buffer), 16);
  EXPECT_EQ(std::string(buffer), "through the pipe");
  EXPECT_EQ(read(fds[0], buffer, sizeof buffer), 0);  // the writing end was closed
  close(fds[0]);
  EXPECT_TRUE(Names(local_).empty());
}

class DownloadOnFullFs : public Download {
 protected:
  void SetUp() override {
    Download::SetUp();
    tmpfs_ = std::make_unique<Tmpfs>(dir_.path(), 4 * kChunk);
    if (!tmpfs_->mounted()) GTEST_SKIP() << "no tmpfs for this test: " << tmpfs_->reason();
    local_ = tmpfs_->path();
  }
  void TearDown() override {
    Download::TearDown();
    tmpfs_.reset();
  }
  std::unique_ptr<Tmpfs> tmpfs_;
};

TEST_F(DownloadOnFullFs, KeepsTheOldFileAndSaysSpaceRanOut) {
  WriteFile(Local("big.bin"), Pattern(3 * kChunk, 5));
  const std::string old = Pattern(2 * kChunk, 6);
  WriteFile(local_ + "/big.bin", old);
  DownloadResult result = Get("big.bin", local_ + "/big.bin");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_TRUE(result.out_of_space);
  EXPECT_EQ(result.error, ENOSPC);
  EXPECT_EQ(result.Describe(),
            "failed for lack of space on the local disk; the existing file was kept");
  EXPECT_TRUE(ReadFile(local_ + "/big.bin") == old);
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("big.bin"));
  EXPECT_EQ(plughost::FreeBytes(local_).value_or(0), 2u * kChunk);
}

TEST_F(DownloadOnFullFs, ANewFileLeavesNothing) {
  WriteFile(Local("big.bin"), Pattern(5 * kChunk));
  DownloadResult result = Get("big.bin", local_ + "/big.bin");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_TRUE(result.out_of_space);
  EXPECT_EQ(result.Describe(), "failed for lack of space on the local disk");
  EXPECT_TRUE(Names(local_).empty());
}

// A get while other threads replace the storage file: every download is one
// whole version, never a mix or a prefix.
TEST_F(Download, RacingAReplaceReturnsOneCompleteVersion) {
  std::set<std::string> versions;
  for (int i = 0; i < 8; ++i)
    versions.insert(Pattern(static_cast<size_t>(kChunk / 3 + i * kChunk / 2), i + 1));
  WriteFile(Local("shared.bin"), *versions.begin());
  std::atomic<bool> writing{true};
  std::atomic<int> failures{0};
  std::thread writer([&] {
    for (int round = 0; round < 40; ++round) {
      for (const std::string& content : versions) {
        Source source(content);
        plughost::ReplaceRequest request;
        request.parent = root_id_;
        request.name = "shared.bin";
        request.source = &source;
        request.size = static_cast<long long>(content.size());
        if (!plughost::ReplaceFile(*client_, request).ok()) ++failures;
      }
    }
    writing.store(false);
  });
  int downloads = 0;
  int mixed = 0;
  int failed = 0;
  while (writing.load()) {
    _FS_FILE_V2 info = client_->Info(root_id_ + "/shared.bin", {"get", "shared.bin"});
    DownloadRequest request;
    request.path = info.id;
    request.size = info.size;
    request.local_path = local_ + "/copy.bin";
    request.sync = false;
    request.attempts = 10;
    DownloadResult result = DownloadFile(*client_, request);
    if (!result.ok()) {
      ++failed;
      continue;
    }
    ++downloads;
    if (versions.count(ReadFile(local_ + "/copy.bin")) == 0) ++mixed;
  }
  writer.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(downloads, 0);
  EXPECT_EQ(mixed, 0);
  EXPECT_LE(failed, downloads / 10 + 1);
  EXPECT_THAT(Names(local_), ::testing::ElementsAre("copy.bin"));
}

}  // namespace
