// Operations given paths inside one directory change nothing outside it:
// not its siblings, not its parent, not the working directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include "backend_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace backend_test;
namespace fs = std::filesystem;

// Kind, size and modification time of every entry below `top` except `skip`.
std::map<std::string, std::string> Snapshot(const std::string& top, const std::string& skip) {
  std::map<std::string, std::string> entries;
  auto describe = [](const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return std::string("?");
    return std::to_string(st.st_mode) + ":" + std::to_string(st.st_size) + ":" +
           std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
  };
  entries[top] = describe(top);
  for (auto it = fs::recursive_directory_iterator(top); it != fs::recursive_directory_iterator();
       ++it) {
    const std::string path = it->path().string();
    if (path == skip) {
      it.disable_recursion_pending();
      continue;
    }
    entries[path] = describe(path);
  }
  return entries;
}

class Confinement : public ::testing::Test {
 protected:
  void SetUp() override {
    root = outer / "root";
    ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((outer / "sibling").c_str(), 0755), 0);
    WriteFile(outer / "sibling/marker", "marker");
    WriteFile(outer / "beside.txt", "beside");
    ASSERT_EQ(mkdir((outer / "cwd").c_str(), 0755), 0);
    previous_cwd = fs::current_path().string();
    ASSERT_EQ(chdir((outer / "cwd").c_str()), 0);
    disk.SetOpt("root_path", root.c_str());
  }
  void TearDown() override { ASSERT_EQ(chdir(previous_cwd.c_str()), 0); }

  TempDir outer;
  std::string root;
  std::string previous_cwd;
  LocalDisk disk{nullptr};
};

