// Checks of records, listings and the namespace: directories, moves and
// renames, file times, deletes.
#include "host/conformance/suite.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <regex>

#include "host/core/paths.h"
#include "time/rfc3339.h"

namespace plughost::conformance::detail {

void Suite::InfoRoot() {
  NeedRoot();
  _FS_FILE_V2 file;
  ExpectSuccess(Info(root_id_, &file), "GetFileInfo of the root " + root_id_);
  Expect(file.type == 2, "the root has type " + std::to_string(file.type) + ", expected 2");
}

void Suite::InfoMissing() {
  NeedRoot();
  _FS_FILE_V2 file;
  file.id = "sentinel-id";
  file.type = 77;
  file.size = 1234;
  file.create_time = file.access_time = file.modify_time = "sentinel-time";
  file.name = "sentinel-name";
  file.aux_text = file.aux_text_v2 = "sentinel-aux";
  file.parents.push_back("sentinel-parent");
  const _FS_FILE_V2 before = file;
  ExpectCode(Info(Child(root_id_, kMissing), &file), FILE_NOT_FOUND,
             "GetFileInfo of a missing path");
  Expect(file.id == before.id && file.type == before.type && file.size == before.size &&
             file.create_time == before.create_time && file.access_time == before.access_time &&
             file.modify_time == before.modify_time && file.name == before.name &&
             file.aux_text == before.aux_text && file.aux_text_v2 == before.aux_text_v2 &&
             file.parents == before.parents,
         "GetFileInfo of a missing path changed the record");
}

void Suite::ListRoot() {
  NeedRoot();
  std::vector<_FS_FILE_V2> files = ListOrFail(root_id_);
  for (const _FS_FILE_V2& file : files)
    Expect(IsPlainName(file.name), "root listing has the name \"" + file.name + "\"");
  root_names_ = Names(files);
  Expect(root_names_.size() == files.size(), "root listing names an entry twice");
  root_listed_ = true;
  note_ = std::to_string(files.size()) + " entries";
}

void Suite::ListMissing() {
  NeedRoot();
  std::vector<_FS_FILE_V2> files;
  AERROR code = List(Child(root_id_, kMissing), &files);
  ExpectFailure(code, "GetFileList of a missing path");
  Expect(files.empty(), "GetFileList of a missing path delivered entries");
}

void Suite::MkdirScratch() {
  NeedRoot();
  scratch_ = options_.dir;
  if (scratch_.empty()) {
    char name[64];
    std::snprintf(name, sizeof name, "plughost-check-%ld-%04lx", static_cast<long>(getpid()),
                  static_cast<unsigned long>(std::time(nullptr) & 0xffff));
    scratch_ = name;
  }
  Expect(IsPlainName(scratch_), "scratch directory name \"" + scratch_ + "\" is not a plain name");
  // Never work in something that already exists: it is not ours to remove.
  Expect(!Exists(Path("")), Path("") + " already exists; refusing to use it");
  _FS_FILE_V2 file;
  ExpectSuccess(Mkdir(root_id_, scratch_, &file), "CreateDirectory " + scratch_);
  scratch_ok_ = true;  // created: from here on the suite removes it at the end
  Expect(file.type == 2, "CreateDirectory filled type " + std::to_string(file.type));
  Expect(file.name == scratch_, "CreateDirectory filled the name \"" + file.name + "\"");
  _FS_FILE_V2 info;
  ExpectSuccess(Info(Path(""), &info), "GetFileInfo " + Path(""));
  Expect(info.type == 2, "the new directory has type " + std::to_string(info.type));
  note_ = Path("");
}

void Suite::ListEmpty() {
  NeedScratch();
  std::vector<_FS_FILE_V2> files = ListOrFail(Path(""));
  Expect(files.empty(), "a new directory lists " + Join(Names(files)));
}

void Suite::MkdirNested() {
  NeedScratch();
  _FS_FILE_V2 dir;
  ExpectSuccess(Mkdir(Path(""), "dir", &dir), "CreateDirectory dir");
  _FS_FILE_V2 sub;
  ExpectSuccess(Mkdir(Path("dir"), "sub", &sub), "CreateDirectory dir/sub");
  Expect(sub.type == 2 && sub.name == "sub", "CreateDirectory dir/sub filled type " +
                                                 std::to_string(sub.type) + ", name \"" + sub.name +
                                                 "\"");
  _FS_FILE_V2 info;
  ExpectSuccess(Info(Path("dir/sub"), &info), "GetFileInfo dir/sub");
  Expect(info.type == 2, "dir/sub has type " + std::to_string(info.type));
  dirs_.insert("dir");
}

void Suite::MkdirMissingParent() {
  NeedScratch();
  _FS_FILE_V2 file;
  ExpectFailure(Mkdir(Path(kMissing), "x", &file), "CreateDirectory in a missing directory");
  Expect(!Exists(Path(kMissing)), "CreateDirectory in a missing directory created the parent");
  Expect(!Exists(Path(std::string(kMissing) + "/x")), "CreateDirectory created x");
}

void Suite::ListEntriesOnce() {
  NeedScratch();
  std::vector<_FS_FILE_V2> files = ListOrFail(Path(""));
  std::set<std::string> expected = dirs_;
  for (const auto& entry : files_)
    expected.insert(entry.first);
  std::multiset<std::string> seen;
  for (const _FS_FILE_V2& file : files)
    seen.insert(file.name);
  for (const std::string& name : expected) {
    size_t count = seen.count(name);
    Expect(count == 1, name + " listed " + std::to_string(count) + " times, expected once");
  }
  for (const std::string& name : seen)
    Expect(expected.count(name) == 1, "unexpected entry \"" + name + "\" in the listing");
  note_ = std::to_string(files.size()) + " entries";
}

void Suite::ListTypesAndSizes() {
  NeedScratch();
  for (const _FS_FILE_V2& file : ListOrFail(Path(""))) {
    auto it = files_.find(file.name);
    if (it != files_.end()) {
      Expect(file.type == 1, file.name + " listed with type " + std::to_string(file.type));
      Expect(file.size == static_cast<long long>(it->second.size()),
             file.name + " listed with size " + std::to_string(file.size) + ", expected " +
                 std::to_string(it->second.size()));
    } else if (dirs_.count(file.name) != 0) {
      Expect(file.type == 2, file.name + " listed with type " + std::to_string(file.type));
    }
  }
}

void Suite::ListTimes() {
  NeedScratch();
  static const std::regex kShape(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}.*)");
  const time_t now = std::time(nullptr);
  for (const _FS_FILE_V2& file : ListOrFail(Path(""))) {
    for (const std::string* text : {&file.create_time, &file.access_time, &file.modify_time}) {
      Expect(std::regex_match(*text, kShape),
             file.name + ": time \"" + *text + "\" is not RFC 3339 text");
      const time_t t = RFC3339ToTM(text->c_str());
      // Just created: within a day, whatever the zone of the fields.
      Expect(t != static_cast<time_t>(-1) && std::llabs(static_cast<long long>(t - now)) < 90000,
             file.name + ": time \"" + *text + "\" is not close to now");
    }
  }
}

