// Directories that change under a listing: removed from inside the host's
// callback, emptied by another thread meanwhile, or gone before the call.
// The listing ends (SUCCESS, or FILE_NOT_FOUND when it cannot start) and
// every record it gave names an entry that existed, with its identifier.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "hardening_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace hardening;

class Recording : public IFileList {
 public:
  std::vector<_FS_FILE_V2> files;
  std::function<void()> on_first;
  AERROR OnFile(_FS_FILE_V2* file) override {
    files.push_back(*file);
    if (files.size() == 1 && on_first) on_first();
    return SUCCESS;
  }
};

std::set<std::string> MakeEntries(const std::string& directory, int count) {
  std::set<std::string> names;
  for (int i = 0; i < count; ++i) {
    const std::string name = "entry-" + std::to_string(i) + "-with-a-longer-name";
    WriteFile(directory + "/" + name, "x");
    names.insert(name);
  }
  return names;
}

void CheckRecords(const Recording& list, const std::string& directory,
                  const std::set<std::string>& names) {
  std::set<std::string> seen;
  for (const auto& file : list.files) {
    EXPECT_EQ(names.count(file.name), 1u) << file.name;
    EXPECT_TRUE(seen.insert(file.name).second) << "listed twice: " << file.name;
    EXPECT_EQ(file.id, directory + "/" + file.name);
  }
}

TEST(ListingFault, DirectoryRemovedFromInsideTheCallback) {
  TempDir dir;
  const std::string directory = dir / "doomed";
  ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
  // Enough entries that the directory stream must read more after removal.
  const auto names = MakeEntries(directory, 1500);
  LocalDisk disk(nullptr);
  Recording list;
  list.on_first = [&] {
    std::error_code error;
    std::filesystem::remove_all(directory, error);
    EXPECT_FALSE(error) << error.message();
  };
  EXPECT_EQ(disk.GetFileList(directory.c_str(), &list, nullptr), SUCCESS);
  EXPECT_FALSE(Exists(directory));
  ASSERT_GE(list.files.size(), 1u);
  EXPECT_LE(list.files.size(), names.size());
  CheckRecords(list, directory, names);
  // Entries whose status could no longer be read are listed without it.
  for (size_t i = 1; i < list.files.size(); ++i)
    EXPECT_EQ(list.files[i].size, 0);
}

TEST(ListingFault, DirectoryEmptiedByAnotherThreadMeanwhile) {
  TempDir dir;
  const std::string directory = dir / "shrinking";
  ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
  const auto names = MakeEntries(directory, 1000);
  LocalDisk disk(nullptr);
  Recording list;
  std::atomic<bool> started{false};
  list.on_first = [&] { started.store(true); };
  std::thread remover([&] {
    while (!started.load())
      std::this_thread::yield();
    for (const auto& name : names)
      unlink((directory + "/" + name).c_str());
    rmdir(directory.c_str());
  });
  const AERROR result = disk.GetFileList(directory.c_str(), &list, nullptr);
  started.store(true);  // releases the remover if nothing was listed
  remover.join();
  EXPECT_EQ(result, SUCCESS);
  CheckRecords(list, directory, names);
}

TEST(ListingFault, DirectoryGoneBeforeTheCallGivesFileNotFound) {
  TempDir dir;
  const std::string directory = dir / "gone";
  ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
  ASSERT_EQ(rmdir(directory.c_str()), 0);
  LocalDisk disk(nullptr);
  Recording list;
  EXPECT_EQ(disk.GetFileList(directory.c_str(), &list, nullptr), FILE_NOT_FOUND);
  EXPECT_TRUE(list.files.empty());
}

TEST(ListingFault, DirectoryReplacedByAFileGivesFileNotFound) {
  TempDir dir;
  const std::string directory = dir / "was-a-directory";
  WriteFile(directory, "now a file");
  LocalDisk disk(nullptr);
  Recording list;
  EXPECT_EQ(disk.GetFileList(directory.c_str(), &list, nullptr), FILE_NOT_FOUND);
  EXPECT_TRUE(list.files.empty());
}

TEST(ListingFault, InfoOfAnEntryRemovedAfterTheListing) {
  TempDir dir;
  WriteFile(dir / "a", "1");
  LocalDisk disk(nullptr);
  Recording list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  ASSERT_EQ(list.files.size(), 1u);
  ASSERT_EQ(unlink((dir / "a").c_str()), 0);
  _FS_FILE_V2 record;
  record.name = "kept";
  EXPECT_EQ(disk.GetFileInfo(list.files[0].id.c_str(), &record, nullptr), FILE_NOT_FOUND);
  EXPECT_EQ(record.name, "kept");
}

}  // namespace