TEST_F(Confinement, NoOperationWritesOutsideTheGivenDirectory) {
  // Let a second pass over the same tree tick the clock visibly if anything
  // outside were touched.
  const auto before = Snapshot(outer.path(), root);
  usleep(20000);

  char root_id[4096];
  int root_length = sizeof root_id;
  ASSERT_EQ(disk.GetRootID(root_id, &root_length), SUCCESS);
  const std::string r(root_id, root_length);
  ASSERT_EQ(r, root);

  // Creation, with plain and odd spellings of the parent.
  _FS_FILE_V2 dir_record;
  dir_record.name = "docs";
  EXPECT_EQ(disk.CreateDirectory(r.c_str(), &dir_record, nullptr), SUCCESS);
  dir_record.name = "more";
  EXPECT_EQ(disk.CreateDirectory((r + "/./docs/../").c_str(), &dir_record, nullptr), SUCCESS);
  dir_record.name = "inner";
  EXPECT_EQ(disk.CreateDirectory((r + "//docs//").c_str(), &dir_record, nullptr), SUCCESS);
  dir_record.name = "x";
  EXPECT_EQ(disk.CreateDirectory((r + "/missing").c_str(), &dir_record, nullptr), FILE_NOT_FOUND);

  // Uploads that succeed, fail and are cancelled.
  const std::string content = Pattern(600000, 5);
  MemoryCache cache(content);
  _FS_FILE_V2 up;
  up.name = "a.bin";
  up.size = static_cast<long long>(content.size());
  EXPECT_EQ(
      disk.Upload((r + "/docs").c_str(), MakeHandle(), &cache, &up, UPLOAD_FLAG_NONE, nullptr),
      SUCCESS);
  MemoryCache failing(content);
  failing.fail_at = 2;
  _FS_FILE_V2 bad;
  bad.name = "bad.bin";
  bad.size = up.size;
  EXPECT_EQ(
      disk.Upload((r + "/docs/").c_str(), MakeHandle(), &failing, &bad, UPLOAD_FLAG_NONE, nullptr),
      FAILED);
  MemoryCache cancelling(content);
  cancelling.cancel_at = 1;
  _FS_FILE_V2 cut;
  cut.name = "cut.bin";
  cut.size = up.size;
  EXPECT_EQ(disk.Upload((r + "/more/.").c_str(), MakeHandle(), &cancelling, &cut, UPLOAD_FLAG_NONE,
                        nullptr),
            UPLOAD_CANCELED);
  _FS_FILE_V2 empty;
  empty.name = "empty";
  EXPECT_EQ(disk.Upload(r.c_str(), MakeHandle(), &cache, &empty, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  _FS_FILE_V2 lost;
  lost.name = "lost";
  lost.size = 1;
  EXPECT_EQ(
      disk.Upload((r + "/missing").c_str(), MakeHandle(), &cache, &lost, UPLOAD_FLAG_NONE, nullptr),
      FILE_NOT_FOUND);

  // Reads, listings and records.
  CollectingSink sink;
  EXPECT_EQ(disk.Read((r + "/docs/a.bin").c_str(), 0, up.size, MakeHandle(), &sink, nullptr),
            SUCCESS);
  EXPECT_TRUE(sink.data == content);
  RecordingList list;
  EXPECT_EQ(disk.GetFileList(r.c_str(), &list, nullptr), SUCCESS);
  EXPECT_EQ(disk.GetFileList((r + "/docs/").c_str(), &list, nullptr), SUCCESS);
  _FS_FILE_V2 info;
  EXPECT_EQ(disk.GetFileInfo((r + "/docs/a.bin").c_str(), &info, nullptr), SUCCESS);
  EXPECT_EQ(disk.GetFileInfo(r.c_str(), &info, nullptr), SUCCESS);

  // Moves, time stamps and deletions.
  _FS_FILE_V2 moved;
  moved.name = "b.bin";
  EXPECT_EQ(disk.Move((r + "/docs/a.bin").c_str(), (r + "/more").c_str(), &moved, nullptr),
            SUCCESS);
  moved.name = "c.bin";
  EXPECT_EQ(disk.Rename((r + "/more/b.bin").c_str(), (r + "/docs/inner/").c_str(), &moved, nullptr),
            SUCCESS);
  moved.name = "inner2";
  EXPECT_EQ(disk.MoveDir((r + "/docs/inner").c_str(), (r + "/more").c_str(), &moved, nullptr),
            SUCCESS);
  moved.name = "y";
  EXPECT_EQ(disk.Move((r + "/nothing").c_str(), r.c_str(), &moved, nullptr), FILE_NOT_FOUND);
  EXPECT_EQ(disk.Move((r + "/more/cut.bin").c_str(), (r + "/missing").c_str(), &moved, nullptr),
            ACCESS_DENIED);
  EXPECT_EQ(disk.SetFileTime((r + "/more/inner2/c.bin").c_str(), "", "2020-01-01T00:00:00.000Z",
                             "2020-01-01T00:00:00.000Z", nullptr, nullptr),
            SUCCESS);
  _FS_FILE_V2 victim;
  victim.id = r + "/more/inner2/c.bin";
  EXPECT_EQ(disk.Delete(&victim, nullptr), SUCCESS);
  victim.id = r + "/more/inner2/";
  EXPECT_EQ(disk.DeleteDirectory(&victim, nullptr), SUCCESS);
  victim.id = r + "/more";
  EXPECT_EQ(disk.DeleteDirectory(&victim, nullptr), ACCESS_DENIED);
  victim.id = r + "/gone";
  EXPECT_EQ(disk.Delete(&victim, nullptr), FILE_NOT_FOUND);

  // Account queries.
  char user[4096];
  int user_length = sizeof user;
  EXPECT_EQ(disk.GetUserInfo(user, &user_length), SUCCESS);
  unsigned long long total = 0, used = 0;
  EXPECT_EQ(disk.GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(disk.SetQuota(1, 2), NOT_SUPPORTED);

  // Nothing outside the root changed, and the working directory is empty.
  EXPECT_EQ(Snapshot(outer.path(), root), before);
  EXPECT_TRUE(fs::is_empty(outer / "cwd"));
  // The root itself did get the work.
  EXPECT_TRUE(Exists(r + "/empty"));
  EXPECT_TRUE(Exists(r + "/more/cut.bin"));
  EXPECT_FALSE(Exists(r + "/docs/bad.bin"));
}

}  // namespace
