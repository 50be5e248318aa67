#include "host/mount/mount_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include "tests/support/files.h"
#include "tests/support/time_zone.h"

namespace {

TEST(MountSupport, ErrnoFollowsConvertAERROR) {
  EXPECT_EQ(plughost::ErrnoOf(SUCCESS), 0);
  EXPECT_EQ(plughost::ErrnoOf(FILE_NOT_FOUND), -ENOENT);
  EXPECT_EQ(plughost::ErrnoOf(ACCESS_DENIED), -EACCES);
  EXPECT_EQ(plughost::ErrnoOf(SHARING_VIOLATION), -EACCES);
  // Only FILE_NOT_FOUND means ENOENT; everything else unnamed is EIO.
  EXPECT_EQ(plughost::ErrnoOf(PATH_NOT_FOUND), -EIO);
  EXPECT_EQ(plughost::ErrnoOf(DIR_NOT_EMPTY), -EIO);
  EXPECT_EQ(plughost::ErrnoOf(FAILED), -EIO);
}

TEST(MountSupport, StatFromRecord) {
  test_support::TzGuard zone("UTC");
  _FS_FILE_V2 file;
  file.type = 2;
  file.size = 4096;
  file.create_time = "2024-01-01T12:00:00.000Z";
  file.access_time = "2024-01-01T12:00:01.000Z";
  file.modify_time = "2024-01-01T12:00:02.000Z";
  struct stat st {};
  plughost::Ownership owner;
  owner.uid = 1000;
  owner.gid = 100;
  plughost::FillStat(file, owner, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFDIR | 0700)) << "private by default";
  EXPECT_EQ(st.st_blksize, 4096);
  EXPECT_EQ(st.st_uid, 1000u);
  EXPECT_EQ(st.st_gid, 100u);
  EXPECT_EQ(st.st_ctim.tv_sec, 1704110400);
  EXPECT_EQ(st.st_atim.tv_sec, 1704110401);
  EXPECT_EQ(st.st_mtim.tv_sec, 1704110402);
  file.type = 1;
  plughost::FillStat(file, owner, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0600));
  owner.file_mode = 0644;
  plughost::FillStat(file, owner, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST(MountSupport, MountTable) {
  EXPECT_EQ(plughost::UnescapeMountField("/tmp/with\\040blank"), "/tmp/with blank");
  EXPECT_EQ(plughost::UnescapeMountField("/plain\\"), "/plain\\");
  test_support::TempDir work("mount_support_test");
  const std::string pattern = work / "mountinfo";
  {
    std::ofstream out(pattern);
    out << "22 1 0:21 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
        << "90 22 0:50 / /tmp/m\\040x rw,nosuid,nodev,relatime shared:5 - fuse.localdisk "
           "plughost:/srv rw,user_id=0,group_id=0\n";
  }
  auto entry = plughost::FindMount("/tmp/m x", pattern);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->id, 90);
  EXPECT_EQ(entry->fs_type, "fuse.localdisk");
  EXPECT_EQ(entry->source, "plughost:/srv");
  EXPECT_FALSE(plughost::FindMount("/tmp/m", pattern).has_value());
}

}  // namespace
