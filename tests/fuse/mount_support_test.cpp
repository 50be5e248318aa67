#include "host/mount/mount_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

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

TEST(MountSupport, StatShapeHasNoTimes) {
  plughost::Ownership owner;
  owner.uid = 7;
  struct stat st {};
  plughost::FillStatShape(false, 1000, owner, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0600));
  EXPECT_EQ(st.st_size, 1000);
  EXPECT_EQ(st.st_blocks, 2);
  EXPECT_EQ(st.st_nlink, 1u);
  EXPECT_EQ(st.st_uid, 7u);
  EXPECT_EQ(st.st_mtim.tv_sec, 0);
  plughost::FillStatShape(true, -5, owner, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_nlink, 2u);
}

// The kernel's mode checks are left out only where they could not refuse
// anything the mount allows: no other users, and the mounting user shown as
// the owner with a local owner's rights (or root, whom modes do not stop).
TEST(MountSupport, KernelChecksModesUnlessOnlyTheOwnerCanComeIn) {
  using plughost::KernelChecksModes;
  plughost::Ownership owner;
  owner.uid = 1000;
  EXPECT_FALSE(KernelChecksModes(owner, false, 1000)) << "0600/0700, the mounting user";
  EXPECT_TRUE(KernelChecksModes(owner, true, 1000)) << "others may come in";
  EXPECT_TRUE(KernelChecksModes(owner, false, 1001)) << "shown as someone else (--uid)";
  owner.file_mode = 0400;
  EXPECT_TRUE(KernelChecksModes(owner, false, 1000)) << "read-only files";
  owner.file_mode = 0600;
  owner.dir_mode = 0500;
  EXPECT_TRUE(KernelChecksModes(owner, false, 1000)) << "read-only directories";
  owner.dir_mode = 0755;
  owner.file_mode = 0755;
  EXPECT_FALSE(KernelChecksModes(owner, false, 1000)) << "the owner may execute";
  owner.file_mode = 0610;
  EXPECT_TRUE(KernelChecksModes(owner, false, 1000)) << "only the group may execute";
  owner.file_mode = 0;
  owner.dir_mode = 0;
  owner.uid = 1000;
  EXPECT_FALSE(KernelChecksModes(owner, false, 0)) << "root passes every mode";
  EXPECT_TRUE(KernelChecksModes(owner, true, 0));
}

TEST(MountSupport, OnlyWriteOnlyHandlesBypassThePageCacheAndNotWithTheWritebackCache) {
  using plughost::BypassesPageCache;
  EXPECT_TRUE(BypassesPageCache(O_WRONLY, false));
  EXPECT_TRUE(BypassesPageCache(O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, false));
  EXPECT_FALSE(BypassesPageCache(O_RDWR, false)) << "it may read or be mapped";
  EXPECT_FALSE(BypassesPageCache(O_RDONLY, false));
  EXPECT_FALSE(BypassesPageCache(O_WRONLY, true)) << "the kernel gathers small writes";
}

TEST(MountSupport, OnlyKernelsThatDropCachedPagesOnDirectWritesGetThem) {
  using plughost::KernelDropsPagesOnDirectWrites;
  EXPECT_FALSE(KernelDropsPagesOnDirectWrites(31)) << "Linux 5.x: readers would see old bytes";
  EXPECT_FALSE(KernelDropsPagesOnDirectWrites(38)) << "Linux 6.1 to 6.5";
  EXPECT_TRUE(KernelDropsPagesOnDirectWrites(39)) << "Linux 6.6";
  EXPECT_TRUE(KernelDropsPagesOnDirectWrites(45));
}

struct stat Shown(mode_t mode, uid_t uid, gid_t gid) {
  struct stat st {};
  st.st_mode = mode;
  st.st_uid = uid;
  st.st_gid = gid;
  return st;
}

TEST(MountSupport, AccessFollowsTheKernelsRules) {
  using plughost::AccessFor;
  plughost::Caller owner{1000, 100, {}};
  plughost::Caller member{1001, 200, {100}};
  plughost::Caller other{1002, 300, {}};
  plughost::Caller root{0, 0, {}};
  const struct stat file = Shown(S_IFREG | 0640, 1000, 100);
  EXPECT_EQ(AccessFor(file, R_OK | W_OK, owner), 0);
  EXPECT_EQ(AccessFor(file, X_OK, owner), -EACCES);
  EXPECT_EQ(AccessFor(file, R_OK, member), 0);
  EXPECT_EQ(AccessFor(file, W_OK, member), -EACCES);
  EXPECT_EQ(AccessFor(file, R_OK, other), -EACCES);
  EXPECT_EQ(AccessFor(file, F_OK, other), 0);
  EXPECT_EQ(AccessFor(file, R_OK | W_OK, root), 0);
  EXPECT_EQ(AccessFor(file, X_OK, root), -EACCES) << "no x bit anywhere";
  EXPECT_EQ(AccessFor(Shown(S_IFREG | 0001, 1000, 100), X_OK, root), 0);
  const struct stat dir = Shown(S_IFDIR | 0700, 1000, 100);
  EXPECT_EQ(AccessFor(dir, R_OK | W_OK | X_OK, owner), 0);
  EXPECT_EQ(AccessFor(dir, X_OK, member), -EACCES);
  EXPECT_EQ(AccessFor(Shown(S_IFDIR | 0, 1000, 100), X_OK, root), 0)
      << "root searches any directory";
}

TEST(MountSupport, ChownFollowsTheKernelsRules) {
  using plughost::ChownAllowed;
  const uid_t keep_uid = static_cast<uid_t>(-1);
  const gid_t keep_gid = static_cast<gid_t>(-1);
  const struct stat file = Shown(S_IFREG | 0600, 1000, 100);
  plughost::Caller owner{1000, 100, {200}};
  plughost::Caller other{1001, 100, {}};
  EXPECT_EQ(ChownAllowed(file, 1000, keep_gid, owner), 0) << "to itself";
  EXPECT_EQ(ChownAllowed(file, keep_uid, keep_gid, owner), 0);
  EXPECT_EQ(ChownAllowed(file, 1001, keep_gid, owner), -EPERM) << "giving it away";
  EXPECT_EQ(ChownAllowed(file, keep_uid, 200, owner), 0) << "to a group of its own";
  EXPECT_EQ(ChownAllowed(file, keep_uid, 300, owner), -EPERM) << "to a foreign group";
  EXPECT_EQ(ChownAllowed(file, 1000, keep_gid, other), -EPERM) << "not the owner";
  EXPECT_EQ(ChownAllowed(file, keep_uid, 100, other), -EPERM);
  EXPECT_EQ(ChownAllowed(file, 5, 5, plughost::Caller{0, 0, {}}), 0) << "root";
  plughost::Caller unknown_groups{1000, 100, {}, false};
  EXPECT_EQ(ChownAllowed(file, keep_uid, 300, unknown_groups), 0) << "membership unknown";
  EXPECT_EQ(ChownAllowed(file, 1001, keep_gid, unknown_groups), -EPERM);
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