void Suite::ListParents() {
  NeedScratch();
  const std::string path = Path("");
  for (const _FS_FILE_V2& file : ListOrFail(path)) {
    Expect(file.parents.size() == 1 && file.parents.front() == path,
           file.name + ": parents " +
               (file.parents.empty() ? std::string("empty") : "\"" + file.parents.front() + "\"") +
               ", expected exactly \"" + path + "\"");
  }
}

void Suite::ListIds() {
  NeedScratch();
  for (const _FS_FILE_V2& file : ListOrFail(Path(""))) {
    _FS_FILE_V2 info;
    ExpectSuccess(Info(file.id, &info), "GetFileInfo of the listed id " + file.id);
    Expect(info.name == file.name && info.type == file.type && info.size == file.size,
           "GetFileInfo " + file.id + " disagrees with the listing");
  }
}

void Suite::ListFile() {
  const std::string name = "size-1";
  NeedFile(name);
  std::vector<_FS_FILE_V2> files;
  ExpectFailure(List(Path(name), &files), "GetFileList of a file");
  Expect(files.empty(), "GetFileList of a file delivered entries");
}

void Suite::InfoFile() {
  const std::string name = "size-" + std::to_string(kChunk + 1);
  NeedFile(name);
  _FS_FILE_V2 file;
  ExpectSuccess(Info(Path(name), &file), "GetFileInfo " + name);
  Expect(file.type == 1 && file.name == name && file.size == kChunk + 1,
         "GetFileInfo gave type " + std::to_string(file.type) + ", name \"" + file.name +
             "\", size " + std::to_string(file.size));
}

void Suite::MkdirExisting() {
  NeedScratch();
  if (dirs_.count("dir") == 0) Skip("dir was not created");
  _FS_FILE_V2 file;
  AERROR code = Mkdir(Path(""), "dir", &file);
  if (code == SUCCESS)
    Expect(file.type == 2,
           "CreateDirectory of an existing directory filled type " + std::to_string(file.type));
  Expect(Exists(Path("dir/sub")), "CreateDirectory of an existing directory lost its content");
  note_ = Name(code);
}

