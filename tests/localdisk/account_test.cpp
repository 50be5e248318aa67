// Account text and quota figures.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "backend_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace backend_test;

std::string HostName() {
  char host[1024] = {};
  if (gethostname(host, sizeof host) != 0) return "";
  return host;
}

// Gives this test process a host name of its own; false where that is not allowed.
bool UseHostName(const char* name) {
  if (unshare(CLONE_NEWUTS) != 0) return false;
  return sethostname(name, std::strlen(name)) == 0;
}

class Account : public ::testing::Test {
 protected:
  LocalDisk disk{nullptr};
};

TEST_F(Account, ExactCapacityIsEnoughAndNothingIsTerminated) {
  if (!UseHostName("box")) GTEST_SKIP() << "cannot set a private host name here";
  ScopedEnv user("USER", "ann");
  char buffer[16];
  std::memset(buffer, '#', sizeof buffer);
  int length = 7;
  ASSERT_EQ(disk.GetUserInfo(buffer, &length), SUCCESS);
  EXPECT_EQ(length, 7);
  EXPECT_EQ(std::string(buffer, 7), "box/ann");
  EXPECT_EQ(buffer[7], '#');

  std::memset(buffer, '#', sizeof buffer);
  length = 6;
  EXPECT_EQ(disk.GetUserInfo(buffer, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 7);
  EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, '#'));
}

TEST_F(Account, TextIsHostSlashUser) {
  ScopedEnv user("USER", "someone");
  const std::string expected = HostName() + "/someone";
  char buffer[2048];
  int length = sizeof buffer;
  ASSERT_EQ(disk.GetUserInfo(buffer, &length), SUCCESS);
  EXPECT_EQ(std::string(buffer, length), expected);
}

TEST_F(Account, NullBufferReportsTheNeededLength) {
  ScopedEnv user("USER", "ann");
  int length = 100;
  EXPECT_EQ(disk.GetUserInfo(nullptr, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, static_cast<int>(HostName().size() + 4));
}

TEST_F(Account, NullLengthIsInvalid) {
  char buffer[8];
  EXPECT_EQ(disk.GetUserInfo(buffer, nullptr), INVALID_PARAMETER);
}

TEST_F(Account, NegativeCapacityIsAlwaysTooSmall) {
  ScopedEnv user("USER", "");
  char buffer[2048];
  int length = -1;
  EXPECT_EQ(disk.GetUserInfo(buffer, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, static_cast<int>(HostName().size() + 1));
}

TEST_F(Account, MissingUserIsAnEmptyName) {
  ScopedEnv user("USER", nullptr);
  char buffer[2048];
  int length = sizeof buffer;
  ASSERT_EQ(disk.GetUserInfo(buffer, &length), SUCCESS);
  EXPECT_EQ(std::string(buffer, length), HostName() + "/");
}

TEST_F(Account, OverlongUserIsCutToTheScratchSize) {
  const std::string huge(5000, 'u');
  ScopedEnv user("USER", huge.c_str());
  std::vector<char> buffer(8192);
  int length = static_cast<int>(buffer.size());
  ASSERT_EQ(disk.GetUserInfo(buffer.data(), &length), SUCCESS);
  EXPECT_EQ(std::string(buffer.data(), length), HostName() + "/" + std::string(1023, 'u'));
}

TEST_F(Account, QuotaOfAnUnconfiguredObjectLeavesTheOutputs) {
  unsigned long long total = 11, used = 22;
  EXPECT_EQ(disk.GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(total, 11u);
  EXPECT_EQ(used, 22u);
  disk.SetOpt("root_path", "/");
  EXPECT_EQ(disk.GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(total, 11u);
  EXPECT_EQ(used, 22u);
}

TEST_F(Account, QuotaOfAMissingRootIsAccessDenied) {
  TempDir dir;
  disk.SetOpt("root_path", (dir / "missing").c_str());
  unsigned long long total = 11, used = 22;
  EXPECT_EQ(disk.GetQuota(&total, &used), ACCESS_DENIED);
  EXPECT_EQ(total, 11u);
  EXPECT_EQ(used, 22u);
}

TEST_F(Account, QuotaGivesTotalAndUsedSpace) {
  TempDir dir;
  disk.SetOpt("root_path", dir.path().c_str());
  struct statfs fs;
  ASSERT_EQ(statfs(dir.path().c_str(), &fs), 0);
  const unsigned long long block = static_cast<unsigned long long>(fs.f_bsize);
  unsigned long long total = 0, used = 0;
  ASSERT_EQ(disk.GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(total, block * fs.f_blocks);
  // The second figure is the used space (blocks not available), not the free.
  // Other processes may write meanwhile, so allow some drift.
  const unsigned long long expected_used = block * (fs.f_blocks - fs.f_bavail);
  const unsigned long long drift = 256ull << 20;
  EXPECT_LE(used, expected_used + drift);
  EXPECT_GE(used + drift, expected_used);
  EXPECT_GT(used, 0u);
}

TEST_F(Account, QuotaFillsOnlyTheGivenPointers) {
  TempDir dir;
  disk.SetOpt("root_path", dir.path().c_str());
  unsigned long long used = 0;
  ASSERT_EQ(disk.GetQuota(nullptr, &used), SUCCESS);
  EXPECT_GT(used, 0u);
  unsigned long long total = 0;
  ASSERT_EQ(disk.GetQuota(&total, nullptr), SUCCESS);
  EXPECT_GT(total, 0u);
  EXPECT_EQ(disk.GetQuota(nullptr, nullptr), SUCCESS);
}

TEST_F(Account, SetQuotaIsNotSupported) {
  EXPECT_EQ(disk.SetQuota(0, 0), NOT_SUPPORTED);
  EXPECT_EQ(disk.SetQuota(~0ull, 12345), NOT_SUPPORTED);
  unsigned long long total = 7, used = 8;
  EXPECT_EQ(disk.GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(total, 7u);
}

}  // namespace
