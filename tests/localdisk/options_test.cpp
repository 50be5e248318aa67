// LocalDisk construction, options and the operations with fixed answers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "localdisk/local_disk.h"
#include "tests/protocol/test_protocol.h"

namespace {

class LocalDiskOptions : public ::testing::Test {
 protected:
  RecordingManager manager;
  LocalDisk* disk = new LocalDisk(&manager);
  void TearDown() override { disk->Release(); }

  std::string RootId(AERROR* result, int capacity) {
    std::string buffer(64, '#');
    int length = capacity;
    *result = disk->GetRootID(buffer.data(), &length);
    last_length = length;
    return buffer;
  }
  int last_length = 0;
};

TEST_F(LocalDiskOptions, AnUnconfiguredObjectServesTheFileSystemRoot) {
  EXPECT_EQ(disk->RootPath(), "/");
  AERROR result;
  std::string buffer = RootId(&result, 64);
  EXPECT_EQ(result, SUCCESS);
  EXPECT_EQ(last_length, 1);
  EXPECT_EQ(buffer.substr(0, 2), "/#");  // no terminator written
}

TEST_F(LocalDiskOptions, RootPathKeyIsCaseInsensitiveAndKeepsTheTrailingSeparator) {
  EXPECT_EQ(disk->SetOpt("ROOT_PATH", "/data/"), SUCCESS);
  EXPECT_EQ(disk->RootPath(), "/data/");
  EXPECT_EQ(disk->SetOpt("root_path", "relative/../x"), SUCCESS);
  EXPECT_EQ(disk->RootPath(), "relative/../x");  // taken as it stands
}

TEST_F(LocalDiskOptions, OptionsReachTheBase) {
  EXPECT_EQ(disk->SetOpt("speedlimit", "100"), SUCCESS);
  EXPECT_EQ(disk->SetOpt("Pid", "instance-7"), SUCCESS);
  EXPECT_EQ(disk->GetPID(), "instance-7");
  EXPECT_EQ(disk->SetOpt("nobody_knows_this", "1"), SUCCESS);
  EXPECT_EQ(disk->RootPath(), "/");
  EXPECT_EQ(disk->GetPID(), "instance-7");
}

TEST_F(LocalDiskOptions, GetRootIdWritesExactlyTheBytesWithoutTerminator) {
  disk->SetOpt("root_path", "/data");
  AERROR result;
  std::string buffer = RootId(&result, 5);
  EXPECT_EQ(result, SUCCESS);
  EXPECT_EQ(last_length, 5);
  EXPECT_EQ(buffer.substr(0, 6), "/data#");

  buffer = RootId(&result, 4);
  EXPECT_EQ(result, INSUFFICIENT_BUFFER);
  EXPECT_EQ(last_length, 5);
  EXPECT_EQ(buffer.substr(0, 6), "######");  // untouched

  buffer = RootId(&result, -1);
  EXPECT_EQ(result, INSUFFICIENT_BUFFER);
  EXPECT_EQ(last_length, 5);
}

TEST_F(LocalDiskOptions, GetRootIdNullArguments) {
  disk->SetOpt("root_path", "/data");
  int length = 100;
  EXPECT_EQ(disk->GetRootID(nullptr, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 5);
  char buffer[8];
  EXPECT_EQ(disk->GetRootID(buffer, nullptr), INVALID_PARAMETER);
}

TEST_F(LocalDiskOptions, GetCredentialPublishesThePidToTheManager) {
  RecordingLocalConfiguration local;
  disk->SetLocalConfiguration(&local);  // bypassed on purpose
  disk->SetOpt("pid", "p1");
  char buffer[4] = {'x', 'x', 'x', 'x'};
  int length = 0;
  EXPECT_EQ(disk->GetCredential(buffer, &length), SUCCESS);
  EXPECT_EQ(length, 0);
  ASSERT_EQ(manager.writes.size(), 1u);
  EXPECT_EQ(manager.writes[0].section, "p1");
  EXPECT_EQ(manager.writes[0].key, "pid");
  EXPECT_EQ(manager.writes[0].value, "p1");
  EXPECT_TRUE(manager.writes[0].flag);
  EXPECT_TRUE(local.writes.empty());
  EXPECT_EQ(std::string(buffer, 4), "xxxx");

  manager.write_result = FAILED;  // ignored
  length = 4;
  EXPECT_EQ(disk->GetCredential(buffer, &length), SUCCESS);
  EXPECT_EQ(length, 0);
}

TEST_F(LocalDiskOptions, GetCredentialRefusals) {
  char buffer[4];
  int length = -1;
  EXPECT_EQ(disk->GetCredential(buffer, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0);
  length = 10;
  EXPECT_EQ(disk->GetCredential(nullptr, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(disk->GetCredential(buffer, nullptr), INVALID_PARAMETER);
  EXPECT_TRUE(manager.writes.empty());
}

TEST_F(LocalDiskOptions, GetTypeReturnsTheSameStaticText) {
  char* first = nullptr;
  char* second = nullptr;
  EXPECT_EQ(disk->GetType(&first), SUCCESS);
  LocalDisk other(&manager);
  EXPECT_EQ(other.GetType(&second), SUCCESS);
  EXPECT_STREQ(first, "localdisk");
  EXPECT_EQ(first, second);
}

TEST_F(LocalDiskOptions, FixedAnswers) {
  EXPECT_EQ(disk->GetChanges(nullptr, nullptr), NOT_SUPPORTED);
  EXPECT_EQ(disk->GetFeature(), 0x40);
  EXPECT_EQ(disk->Connect(nullptr, nullptr), SUCCESS);
  EXPECT_EQ(disk->SetChangesCallback(nullptr), SUCCESS);
  EXPECT_EQ(disk->SetQuota(1, 2), NOT_SUPPORTED);
  EXPECT_EQ(LocalDisk::GetAuthType(), 0);
  EXPECT_EQ(LocalDisk::GetAuthFields(nullptr, nullptr), NOT_SUPPORTED);

  char buffer[4] = {'a', 'b', 'c', 'd'};
  int length = 4;
  EXPECT_EQ(disk->GetIdentifier(buffer, &length), SUCCESS);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  EXPECT_EQ(disk->GetIdentifier(nullptr, nullptr), SUCCESS);

  std::string link = "unchanged";
  _FS_FILE_V2 file;
  EXPECT_EQ(disk->GetShareableLink(&file, link), NOT_SUPPORTED);
  EXPECT_EQ(link, "unchanged");

  disk->FreeMsg(nullptr);
  disk->FreeMsg(strdup("message"));
}

TEST(LocalDiskLayout, IsUsableAsTheInterfaceWithoutAdjustment) {
  RecordingManager manager;
  LocalDisk* disk = new LocalDisk(&manager);
  IProtocol_V2* as_interface = disk;
  EXPECT_EQ(static_cast<void*>(as_interface), static_cast<void*>(disk));
  as_interface->Release();
}

}  // namespace