// Uploads a file for the namespace checks.
std::string Suite::Prepare(const std::string& relative, std::uint32_t seed, long long size) {
  std::string content = Pattern(size, seed);
  std::string directory = DirName(relative);
  _FS_FILE_V2 file;
  ExpectSuccess(Upload(Path(directory), BaseName(relative), content, &file), "Upload " + relative);
  return content;
}

void Suite::ExpectMoved(const std::string& from, const std::string& to, const std::string& content,
                        const _FS_FILE_V2& record) {
  Expect(!Exists(Path(from)), from + " still exists after the move");
  _FS_FILE_V2 info;
  ExpectSuccess(Info(Path(to), &info), "GetFileInfo " + to + " after the move");
  Expect(info.size == static_cast<long long>(content.size()),
         to + " has size " + std::to_string(info.size) + " after the move");
  ExpectRange(Path(to), content, 0, static_cast<long long>(content.size()));
  Expect(record.name == BaseName(to) && record.type == 1,
         "the move filled name \"" + record.name + "\", type " + std::to_string(record.type));
}

void Suite::MoveIntoDirectory() {
  NeedScratch();
  if (dirs_.count("dir") == 0) Skip("dir was not created");
  std::string content = Prepare("move-src", 21);
  _FS_FILE_V2 file;
  ExpectSuccess(MoveCall(&IProtocol_V2::Move, Path("move-src"), Path("dir"), "move-src", &file),
                "Move move-src to dir");
  ExpectMoved("move-src", "dir/move-src", content, file);
}

void Suite::MoveAndRename() {
  NeedScratch();
  if (dirs_.count("dir") == 0) Skip("dir was not created");
  std::string content = Prepare("move-rename", 22);
  _FS_FILE_V2 file;
  ExpectSuccess(
      MoveCall(&IProtocol_V2::Move, Path("move-rename"), Path("dir/sub"), "renamed", &file),
      "Move move-rename to dir/sub/renamed");
  ExpectMoved("move-rename", "dir/sub/renamed", content, file);
}

void Suite::RenameSameDirectory() {
  NeedScratch();
  std::string content = Prepare("rename-src", 23);
  _FS_FILE_V2 file;
  ExpectSuccess(MoveCall(&IProtocol_V2::Rename, Path("rename-src"), Path(""), "rename-dst", &file),
                "Rename rename-src to rename-dst");
  ExpectMoved("rename-src", "rename-dst", content, file);
  files_["rename-dst"] = content;
}

void Suite::MoveRecordId() {
  NeedScratch();
  std::string content = Prepare("move-id", 24, 10);
  _FS_FILE_V2 file;
  ExpectSuccess(MoveCall(&IProtocol_V2::Rename, Path("move-id"), Path(""), "move-id-2", &file),
                "Rename move-id");
  files_["move-id-2"] = content;
  _FS_FILE_V2 info;
  ExpectSuccess(Info(file.id, &info), "GetFileInfo of the moved record's id " + file.id);
  Expect(info.name == "move-id-2", "the moved record's id names \"" + info.name + "\"");
}

void Suite::MoveDirKeepsTree() {
  NeedScratch();
  if (dirs_.count("dir") == 0) Skip("dir was not created");
  _FS_FILE_V2 tree;
  ExpectSuccess(Mkdir(Path(""), "tree", &tree), "CreateDirectory tree");
  _FS_FILE_V2 inner;
  ExpectSuccess(Mkdir(Path("tree"), "inner", &inner), "CreateDirectory tree/inner");
  std::string a = Prepare("tree/a", 31);
  std::string b = Prepare("tree/inner/b", 32, kChunk + 3);
  _FS_FILE_V2 file;
  ExpectSuccess(MoveCall(&IProtocol_V2::MoveDir, Path("tree"), Path("dir"), "tree2", &file),
                "MoveDir tree to dir/tree2");
  Expect(!Exists(Path("tree")), "tree still exists after MoveDir");
  Expect(file.type == 2 && file.name == "tree2",
         "MoveDir filled type " + std::to_string(file.type) + ", name \"" + file.name + "\"");
  ExpectRange(Path("dir/tree2/a"), a, 0, static_cast<long long>(a.size()));
  ExpectRange(Path("dir/tree2/inner/b"), b, 0, static_cast<long long>(b.size()));
}

void Suite::MoveMissing() {
  NeedScratch();
  _FS_FILE_V2 file;
  ExpectFailure(MoveCall(&IProtocol_V2::Move, Path(kMissing), Path(""), "moved-missing", &file),
                "Move of a missing entry");
  Expect(!Exists(Path("moved-missing")), "Move of a missing entry created the target");
}

