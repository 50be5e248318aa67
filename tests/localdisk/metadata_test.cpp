// File records and directory listings on real temporary directories.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <set>
#include <string>

#include "backend_support.h"
#include "localdisk/local_disk.h"
#include "time/rfc3339.h"

namespace {

using namespace backend_test;

std::string LocalText(time_t t) {
  tm fields;
  localtime_r(&t, &fields);
  return TMToRFC3339(&fields);
}

class Metadata : public ::testing::Test {
 protected:
  TempDir dir;
  LocalDisk disk{nullptr};
};

TEST_F(Metadata, GetFileInfoFillsAFileRecord) {
  WriteFile(dir / "a.txt", "hello");
  _FS_FILE_V2 file;
  file.aux_text = "aux";
  file.aux_text_v2 = "aux2";
  file.parents.push_back("kept");
  ASSERT_EQ(disk.GetFileInfo((dir / "a.txt").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.id, dir / "a.txt");
  EXPECT_EQ(file.name, "a.txt");
  EXPECT_EQ(file.type, 1);
  EXPECT_EQ(file.size, 5);
  struct stat st;
  ASSERT_EQ(stat((dir / "a.txt").c_str(), &st), 0);
  EXPECT_EQ(file.create_time, LocalText(st.st_ctim.tv_sec));
  EXPECT_EQ(file.access_time, LocalText(st.st_atim.tv_sec));
  EXPECT_EQ(file.modify_time, LocalText(st.st_mtim.tv_sec));
  // Fields the operation does not own stay as the caller left them.
  EXPECT_EQ(file.aux_text, "aux");
  EXPECT_EQ(file.aux_text_v2, "aux2");
  ASSERT_EQ(file.parents.size(), 1u);
  EXPECT_EQ(file.parents[0], "kept");
}

TEST_F(Metadata, GetFileInfoOfADirectory) {
  ASSERT_EQ(mkdir((dir / "sub").c_str(), 0755), 0);
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo((dir / "sub").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.type, 2);
  EXPECT_EQ(file.name, "sub");
  EXPECT_EQ(file.id, dir / "sub");
  struct stat st;
  ASSERT_EQ(stat((dir / "sub").c_str(), &st), 0);
  EXPECT_EQ(file.size, st.st_size);
}

TEST_F(Metadata, TheRootIsNamedSlashWithIdentifierDoubleSlash) {
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo("/", &file, nullptr), SUCCESS);
  EXPECT_EQ(file.name, "/");
  EXPECT_EQ(file.id, "//");
  EXPECT_EQ(file.type, 2);
}

TEST_F(Metadata, OnlyTheExactSlashIsItsOwnParent) {
  // "//" and "/." are not the root's text: their parent is computed through
  // "/..", which still yields "/".
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo("//", &file, nullptr), SUCCESS);
  EXPECT_EQ(file.name, "/");
  EXPECT_EQ(file.id, "//");
  _FS_FILE_V2 dot;
  ASSERT_EQ(disk.GetFileInfo("/.", &dot, nullptr), SUCCESS);
  EXPECT_EQ(dot.name, ".");
  EXPECT_EQ(dot.id, "/.");
}

TEST_F(Metadata, TrailingSeparatorGivesTheSameRecord) {
  ASSERT_EQ(mkdir((dir / "data").c_str(), 0755), 0);
  _FS_FILE_V2 plain, trailing;
  ASSERT_EQ(disk.GetFileInfo((dir / "data").c_str(), &plain, nullptr), SUCCESS);
  ASSERT_EQ(disk.GetFileInfo((dir / "data/").c_str(), &trailing, nullptr), SUCCESS);
  EXPECT_EQ(trailing.name, "data");
  EXPECT_EQ(trailing.id, dir / "data");
  EXPECT_EQ(trailing.id, plain.id);
  EXPECT_EQ(trailing.type, plain.type);
  EXPECT_EQ(trailing.size, plain.size);
  EXPECT_EQ(trailing.modify_time, plain.modify_time);
}

TEST_F(Metadata, ParentOfATopLevelEntryIsTheRoot) {
  // /tmp (or any top-level directory) has the parent "/", so the id is "/" + name.
  const std::string top = "/" + dir.path().substr(1, dir.path().find('/', 1) - 1);
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo(top.c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.id, top);
}

TEST_F(Metadata, DotDotInThePathIsResolvedForTheParent) {
  ASSERT_EQ(mkdir((dir / "x").c_str(), 0755), 0);
  WriteFile(dir / "f.txt", "1");
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo((dir / "x/../f.txt").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.name, "f.txt");
  EXPECT_EQ(file.id, dir / "f.txt");
}

