// Write-behind of staging files, on real files: what is queued, what reaches
// the disk, and that dropping pages never loses data.
#include "host/mount/write_behind.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/page_cache.h"

namespace {

using plughost::WriteBehind;
using plughost::WriteBehindState;

constexpr long long kMiB = 1LL << 20;

using Pages = test_support::PageCacheState;

bool PagesOf(int fd, long long offset, long long length, Pages* pages) {
  return test_support::PageCacheOf(fd, pages, static_cast<unsigned long long>(offset),
                                   static_cast<unsigned long long>(length));
}

class WriteBehindTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fd_ = open((dir_.path() + "/staged").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd_, 0) << std::strerror(errno);
    owner_ = std::make_shared<int>(0);
  }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
  }

  static char ByteAt(long long offset) { return static_cast<char>(offset * 7 + (offset >> 12)); }

  // Appends `mib` MiB as a streaming writer would, telling `behind` after each.
  void Append(WriteBehind& behind, long long mib) {
    std::vector<char> buffer(kMiB);
    for (long long i = 0; i < mib; ++i) {
      for (long long j = 0; j < kMiB; ++j)
        buffer[j] = ByteAt(end_ + j);
      ASSERT_EQ(pwrite(fd_, buffer.data(), buffer.size(), end_), kMiB);
      end_ += kMiB;
      behind.Appended(owner_, fd_, state_, end_);
    }
  }

  bool ContentIsWhole() const {
    std::vector<char> buffer(kMiB);
    for (long long at = 0; at < end_; at += kMiB) {
      const long long want = std::min(kMiB, end_ - at);
      if (pread(fd_, buffer.data(), static_cast<std::size_t>(want), at) != want) return false;
      for (long long j = 0; j < want; ++j) {
        if (buffer[j] != ByteAt(at + j)) return false;
      }
    }
    return true;
  }

  test_support::TempDir dir_{"write_behind_test"};
  int fd_ = -1;
  std::shared_ptr<int> owner_;
  WriteBehindState state_;
  long long end_ = 0;
};

TEST_F(WriteBehindTest, FilesBelowTheThresholdStayInMemory) {
  WriteBehind behind;
  Append(behind, WriteBehind::kFrom / kMiB - 1);
  EXPECT_EQ(state_.queued, 0);
  behind.Drain();
  EXPECT_EQ(state_.clean.load(), 0);
}

TEST_F(WriteBehindTest, WholeStepsBehindTheEndGoToTheDisk) {
  WriteBehind behind;
  Append(behind, 41);
  EXPECT_EQ(state_.queued, 40 * kMiB);
  behind.Drain();
  EXPECT_EQ(state_.clean.load(), 40 * kMiB);
  Pages pages;
  if (!PagesOf(fd_, 0, 40 * kMiB, &pages)) {
    GTEST_SKIP() << "the kernel cannot report dirty pages (cachestat): " << std::strerror(errno);
  }
  EXPECT_EQ(pages.dirty, 0u) << "the stretches handed to the disk are no longer dirty";
}

TEST_F(WriteBehindTest, ACutStartsOverFromTheLastWholeStepKept) {
  WriteBehind behind;
  Append(behind, 41);
  behind.Drain();
  ASSERT_EQ(ftruncate(fd_, 10 * kMiB + 5), 0);
  WriteBehind::Cut(state_, 10 * kMiB + 5);
  EXPECT_EQ(state_.queued, 8 * kMiB);
  EXPECT_EQ(state_.clean.load(), 8 * kMiB);
  end_ = 10 * kMiB + 5;
  Append(behind, 38);
  behind.Drain();
  EXPECT_EQ(state_.clean.load(), 48 * kMiB);
  EXPECT_TRUE(ContentIsWhole());
}

TEST_F(WriteBehindTest, EndingWithStretchesStillQueuedIsSafe) {
  {
    WriteBehind behind;
    Append(behind, 64);
  }
  EXPECT_TRUE(ContentIsWhole());
}

TEST_F(WriteBehindTest, TheQueueDoesNotKeepAFileOpen) {
  WriteBehind behind;
  std::weak_ptr<int> watch = owner_;
  Append(behind, 40);
  // The owner (which closes the descriptor) may go while its stretches are
  // queued: the thread then leaves them alone.
  owner_.reset();
  behind.Drain();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(ContentIsWhole());
}

TEST_F(WriteBehindTest, DroppingPagesKeepsDirtyOnesAndNeverLosesData) {
  if (test_support::InMemory(dir_.path())) {
    GTEST_SKIP() << "the test directory is in memory (tmpfs): its pages cannot be dropped";
  }
  WriteBehind behind;
  Append(behind, 8);
  Pages before;
  if (!PagesOf(fd_, 0, end_, &before)) {
    GTEST_SKIP() << "the kernel cannot report cached pages (cachestat): " << std::strerror(errno);
  }
  plughost::DropCleanPages(fd_, 0, end_);
  Pages after;
  ASSERT_TRUE(PagesOf(fd_, 0, end_, &after));
  EXPECT_EQ(after.cached, before.cached) << "dirty pages were dropped";
  EXPECT_TRUE(ContentIsWhole());

  ASSERT_EQ(fdatasync(fd_), 0);
  plughost::DropCleanPages(fd_, 0, end_);
  ASSERT_TRUE(PagesOf(fd_, 0, end_, &after));
  EXPECT_LT(after.cached, before.cached / 2) << "clean pages stayed";
  EXPECT_TRUE(ContentIsWhole()) << "read back from the disk";
}

}  // namespace
