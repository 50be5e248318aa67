// Uploads onto a file system that runs out of space: however the error
// surfaces (a failing fwrite, or only when the stream's last buffered bytes
// are flushed at close), the upload reports FAILED and leaves no file, so a
// host is never told that a truncated file was uploaded.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include <string>

#include "hardening_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace hardening;

class UploadOntoFullFs : public ::testing::Test {
 protected:
  void Mount(long long bytes) {
    tmpfs_ = std::make_unique<Tmpfs>(dir_.path(), bytes);
    if (!tmpfs_->mounted()) GTEST_SKIP() << "no tmpfs for this test: " << tmpfs_->reason();
  }
  // The stdio buffer of a stream on the mount is one block of its file system.
  long long BlockSize() {
    struct stat st;
    if (stat(tmpfs_->path().c_str(), &st) != 0) return 4096;
    return st.st_blksize;
  }
  AERROR Upload(const std::string& name, const std::string& content, _FS_FILE_V2* record) {
    record->name = name;
    record->size = static_cast<long long>(content.size());
    record->id = "untouched";
    MemoryCache cache(content);
    return disk_.Upload(tmpfs_->path().c_str(), std::make_shared<_FS_HANDLE>(), &cache, record,
                        UPLOAD_FLAG{}, nullptr);
  }

  TempDir dir_;
  std::unique_ptr<Tmpfs> tmpfs_;
  LocalDisk disk_{nullptr};
};

TEST_F(UploadOntoFullFs, LargerThanTheFileSystemFailsAndLeavesNoFile) {
  Mount(256 * 1024);
  if (IsSkipped()) return;
  _FS_FILE_V2 record;
  EXPECT_EQ(Upload("big", Pattern(2 * kChunk + 17), &record), FAILED);
  EXPECT_FALSE(Exists(tmpfs_->path() + "/big"));
  EXPECT_EQ(record.id, "untouched");
}

TEST_F(UploadOntoFullFs, SmallFileOntoAFullFileSystemFailsAtFlush) {
  // The bytes fit into the stream's buffer, so fwrite succeeds; only the
  // flush at close meets the full file system.
  Mount(64 * 1024);
  if (IsSkipped()) return;
  FillUp(tmpfs_->path() + "/filler");
  _FS_FILE_V2 record;
  EXPECT_EQ(Upload("small", Pattern(100), &record), FAILED);
  EXPECT_FALSE(Exists(tmpfs_->path() + "/small"));
  EXPECT_EQ(record.id, "untouched");
}

TEST_F(UploadOntoFullFs, TailThatOnlyFailsWhenTheLastBufferedBytesAreFlushed) {
  // Whole blocks are written straight through and fill the file system
  // exactly; the remainder (not a multiple of the buffer) stays buffered and
  // fails at close.
  Mount(64 * 1024);
  if (IsSkipped()) return;
  const long long size = 64 * 1024 + BlockSize() / 2 + 3;
  _FS_FILE_V2 record;
  EXPECT_EQ(Upload("tail", Pattern(static_cast<size_t>(size)), &record), FAILED);
  EXPECT_FALSE(Exists(tmpfs_->path() + "/tail"));
  EXPECT_EQ(record.id, "untouched");
}

TEST_F(UploadOntoFullFs, TailOfTheLastOfSeveralChunksFailingAtFlush) {
  Mount(2 * kChunk);
  if (IsSkipped()) return;
  _FS_FILE_V2 record;
  EXPECT_EQ(Upload("chunks", Pattern(2 * kChunk + 100), &record), FAILED);
  EXPECT_FALSE(Exists(tmpfs_->path() + "/chunks"));
  EXPECT_EQ(record.id, "untouched");
}

TEST_F(UploadOntoFullFs, ExactFitSucceedsWithTheWholeContent) {
  Mount(2 * kChunk);
  if (IsSkipped()) return;
  const std::string content = Pattern(2 * kChunk);
  _FS_FILE_V2 record;
  ASSERT_EQ(Upload("fit", content, &record), SUCCESS);
  EXPECT_EQ(record.id, tmpfs_->path() + "/fit");
  EXPECT_EQ(record.size, 2 * kChunk);
  EXPECT_TRUE(ReadFile(tmpfs_->path() + "/fit") == content);
}

TEST_F(UploadOntoFullFs, FailedUploadLeavesRoomForTheNextOne) {
  // The removed partial file gives its space back.
  Mount(256 * 1024);
  if (IsSkipped()) return;
  _FS_FILE_V2 record;
  EXPECT_EQ(Upload("big", Pattern(kChunk), &record), FAILED);
  const std::string content = Pattern(100 * 1024, 7);
  ASSERT_EQ(Upload("next", content, &record), SUCCESS);
  EXPECT_TRUE(ReadFile(tmpfs_->path() + "/next") == content);
}

}  // namespace