// A time that reads back the same in this zone: winter or summer,
// whichever is standard time here.
std::string Suite::SettableTime(int variant) {
  const char* candidates[][2] = {{"2021-01-15T10:20:30.000Z", "2021-07-15T10:20:30.000Z"},
                                 {"2019-02-03T04:05:06.000Z", "2019-08-03T04:05:06.000Z"}};
  for (const char* text : candidates[variant]) {
    time_t t = RFC3339ToTM(text);
    struct tm fields {};
    localtime_r(&t, &fields);
    if (fields.tm_isdst == 0) return text;
  }
  return candidates[variant][0];
}

void Suite::SetTime(bool modify) {
  const std::string name = "size-" + std::to_string(kChunk);
  NeedFile(name);
  const std::string access = SettableTime(0);
  const std::string modified = SettableTime(1);
  _FS_FILE_V2 record;
  char* msg = nullptr;
  AERROR code =
      protocol_->SetFileTime(Path(name).c_str(), modified, access, modified, &record, &msg);
  Take(msg);
  ExpectSuccess(code, "SetFileTime " + name);
  _FS_FILE_V2 info;
  ExpectSuccess(Info(Path(name), &info), "GetFileInfo " + name);
  const std::string& want = modify ? modified : access;
  const std::string& got = modify ? info.modify_time : info.access_time;
  Expect(RFC3339ToTM(got.c_str()) == RFC3339ToTM(want.c_str()),
         std::string(modify ? "modify" : "access") + " time set to \"" + want +
             "\" reads back as \"" + got + "\"");
}

void Suite::SetTimeMissing() {
  NeedScratch();
  _FS_FILE_V2 record;
  char* msg = nullptr;
  const std::string t = SettableTime(0);
  AERROR code = protocol_->SetFileTime(Path(kMissing).c_str(), t, t, t, &record, &msg);
  Take(msg);
  ExpectFailure(code, "SetFileTime of a missing path");
  Expect(!Exists(Path(kMissing)), "SetFileTime of a missing path created it");
}

void Suite::DeleteFile() {
  NeedScratch();
  Prepare("delete-me", 41, 100);
  ExpectSuccess(DeleteCall(&IProtocol_V2::Delete, Path("delete-me")), "Delete delete-me");
  Expect(!Exists(Path("delete-me")), "delete-me still exists after Delete");
  std::vector<_FS_FILE_V2> files = ListOrFail(Path(""));
  Expect(Names(files).count("delete-me") == 0, "delete-me is still listed after Delete");
}

// Everything below a directory: relative path -> (type, size).
std::map<std::string, std::pair<int, long long>> Suite::Tree(const std::string& relative,
                                                             int depth) {
  std::map<std::string, std::pair<int, long long>> out;
  if (depth > 8) return out;
  for (const _FS_FILE_V2& file : ListOrFail(Path(relative))) {
    const std::string child = relative.empty() ? file.name : relative + "/" + file.name;
    out[child] = {file.type, file.size};
    if (file.type == 2) {
      for (auto& entry : Tree(child, depth + 1))
        out.insert(entry);
    }
  }
  return out;
}

void Suite::DeleteNonEmpty() {
  NeedScratch();
  _FS_FILE_V2 dir;
  ExpectSuccess(Mkdir(Path(""), "full", &dir), "CreateDirectory full");
  Prepare("full/one", 51, 10);
  Prepare("full/two", 52, 10);
  auto before = Tree("full");
  AERROR code = DeleteCall(&IProtocol_V2::DeleteDirectory, Path("full"));
  if (code == SUCCESS) {
    // A plug-in may delete recursively, but then all of it.
    Expect(!Exists(Path("full")) && !Exists(Path("full/one")) && !Exists(Path("full/two")),
           "DeleteDirectory of a non-empty directory succeeded and left entries behind");
    note_ = "deleted recursively";
    return;
  }
  Expect(Exists(Path("full")), "refused DeleteDirectory removed the directory");
  auto after = Tree("full");
  Expect(before == after, "refused DeleteDirectory of a non-empty directory changed its content");
  note_ = "refused with " + Name(code);
}

void Suite::DeleteEmptyDirectory() {
  NeedScratch();
  _FS_FILE_V2 dir;
  ExpectSuccess(Mkdir(Path(""), "empty", &dir), "CreateDirectory empty");
  ExpectSuccess(DeleteCall(&IProtocol_V2::DeleteDirectory, Path("empty")), "DeleteDirectory empty");
  Expect(!Exists(Path("empty")), "empty still exists after DeleteDirectory");
}

void Suite::DeleteMissing() {
  NeedScratch();
  ExpectFailure(DeleteCall(&IProtocol_V2::Delete, Path(kMissing)), "Delete of a missing entry");
}

}  // namespace plughost::conformance::detail