TEST_F(Metadata, RelativeSingleComponentGetsASlashId) {
  const std::string cwd = std::filesystem::current_path().string();
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  WriteFile("a.txt", "rel");
  _FS_FILE_V2 file;
  const AERROR result = disk.GetFileInfo("a.txt", &file, nullptr);
  ASSERT_EQ(chdir(cwd.c_str()), 0);
  ASSERT_EQ(result, SUCCESS);
  EXPECT_EQ(file.name, "a.txt");
  EXPECT_EQ(file.id, "/a.txt");
  EXPECT_EQ(file.size, 3);
}

TEST_F(Metadata, MissingPathLeavesTheRecordUntouched) {
  _FS_FILE_V2 file;
  file.id = "id";
  file.name = "name";
  file.type = 7;
  file.size = 99;
  file.modify_time = "m";
  EXPECT_EQ(disk.GetFileInfo((dir / "missing").c_str(), &file, nullptr), FILE_NOT_FOUND);
  EXPECT_EQ(file.id, "id");
  EXPECT_EQ(file.name, "name");
  EXPECT_EQ(file.type, 7);
  EXPECT_EQ(file.size, 99);
  EXPECT_EQ(file.modify_time, "m");
}

TEST_F(Metadata, NoMessageIsWritten) {
  char* msg = nullptr;
  _FS_FILE_V2 file;
  EXPECT_EQ(disk.GetFileInfo((dir / "missing").c_str(), &file, &msg), FILE_NOT_FOUND);
  EXPECT_EQ(msg, nullptr);
  RecordingList list;
  EXPECT_EQ(disk.GetFileList((dir / "missing").c_str(), &list, &msg), FILE_NOT_FOUND);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(Metadata, SymbolicLinkIsDescribedByItsTarget) {
  WriteFile(dir / "target.txt", "0123456789");
  ASSERT_EQ(symlink((dir / "target.txt").c_str(), (dir / "link.txt").c_str()), 0);
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo((dir / "link.txt").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.name, "link.txt");
  EXPECT_EQ(file.size, 10);
  EXPECT_EQ(file.type, 1);
}

TEST_F(Metadata, DanglingLinkIsNotFound) {
  ASSERT_EQ(symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);
  _FS_FILE_V2 file;
  EXPECT_EQ(disk.GetFileInfo((dir / "dangling").c_str(), &file, nullptr), FILE_NOT_FOUND);
}

TEST_F(Metadata, ModifyTimeShowsLocalWallClockInEachZone) {
  // The text carries the local fields with a fixed "Z", whatever the zone.
  for (const char* zone :
       {"UTC0", "CST-8", "EST5EDT,M3.2.0,M11.1.0", "NZST-12NZDT,M9.5.0,M4.1.0/3"}) {
    TzGuard tz(zone);
    WriteFile(dir / "t.txt", "x");
    SetLocalTimes(dir / "t.txt", 2024, 3, 20, 14, 5, 9);
    _FS_FILE_V2 file;
    ASSERT_EQ(disk.GetFileInfo((dir / "t.txt").c_str(), &file, nullptr), SUCCESS) << zone;
    EXPECT_EQ(file.modify_time, "2024-03-20T14:05:09.000Z") << zone;
    EXPECT_EQ(file.access_time, "2024-03-20T14:05:09.000Z") << zone;
  }
}

TEST_F(Metadata, SameInstantShowsDifferentFieldsInDifferentZones) {
  WriteFile(dir / "t.txt", "x");
  timeval times[2] = {{1704110400, 0}, {1704110400, 0}};  // 2024-01-01T12:00:00 UTC
  ASSERT_EQ(utimes((dir / "t.txt").c_str(), times), 0);
  {
    TzGuard tz("UTC0");
    _FS_FILE_V2 file;
    ASSERT_EQ(disk.GetFileInfo((dir / "t.txt").c_str(), &file, nullptr), SUCCESS);
    EXPECT_EQ(file.modify_time, "2024-01-01T12:00:00.000Z");
  }
  {
    TzGuard tz("CST-8");
    _FS_FILE_V2 file;
    ASSERT_EQ(disk.GetFileInfo((dir / "t.txt").c_str(), &file, nullptr), SUCCESS);
    EXPECT_EQ(file.modify_time, "2024-01-01T20:00:00.000Z");
  }
}

TEST_F(Metadata, SubSecondPartsAreDropped) {
  TzGuard tz("UTC0");
  WriteFile(dir / "t.txt", "x");
  timeval times[2] = {{1704110400, 999999}, {1704110400, 999999}};
  ASSERT_EQ(utimes((dir / "t.txt").c_str(), times), 0);
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo((dir / "t.txt").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.modify_time, "2024-01-01T12:00:00.000Z");
}

TEST_F(Metadata, FillDataTestsOnlyTheDirectoryBit) {
  struct stat st {};
  _FS_FILE_V2 file;
  file.name = "n";
  const std::pair<mode_t, int> kinds[] = {
      {S_IFREG, 1}, {S_IFDIR, 2}, {S_IFSOCK, 2}, {S_IFBLK, 2},
      {S_IFCHR, 1}, {S_IFIFO, 1}, {S_IFLNK, 1},
  };
  for (const auto& [mode, type] : kinds) {
    st.st_mode = mode | 0644;
    disk.FillData("/d", &st, &file);
    EXPECT_EQ(file.type, type) << std::oct << mode;
  }
}

TEST_F(Metadata, FillDataJoinsTheParentAndCopiesSize) {
  TzGuard tz("UTC0");
  struct stat st {};
  st.st_mode = S_IFREG;
  st.st_size = 1234567890123LL;
  st.st_ctim.tv_sec = 0;
  st.st_atim.tv_sec = 86400;
  st.st_mtim.tv_sec = 1704110400;
  _FS_FILE_V2 file;
  file.name = "x.bin";
  disk.FillData("/", &st, &file);
  EXPECT_EQ(file.id, "/x.bin");
  EXPECT_EQ(file.size, 1234567890123LL);
  EXPECT_EQ(file.create_time, "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(file.access_time, "1970-01-02T00:00:00.000Z");
  EXPECT_EQ(file.modify_time, "2024-01-01T12:00:00.000Z");
  disk.FillData("/data/", &st, &file);
  EXPECT_EQ(file.id, "/data/x.bin");
}

TEST_F(Metadata, SocketIsReportedAsADirectory) {
  const std::string path = dir / "sock";
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  _FS_FILE_V2 file;
  EXPECT_EQ(disk.GetFileInfo(path.c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.type, 2);
  close(fd);
}

TEST_F(Metadata, FifoIsReportedAsAFile) {
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0644), 0);
  _FS_FILE_V2 file;
  EXPECT_EQ(disk.GetFileInfo((dir / "pipe").c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.type, 1);
}

TEST_F(Metadata, LongPathsAreHandledWithoutOverflow) {
  // Longer than the 1024-byte name scratch but still a valid path once
  // normalised: the name is the same one a short path gives.
  WriteFile(dir / "f.txt", "abc");
  std::string path = dir.path();
  while (path.size() < 5000)
    path += "/.";
  path += "/f.txt";
  ASSERT_GT(path.size(), 5000u);
  _FS_FILE_V2 file;
  ASSERT_EQ(disk.GetFileInfo(path.c_str(), &file, nullptr), SUCCESS);
  EXPECT_EQ(file.name, "f.txt");
  EXPECT_EQ(file.id, dir / "f.txt");
  EXPECT_EQ(file.size, 3);

  std::string trailing = dir.path();
  while (trailing.size() < 1100)
    trailing += "/.";
  trailing += "/f.txt////";
  _FS_FILE_V2 again;
  ASSERT_EQ(disk.GetFileInfo(trailing.c_str(), &again, nullptr), SUCCESS);
  EXPECT_EQ(again.name, "f.txt");

  // A 5000-byte path that does not exist: a clean result, no crash.
  const std::string missing = dir.path() + "/" + std::string(5000, 'n');
  _FS_FILE_V2 none;
  EXPECT_EQ(disk.GetFileInfo(missing.c_str(), &none, nullptr), FILE_NOT_FOUND);
  std::string long_root(5000, '/');
  _FS_FILE_V2 root;
  EXPECT_EQ(disk.GetFileInfo(long_root.c_str(), &root, nullptr), SUCCESS);
  EXPECT_EQ(root.name, "/");
}

TEST_F(Metadata, NameAtTheScratchBoundary) {
  // Paths of 1023 bytes go through the fixed scratch, 1024 and more do not;
  // both give the same name.
  for (size_t size : {1022u, 1023u, 1024u, 1025u}) {
    std::string path = dir.path();
    const std::string tail = "/g.txt";
    while (path.size() + 2 <= size - tail.size())
      path += "/.";
    if (path.size() + tail.size() < size) path += "/";
    path += tail;
    ASSERT_EQ(path.size(), size);
    WriteFile(dir / "g.txt", "g");
    _FS_FILE_V2 file;
    ASSERT_EQ(disk.GetFileInfo(path.c_str(), &file, nullptr), SUCCESS) << size;
    EXPECT_EQ(file.name, "g.txt") << size;
    EXPECT_EQ(file.id, dir / "g.txt") << size;
  }
}

class Listing : public Metadata {};

TEST_F(Listing, EmptyDirectoryMakesNoCallback) {
  RecordingList list;
  EXPECT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  EXPECT_TRUE(list.files.empty());
}

TEST_F(Listing, RegularFileIsNotADirectory) {
  WriteFile(dir / "plain", "x");
  RecordingList list;
  EXPECT_EQ(disk.GetFileList((dir / "plain").c_str(), &list, nullptr), FILE_NOT_FOUND);
  EXPECT_TRUE(list.files.empty());
}

TEST_F(Listing, MissingDirectoryIsNotFound) {
  RecordingList list;
  EXPECT_EQ(disk.GetFileList((dir / "missing").c_str(), &list, nullptr), FILE_NOT_FOUND);
  EXPECT_TRUE(list.files.empty());
}

TEST_F(Listing, HiddenEntriesAreListedButNotDotAndDotDot) {
  WriteFile(dir / ".profile", "p");
  WriteFile(dir / "visible", "vv");
  ASSERT_EQ(mkdir((dir / ".hidden_dir").c_str(), 0755), 0);
  RecordingList list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  std::set<std::string> names;
  for (const auto& f : list.files)
    names.insert(f.name);
  EXPECT_EQ(names, (std::set<std::string>{".profile", "visible", ".hidden_dir"}));
  EXPECT_EQ(list.files.size(), 3u);
}

TEST_F(Listing, RecordsAreFilledLikeGetFileInfo) {
  WriteFile(dir / "a.txt", "hello");
  ASSERT_EQ(mkdir((dir / "sub").c_str(), 0755), 0);
  RecordingList list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  ASSERT_EQ(list.files.size(), 2u);
  for (const char* name : {"a.txt", "sub"}) {
    const _FS_FILE_V2* listed = list.Find(name);
    ASSERT_NE(listed, nullptr) << name;
    _FS_FILE_V2 info;
    ASSERT_EQ(disk.GetFileInfo((dir / name).c_str(), &info, nullptr), SUCCESS);
    EXPECT_EQ(listed->id, info.id);
    EXPECT_EQ(listed->type, info.type);
    EXPECT_EQ(listed->size, info.size);
    EXPECT_EQ(listed->create_time, info.create_time);
    EXPECT_EQ(listed->access_time, info.access_time);
    EXPECT_EQ(listed->modify_time, info.modify_time);
    ASSERT_EQ(listed->parents.size(), 1u);
    EXPECT_EQ(listed->parents[0], dir.path());
    EXPECT_TRUE(listed->aux_text.empty());
  }
}

TEST_F(Listing, IdentifiersAndParentsUseTheHostsTextAsPassed) {
  WriteFile(dir / "a.txt", "hello");
  const std::string trailing = dir.path() + "/";
  RecordingList with_slash;
  ASSERT_EQ(disk.GetFileList(trailing.c_str(), &with_slash, nullptr), SUCCESS);
  ASSERT_EQ(with_slash.files.size(), 1u);
  EXPECT_EQ(with_slash.files[0].id, dir / "a.txt");
  ASSERT_EQ(with_slash.files[0].parents.size(), 1u);
  EXPECT_EQ(with_slash.files[0].parents[0], trailing);

  // An unnormalised text is kept in the identifiers: not mapped back.
  const std::string odd = dir.path() + "/./";
  RecordingList dotted;
  ASSERT_EQ(disk.GetFileList(odd.c_str(), &dotted, nullptr), SUCCESS);
  ASSERT_EQ(dotted.files.size(), 1u);
  EXPECT_EQ(dotted.files[0].id, odd + "a.txt");
  EXPECT_EQ(dotted.files[0].parents[0], odd);
}

TEST_F(Listing, SymbolicLinkToADirectoryIsListedAsADirectory) {
  ASSERT_EQ(mkdir((dir / "real").c_str(), 0755), 0);
  WriteFile(dir / "real/inner", "i");
  ASSERT_EQ(symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
  RecordingList list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  const _FS_FILE_V2* link = list.Find("link");
  const _FS_FILE_V2* real = list.Find("real");
  ASSERT_NE(link, nullptr);
  ASSERT_NE(real, nullptr);
  EXPECT_EQ(link->type, 2);
  EXPECT_EQ(link->size, real->size);
  EXPECT_EQ(link->modify_time, real->modify_time);
  EXPECT_EQ(link->id, dir / "link");
}

TEST_F(Listing, ListingThroughALinkedDirectory) {
  ASSERT_EQ(mkdir((dir / "real").c_str(), 0755), 0);
  WriteFile(dir / "real/inner", "i");
  ASSERT_EQ(symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
  RecordingList list;
  ASSERT_EQ(disk.GetFileList((dir / "link").c_str(), &list, nullptr), SUCCESS);
  ASSERT_EQ(list.files.size(), 1u);
  EXPECT_EQ(list.files[0].id, dir / "link/inner");
}

TEST_F(Listing, EntryWhoseStatFailsIsStillDeliveredWithClearedFields) {
  WriteFile(dir / "ok", "1");
  ASSERT_EQ(symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);
  RecordingList list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  ASSERT_EQ(list.files.size(), 2u);
  const _FS_FILE_V2* dangling = list.Find("dangling");
  ASSERT_NE(dangling, nullptr);
  EXPECT_EQ(dangling->id, dir / "dangling");
  EXPECT_EQ(dangling->type, 0);
  EXPECT_EQ(dangling->size, 0);
  EXPECT_TRUE(dangling->create_time.empty());
  EXPECT_TRUE(dangling->access_time.empty());
  EXPECT_TRUE(dangling->modify_time.empty());
  ASSERT_EQ(dangling->parents.size(), 1u);
  EXPECT_EQ(dangling->parents[0], dir.path());
}

TEST_F(Listing, EachCallbackGetsAFreshRecord) {
  // Whatever the host does to a record, the next one carries none of it.
  WriteFile(dir / "a", "aaaa");
  ASSERT_EQ(symlink((dir / "nowhere1").c_str(), (dir / "b").c_str()), 0);
  ASSERT_EQ(symlink((dir / "nowhere2").c_str(), (dir / "c").c_str()), 0);
  WriteFile(dir / "d", "d");
  class Checker : public IFileList {
   public:
    explicit Checker(std::string directory) : directory_(std::move(directory)) {}
    int calls = 0;
    AERROR OnFile(_FS_FILE_V2* file) override {
      ++calls;
      EXPECT_EQ(file->id, directory_ + "/" + file->name);
      EXPECT_TRUE(file->aux_text.empty());
      EXPECT_TRUE(file->aux_text_v2.empty());
      EXPECT_EQ(file->parents, std::deque<std::string>{directory_});
      if (file->name == "b" || file->name == "c") {
        EXPECT_EQ(file->type, 0);
        EXPECT_EQ(file->size, 0);
        EXPECT_TRUE(file->create_time.empty());
        EXPECT_TRUE(file->access_time.empty());
        EXPECT_TRUE(file->modify_time.empty());
      } else {
        EXPECT_EQ(file->type, 1);
        EXPECT_EQ(file->size, file->name == "a" ? 4 : 1);
      }
      // Scribble on every field; alternate the shape of the parents.
      file->id = "dirty-id";
      file->type = 7;
      file->size = 99;
      file->create_time = file->access_time = file->modify_time = "dirty-time";
      file->name = "dirty-name";
      file->aux_text = file->aux_text_v2 = "dirty";
      if (calls % 2 == 0) {
        file->parents.push_back("dirty");
      } else {
        file->parents.front() = "dirty";
      }
      return SUCCESS;
    }

   private:
    std::string directory_;
  } checker(dir.path());
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &checker, nullptr), SUCCESS);
  EXPECT_EQ(checker.calls, 4);
}

TEST_F(Listing, ManyEntriesOneCallEach) {
  for (int i = 0; i < 300; ++i)
    WriteFile(dir / ("f" + std::to_string(i)), std::string(i, 'x'));
  RecordingList list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  ASSERT_EQ(list.files.size(), 300u);
  std::set<std::string> names;
  for (const auto& f : list.files) {
    names.insert(f.name);
    EXPECT_EQ(f.size, std::stoi(f.name.substr(1)));
  }
  EXPECT_EQ(names.size(), 300u);
}

TEST_F(Listing, RootIsListedThroughRootDot) {
  RecordingList list;
  ASSERT_EQ(disk.GetFileList("/", &list, nullptr), SUCCESS);
  const _FS_FILE_V2* tmp = nullptr;
  for (const auto& f : list.files) {
    EXPECT_NE(f.name, ".");
    EXPECT_NE(f.name, "..");
    EXPECT_EQ(f.id, "/" + f.name);
    if (f.name == "tmp") tmp = &f;
  }
  ASSERT_NE(tmp, nullptr);
  EXPECT_EQ(tmp->type, 2);
}

}  // namespace
