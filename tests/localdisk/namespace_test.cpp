// Moving, creating, deleting and time-stamping entries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "backend_support.h"
#include "localdisk/local_disk.h"
#include "time/rfc3339.h"

namespace {

using namespace backend_test;

class Namespace : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir((dir / "a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir / "b").c_str(), 0755), 0);
    WriteFile(dir / "a/x.txt", "content");
  }
  TempDir dir;
  SpyDisk disk;
};

TEST_F(Namespace, MoveRenamesIntoTheTargetUnderTheRecordsName) {
  _FS_FILE_V2 file;
  file.name = "y.txt";
  ASSERT_EQ(disk.Move((dir / "a/x.txt").c_str(), (dir / "b").c_str(), &file, nullptr), SUCCESS);
  EXPECT_FALSE(Exists(dir / "a/x.txt"));
  EXPECT_EQ(ReadFile(dir / "b/y.txt"), "content");
  ASSERT_EQ(disk.info_paths.size(), 1u);
  EXPECT_EQ(disk.info_paths[0], dir / "b/y.txt");
  EXPECT_EQ(file.id, dir / "b/y.txt");
  EXPECT_EQ(file.name, "y.txt");
  EXPECT_EQ(file.size, 7);
  EXPECT_EQ(file.type, 1);
}

TEST_F(Namespace, MoveAppendsTheSeparatorToTargetAsPassed) {
  // A target with a trailing separator is mapped cleanly for rename, while
  // the refill path keeps the host's text and gets a doubled separator.
  _FS_FILE_V2 file;
  file.name = "y.txt";
  const std::string to = dir.path() + "/b/";
  ASSERT_EQ(disk.Move((dir / "a/x.txt").c_str(), to.c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(ReadFile(dir / "b/y.txt"), "content");
  ASSERT_EQ(disk.info_paths.size(), 1u);
  EXPECT_EQ(disk.info_paths[0], to + "/y.txt");
  EXPECT_EQ(file.id, dir / "b/y.txt");
}

TEST_F(Namespace, MoveIntoTheRootRefillsFromDoubleSlash) {
  // The refill path is "//" + name, built without looking at the end of the
  // target. A real "/" is needed, so a child process confines itself to the
  // temporary directory with chroot and moves there.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    if (chroot(dir.path().c_str()) != 0 || chdir("/") != 0) _exit(77);
    SpyDisk confined;
    _FS_FILE_V2 file;
    file.name = "y.txt";
    const AERROR result = confined.Move("/a/x.txt", "/", &file, nullptr);
    const std::string report = std::to_string(result) + "|" +
                               (confined.info_paths.empty() ? "-" : confined.info_paths[0]) + "|" +
                               file.id + "|" + file.name;
    if (write(fds[1], report.data(), report.size()) != static_cast<ssize_t>(report.size()))
      _exit(1);
    _exit(0);
  }
  close(fds[1]);
  const std::string report = test_support::ReadFd(fds[0]);
  close(fds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "chroot is not permitted here";
  ASSERT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(report, "0|//y.txt|/y.txt|y.txt");
  EXPECT_EQ(ReadFile(dir / "y.txt"), "content");
  EXPECT_FALSE(Exists(dir / "a/x.txt"));
}

TEST_F(Namespace, MoveRefillsThroughTheVirtualSlot) {
  _FS_FILE_V2 file;
  file.name = "y.txt";
  disk.info_result = FILE_NOT_FOUND;  // its result is ignored
  EXPECT_EQ(disk.Move((dir / "a/x.txt").c_str(), (dir / "b").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(disk.info_paths.size(), 1u);
}

TEST_F(Namespace, MoveOfAMissingSourceIsNotFound) {
  _FS_FILE_V2 file;
  file.name = "y.txt";
  EXPECT_EQ(disk.Move((dir / "a/none").c_str(), (dir / "b").c_str(), &file, nullptr),
            FILE_NOT_FOUND);
  EXPECT_TRUE(disk.info_paths.empty());
  EXPECT_EQ(file.id, "");
}

TEST_F(Namespace, MoveOfAFifoIsNotFound) {
  ASSERT_EQ(mkfifo((dir / "a/pipe").c_str(), 0644), 0);
  _FS_FILE_V2 file;
  file.name = "pipe2";
  EXPECT_EQ(disk.Move((dir / "a/pipe").c_str(), (dir / "b").c_str(), &file, nullptr),
            FILE_NOT_FOUND);
  EXPECT_TRUE(Exists(dir / "a/pipe"));
}

TEST_F(Namespace, MoveIntoAMissingDirectoryIsAccessDenied) {
  _FS_FILE_V2 file;
  file.name = "y.txt";
  file.id = "untouched";
  EXPECT_EQ(disk.Move((dir / "a/x.txt").c_str(), (dir / "nope").c_str(), &file, nullptr),
            ACCESS_DENIED);
  EXPECT_TRUE(Exists(dir / "a/x.txt"));
  EXPECT_EQ(file.id, "untouched");
  EXPECT_TRUE(disk.info_paths.empty());
}

TEST_F(Namespace, MoveOntoANonEmptyDirectoryIsAccessDenied) {
  ASSERT_EQ(mkdir((dir / "b/full").c_str(), 0755), 0);
  WriteFile(dir / "b/full/inner", "i");
  _FS_FILE_V2 file;
  file.name = "full";
  EXPECT_EQ(disk.Move((dir / "a").c_str(), (dir / "b").c_str(), &file, nullptr), ACCESS_DENIED);
  EXPECT_TRUE(Exists(dir / "a/x.txt"));
}

TEST_F(Namespace, MoveOfADirectory) {
  _FS_FILE_V2 file;
  file.name = "moved";
  ASSERT_EQ(disk.Move((dir / "a").c_str(), (dir / "b").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(ReadFile(dir / "b/moved/x.txt"), "content");
  EXPECT_EQ(file.type, 2);
  EXPECT_EQ(file.id, dir / "b/moved");
}

TEST_F(Namespace, MoveOfALinkMovesTheLinkItself) {
  ASSERT_EQ(symlink((dir / "a/x.txt").c_str(), (dir / "a/link").c_str()), 0);
  _FS_FILE_V2 file;
  file.name = "link2";
  ASSERT_EQ(disk.Move((dir / "a/link").c_str(), (dir / "b").c_str(), &file, nullptr), SUCCESS);
  struct stat st;
  ASSERT_EQ(lstat((dir / "b/link2").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_TRUE(Exists(dir / "a/x.txt"));
}

TEST_F(Namespace, RenameAndMoveDirForwardToTheVirtualMove) {
  _FS_FILE_V2 file;
  file.name = "r1";
  EXPECT_EQ(disk.Rename((dir / "a/x.txt").c_str(), (dir / "b").c_str(), &file, nullptr), SUCCESS);
  file.name = "r2";
  EXPECT_EQ(disk.MoveDir((dir / "b/r1").c_str(), (dir / "a").c_str(), &file, nullptr), SUCCESS);
  ASSERT_EQ(disk.move_calls.size(), 2u);
  EXPECT_EQ(disk.move_calls[0], (dir / "a/x.txt") + " -> " + (dir / "b"));
  EXPECT_EQ(disk.move_calls[1], (dir / "b/r1") + " -> " + (dir / "a"));
  EXPECT_EQ(ReadFile(dir / "a/r2"), "content");
}

TEST_F(Namespace, RenameMoveDirAndMoveGiveIdenticalResults) {
  using Op = AERROR (LocalDisk::*)(const char*, const char*, _FS_FILE_V2*, char**);
  const Op ops[] = {&LocalDisk::Move, &LocalDisk::Rename, &LocalDisk::MoveDir};
  std::vector<std::pair<AERROR, std::string>> results;
  for (Op op : ops) {
    WriteFile(dir / "a/s.txt", "s");
    _FS_FILE_V2 file;
    file.name = "t.txt";
    AERROR ok = (disk.*op)((dir / "a/s.txt").c_str(), (dir / "b").c_str(), &file, nullptr);
    AERROR missing = (disk.*op)((dir / "a/zz").c_str(), (dir / "b").c_str(), &file, nullptr);
    WriteFile(dir / "a/s.txt", "s");
    AERROR denied = (disk.*op)((dir / "a/s.txt").c_str(), (dir / "zz").c_str(), &file, nullptr);
    results.push_back({ok, file.id + "|" + std::to_string(missing) + "|" + std::to_string(denied)});
    std::remove((dir / "b/t.txt").c_str());
  }
  EXPECT_EQ(results[0].first, SUCCESS);
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

TEST_F(Namespace, CreateDirectoryMakesAndDescribesIt) {
  _FS_FILE_V2 file;
  file.name = "new";
  ASSERT_EQ(disk.CreateDirectory(dir.path().c_str(), &file, nullptr), SUCCESS);
  struct stat st;
  ASSERT_EQ(stat((dir / "new").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0755u & ~mask);
  EXPECT_EQ(file.type, 2);
  EXPECT_EQ(file.id, dir / "new");
  ASSERT_EQ(disk.info_paths.size(), 1u);
  EXPECT_EQ(disk.info_paths[0], dir / "new");
}

TEST_F(Namespace, CreateDirectoryUsesTheParentAsPassedForTheRefill) {
  _FS_FILE_V2 file;
  file.name = "new";
  const std::string parent = dir.path() + "/a/../";
  ASSERT_EQ(disk.CreateDirectory(parent.c_str(), &file, nullptr), SUCCESS);
  EXPECT_TRUE(Exists(dir / "new"));
  ASSERT_EQ(disk.info_paths.size(), 1u);
  EXPECT_EQ(disk.info_paths[0], parent + "/new");
  EXPECT_EQ(file.id, dir / "new");
}

TEST_F(Namespace, CreateDirectoryOnAnExistingDirectoryOrFileSucceeds) {
  _FS_FILE_V2 existing_dir;
  existing_dir.name = "a";
  EXPECT_EQ(disk.CreateDirectory(dir.path().c_str(), &existing_dir, nullptr), SUCCESS);
  EXPECT_EQ(existing_dir.type, 2);
  EXPECT_EQ(existing_dir.id, dir / "a");

  _FS_FILE_V2 existing_file;
  existing_file.name = "x.txt";
  EXPECT_EQ(disk.CreateDirectory((dir / "a").c_str(), &existing_file, nullptr), SUCCESS);
  EXPECT_EQ(existing_file.type, 1);
  EXPECT_EQ(existing_file.size, 7);
  EXPECT_EQ(ReadFile(dir / "a/x.txt"), "content");
}

TEST_F(Namespace, CreateDirectoryInAMissingParentIsNotFound) {
  _FS_FILE_V2 file;
  file.name = "new";
  EXPECT_EQ(disk.CreateDirectory((dir / "missing").c_str(), &file, nullptr), FILE_NOT_FOUND);
  EXPECT_TRUE(disk.info_paths.empty());
}

TEST_F(Namespace, CreateDirectoryInARegularFileIsAccessDeniedWithEnotdir) {
  _FS_FILE_V2 file;
  file.name = "new";
  file.id = "untouched";
  errno = 0;
  EXPECT_EQ(disk.CreateDirectory((dir / "a/x.txt").c_str(), &file, nullptr), ACCESS_DENIED);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(file.id, "untouched");
  EXPECT_TRUE(disk.info_paths.empty());
}

TEST_F(Namespace, CreateDirectoryFailureOfAnotherKindStillLeavesEnotdir) {
  // mkdir fails with ENAMETOOLONG here; the operation reports ENOTDIR.
  _FS_FILE_V2 file;
  file.name = std::string(300, 'n');
  errno = 0;
  EXPECT_EQ(disk.CreateDirectory(dir.path().c_str(), &file, nullptr), ACCESS_DENIED);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Namespace, CreateDirectoryInAFifoParentIsNotFound) {
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0644), 0);
  _FS_FILE_V2 file;
  file.name = "new";
  EXPECT_EQ(disk.CreateDirectory((dir / "pipe").c_str(), &file, nullptr), FILE_NOT_FOUND);
}

TEST_F(Namespace, DeleteRemovesAFileAndAnEmptyDirectory) {
  _FS_FILE_V2 file;
  file.id = dir / "a/x.txt";
  EXPECT_EQ(disk.Delete(&file, nullptr), SUCCESS);
  EXPECT_FALSE(Exists(dir / "a/x.txt"));
  _FS_FILE_V2 directory;
  directory.id = dir / "a/";
  EXPECT_EQ(disk.Delete(&directory, nullptr), SUCCESS);
  EXPECT_FALSE(Exists(dir / "a"));
}

TEST_F(Namespace, DeleteOfANonEmptyDirectoryIsAccessDenied) {
  _FS_FILE_V2 file;
  file.id = dir / "a";
  EXPECT_EQ(disk.Delete(&file, nullptr), ACCESS_DENIED);
  EXPECT_EQ(ReadFile(dir / "a/x.txt"), "content");
  EXPECT_EQ(disk.DeleteDirectory(&file, nullptr), ACCESS_DENIED);
  EXPECT_EQ(ReadFile(dir / "a/x.txt"), "content");
}

TEST_F(Namespace, DeleteOfAMissingEntryOrAFifoIsNotFound) {
  _FS_FILE_V2 file;
  file.id = dir / "missing";
  EXPECT_EQ(disk.Delete(&file, nullptr), FILE_NOT_FOUND);
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0644), 0);
  file.id = dir / "pipe";
  EXPECT_EQ(disk.Delete(&file, nullptr), FILE_NOT_FOUND);
  EXPECT_TRUE(Exists(dir / "pipe"));
}

TEST_F(Namespace, DeleteOfALinkRemovesTheLinkNotTheTarget) {
  ASSERT_EQ(symlink((dir / "a/x.txt").c_str(), (dir / "link").c_str()), 0);
  _FS_FILE_V2 file;
  file.id = dir / "link";
  EXPECT_EQ(disk.Delete(&file, nullptr), SUCCESS);
  EXPECT_FALSE(Exists(dir / "link"));
  EXPECT_EQ(ReadFile(dir / "a/x.txt"), "content");
}

TEST_F(Namespace, DeleteDirectoryForwardsToTheVirtualDelete) {
  ASSERT_EQ(mkdir((dir / "empty").c_str(), 0755), 0);
  _FS_FILE_V2 file;
  file.id = dir / "empty";
  EXPECT_EQ(disk.DeleteDirectory(&file, nullptr), SUCCESS);
  ASSERT_EQ(disk.delete_calls.size(), 1u);
  EXPECT_EQ(disk.delete_calls[0], dir / "empty");
  EXPECT_FALSE(Exists(dir / "empty"));
  // And the same answers as Delete for the same records.
  _FS_FILE_V2 missing;
  missing.id = dir / "missing";
  EXPECT_EQ(disk.DeleteDirectory(&missing, nullptr), disk.Delete(&missing, nullptr));
  WriteFile(dir / "f", "");
  _FS_FILE_V2 plain;
  plain.id = dir / "f";
  EXPECT_EQ(disk.DeleteDirectory(&plain, nullptr), SUCCESS);
  EXPECT_FALSE(Exists(dir / "f"));
}

TEST_F(Namespace, SetFileTimeReadsTheTextAsLocalStandardTime) {
  TzGuard tz("CST-8");
  _FS_FILE_V2 file;
  file.id = "untouched";
  ASSERT_EQ(disk.SetFileTime((dir / "a/x.txt").c_str(), "ignored", "2024-01-01T12:00:00.000Z",
                             "2024-02-03T04:05:06.000Z", &file, nullptr),
            SUCCESS);
  struct stat st;
  ASSERT_EQ(stat((dir / "a/x.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_atim.tv_sec, RFC3339ToTM("2024-01-01T12:00:00.000Z"));
  EXPECT_EQ(st.st_atim.tv_sec, 1704081600);
  EXPECT_EQ(st.st_atim.tv_nsec, 0);
  EXPECT_EQ(st.st_mtim.tv_sec, RFC3339ToTM("2024-02-03T04:05:06.000Z"));
  EXPECT_EQ(st.st_mtim.tv_nsec, 0);
  EXPECT_EQ(file.id, "untouched");
  EXPECT_EQ(file.type, 0);
}

TEST_F(Namespace, SetFileTimeRoundTripsWithGetFileInfo) {
  TzGuard tz("UTC0");
  ASSERT_EQ(disk.SetFileTime((dir / "a/x.txt").c_str(), "", "2023-05-06T07:08:09.000Z",
                             "2022-10-11T12:13:14.000Z", nullptr, nullptr),
            SUCCESS);
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo((dir / "a/x.txt").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.access_time, "2023-05-06T07:08:09.000Z");
  EXPECT_EQ(file.modify_time, "2022-10-11T12:13:14.000Z");
}

TEST_F(Namespace, SetFileTimeTakesThePathUnmapped) {
  // A path that only a mapping would make valid is not found.
  const std::string trailing_dot_dot = dir.path() + "/a/missing/..";
  EXPECT_EQ(disk.SetFileTime(trailing_dot_dot.c_str(), "", "2024-01-01T00:00:00.000Z",
                             "2024-01-01T00:00:00.000Z", nullptr, nullptr),
            FILE_NOT_FOUND);
  EXPECT_EQ(disk.SetFileTime((dir / "missing").c_str(), "", "2024-01-01T00:00:00.000Z",
                             "2024-01-01T00:00:00.000Z", nullptr, nullptr),
            FILE_NOT_FOUND);
  // A relative path is resolved against the working directory, as given.
  const std::string cwd = std::filesystem::current_path().string();
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  const AERROR relative = disk.SetFileTime("a/x.txt", "", "2024-01-01T00:00:00.000Z",
                                           "2024-01-01T00:00:00.000Z", nullptr, nullptr);
  ASSERT_EQ(chdir(cwd.c_str()), 0);
  EXPECT_EQ(relative, SUCCESS);
}

TEST_F(Namespace, SetFileTimeOnAFifoIsNotFound) {
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0644), 0);
  EXPECT_EQ(disk.SetFileTime((dir / "pipe").c_str(), "", "2024-01-01T00:00:00.000Z",
                             "2024-01-01T00:00:00.000Z", nullptr, nullptr),
            FILE_NOT_FOUND);
}

TEST_F(Namespace, SetFileTimeOnADirectory) {
  TzGuard tz("UTC0");
  EXPECT_EQ(disk.SetFileTime((dir / "b").c_str(), "", "2020-01-01T00:00:00.000Z",
                             "2020-01-02T00:00:00.000Z", nullptr, nullptr),
            SUCCESS);
  struct stat st;
  ASSERT_EQ(stat((dir / "b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1577923200);
}

TEST_F(Namespace, NoOperationWritesAMessage) {
  char* msg = nullptr;
  _FS_FILE_V2 file;
  file.name = "zz";
  disk.Move((dir / "none").c_str(), (dir / "b").c_str(), &file, &msg);
  disk.CreateDirectory((dir / "none").c_str(), &file, &msg);
  file.id = dir / "none";
  disk.Delete(&file, &msg);
  disk.SetFileTime((dir / "none").c_str(), "", "", "", &file, &msg);
  EXPECT_EQ(msg, nullptr);
}

}  // namespace
