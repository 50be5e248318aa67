#include "host/mount/mount_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "time/rfc3339.h"

namespace {

class ZoneGuard {
 public:
  explicit ZoneGuard(const char* zone) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ZoneGuard() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

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

TEST(MountSupport, FileTimesInUtcAreTheFields) {
  ZoneGuard zone("UTC");
  EXPECT_EQ(plughost::InstantOfFileTime("2024-01-01T12:00:00.000Z"), 1704110400);
  EXPECT_EQ(plughost::FileTimeOf(1704110400), "2024-01-01T12:00:00.000Z");
}

TEST(MountSupport, FileTimesEastOfUtcAreLocalFields) {
  ZoneGuard zone("Asia/Shanghai");
  // The plug-in writes local wall-clock fields; they name the real instant.
  EXPECT_EQ(plughost::InstantOfFileTime("2024-01-01T20:00:00.000Z"), 1704110400);
  EXPECT_EQ(plughost::FileTimeOf(1704110400), "2024-01-01T20:00:00.000Z");
}

TEST(MountSupport, FileTimesRoundTripInSummerTime) {
  ZoneGuard zone("Europe/Berlin");
  const time_t summer = 1719835200;  // 2024-07-01T12:00:00Z, 14:00 in Berlin
  const time_t winter = 1704110400;  // 2024-01-01T12:00:00Z, 13:00 in Berlin
  struct tm fields {};
  time_t t = summer;
  localtime_r(&t, &fields);
  std::string written = TMToRFC3339(&fields);  // what the plug-in writes
  EXPECT_EQ(written, "2024-07-01T14:00:00.000Z");
  EXPECT_EQ(plughost::InstantOfFileTime(written), summer);
  // What SetFileTime receives must make RFC3339ToTM give back the instant.
  EXPECT_EQ(RFC3339ToTM(plughost::FileTimeOf(summer).c_str()), summer);
  EXPECT_EQ(RFC3339ToTM(plughost::FileTimeOf(winter).c_str()), winter);
  EXPECT_EQ(plughost::FileTimeOf(winter), "2024-01-01T13:00:00.000Z");
}

TEST(MountSupport, ProtocolPaths) {
  EXPECT_EQ(plughost::ProtocolPathOf("/srv/data", "/"), "/srv/data");
  EXPECT_EQ(plughost::ProtocolPathOf("/srv/data", "/a/b"), "/srv/data/a/b");
  EXPECT_EQ(plughost::ProtocolPathOf("/srv/data/", "/a"), "/srv/data/a");
  EXPECT_EQ(plughost::ProtocolPathOf("/", "/a"), "/a");
  EXPECT_EQ(plughost::ProtocolPathOf("/", "/"), "/");
  EXPECT_EQ(plughost::RelativeOf("/a/b/"), "a/b");
  std::string parent, name;
  plughost::SplitRelative("a/b/c", &parent, &name);
  EXPECT_EQ(parent, "a/b");
  EXPECT_EQ(name, "c");
  plughost::SplitRelative("top", &parent, &name);
  EXPECT_EQ(parent, "");
  EXPECT_EQ(name, "top");
}

TEST(MountSupport, StatFromRecord) {
  ZoneGuard zone("UTC");
  _FS_FILE_V2 file;
  file.type = 2;
  file.size = 4096;
  file.create_time = "2024-01-01T12:00:00.000Z";
  file.access_time = "2024-01-01T12:00:01.000Z";
  file.modify_time = "2024-01-01T12:00:02.000Z";
  struct stat st {};
  plughost::FillStat(file, 1000, 100, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
  EXPECT_EQ(st.st_uid, 1000u);
  EXPECT_EQ(st.st_gid, 100u);
  EXPECT_EQ(st.st_ctim.tv_sec, 1704110400);
  EXPECT_EQ(st.st_atim.tv_sec, 1704110401);
  EXPECT_EQ(st.st_mtim.tv_sec, 1704110402);
  file.type = 1;
  plughost::FillStat(file, 0, 0, &st);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST(MountSupport, MountTable) {
  EXPECT_EQ(plughost::UnescapeMountField("/tmp/with\\040blank"), "/tmp/with blank");
  EXPECT_EQ(plughost::UnescapeMountField("/plain\\"), "/plain\\");
  char pattern[] = "/tmp/mountinfo.XXXXXX";
  int fd = mkstemp(pattern);
  ASSERT_GE(fd, 0);
  close(fd);
  {
    std::ofstream out(pattern);
    out << "22 1 0:21 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
        << "90 22 0:50 / /tmp/m\\040x rw,nosuid,nodev,relatime shared:5 - fuse.localdisk "
           "plughost:/srv rw,user_id=0,group_id=0\n";
  }
  auto entry = plughost::FindMount("/tmp/m x", pattern);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->fs_type, "fuse.localdisk");
  EXPECT_EQ(entry->source, "plughost:/srv");
  EXPECT_FALSE(plughost::FindMount("/tmp/m", pattern).has_value());
  std::filesystem::remove(pattern);
}

}  // namespace
