// Every slot of the protocol object and every exported entry point, called
// with null in each pointer position in turn. Each call runs in a child
// process: a crash fails its own row instead of ending the suite. A call that
// is refused must leave the object and the files as they were.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "localdisk/local_disk.h"
#include "protocol/plugin.h"
#include "tests/localdisk/backend_support.h"
#include "tests/protocol/test_protocol.h"
#include "tests/support/child_process.h"

namespace {

using backend_test::MakeHandle;
using backend_test::MemoryCache;
using backend_test::RecordingList;
using test_support::ReadFile;
using test_support::WriteFile;

// LocalDisk with the base's speed limit and auth document made readable.
class InspectableDisk : public LocalDisk {
 public:
  using LocalDisk::LocalDisk;
  using SuperProtocol::auth_document;
  using SuperProtocol::speed_limit;
};

class NullSink : public IFetchCallback {
 public:
  AERROR OnFetch(long long, const char*, long long, long long*) override { return SUCCESS; }
};
class NullChanges : public IFileChanges {
 public:
  AERROR OnChange(_FS_FILE_V2*, int) override { return SUCCESS; }
};
class NullAuth : public IProtocolAuth {
 public:
  AERROR Authenticate(const char*, char*, int*) override { return SUCCESS; }
};
class NullLog : public ILog {
 public:
  void Write(LOGLEVEL, const char*) override {}
  void WriteFormat(LOGLEVEL, const char*, ...) override {}
  void WriteLog(LOGLEVEL, const char*, va_list) override {}
};

// What one row works on: a configured object over a root that holds a file
// "a.txt" and a directory "d".
struct World {
  std::string root;
  RecordingManager manager;
  InspectableDisk* disk = nullptr;
  IProtocol_V2* protocol = nullptr;
  RecordingList list;
  NullSink sink;
  NullChanges changes;
  NullAuth auth;
  std::string file_a;
  std::string dir_d;

  explicit World(const std::string& root_dir) : root(root_dir) {
    disk = new InspectableDisk(&manager);
    protocol = disk;
    disk->SetOpt("root_path", root.c_str());
    disk->SetOpt("pid", "instance-1");
    disk->SetOpt("speedlimit", "7");
    file_a = root + "/a.txt";
    dir_d = root + "/d";
  }
  ~World() { disk->Release(); }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  _FS_FILE_V2 Record(const std::string& id, const std::string& name) {
    _FS_FILE_V2 file;
    file.id = id;
    file.name = name;
    return file;
  }

  // Everything a refused call must not change.
  std::string Snapshot() {
    std::string state = "root=" + disk->RootPath() + " pid=" + disk->GetPID() +
                        " speed=" + std::to_string(disk->speed_limit) +
                        " auth=" + disk->auth_document +
                        " writes=" + std::to_string(manager.writes.size()) + "\n";
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      std::string line = entry.path().string();
      if (entry.is_regular_file()) line += " " + ReadFile(entry.path().string());
      entries.push_back(line);
    }
    std::sort(entries.begin(), entries.end());
    for (const auto& line : entries)
      state += line + "\n";
    return state;
  }
};

void Populate(const std::string& root) {
  std::filesystem::remove_all(root);
  std::filesystem::create_directory(root);
  WriteFile(root + "/a.txt", "abc");
  std::filesystem::create_directory(root + "/d");
}

constexpr int kNoCode = 1000;  // rows whose call has no AERROR result

struct Row {
  std::string name;  // "slot(arguments)" with null where the row puts it
  int expected;      // the AERROR, kNoCode for void calls, or 1/0 for bool results
  std::function<int(World&)> call;
  bool unchanged = false;  // must leave everything as it was (always so when refused)
};

int Code(AERROR result) {
  return static_cast<int>(result);
}

// One row per pointer position of a call: `cases[i]` names the row that puts
// null at position i and what it expects; `call(w, i)` makes that call.
void AddPerPosition(std::vector<Row>& rows, const std::vector<std::pair<std::string, int>>& cases,
                    const std::function<int(World&, int)>& call) {
  for (int position = 0; position < static_cast<int>(cases.size()); ++position) {
    rows.push_back({cases[position].first, cases[position].second,
                    [call, position](World& w) { return call(w, position); }});
  }
}

std::vector<Row> ProtocolRows() {
  std::vector<Row> rows = {
      {"GetUserInfo(null, length)", INSUFFICIENT_BUFFER,
       [](World& w) {
         int length = 64;
         return Code(w.protocol->GetUserInfo(nullptr, &length));
       }},
      {"GetUserInfo(buffer, null)", INVALID_PARAMETER,
       [](World& w) {
         char buffer[64];
         return Code(w.protocol->GetUserInfo(buffer, nullptr));
       }},
      {"GetQuota(null, free)", SUCCESS,
       [](World& w) {
         unsigned long long free = 0;
         return Code(w.protocol->GetQuota(nullptr, &free));
       }},
      {"GetQuota(total, null)", SUCCESS,
       [](World& w) {
         unsigned long long total = 0;
         return Code(w.protocol->GetQuota(&total, nullptr));
       }},
      {"SetQuota(no pointers)", NOT_SUPPORTED,
       [](World& w) { return Code(w.protocol->SetQuota(1, 2)); }},
      {"GetType(null)", INVALID_PARAMETER,
       [](World& w) { return Code(w.protocol->GetType(nullptr)); }},
      {"GetFileList(null, list, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->GetFileList(nullptr, &w.list, &msg));
       }},
      {"GetFileList(path, null, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->GetFileList(w.root.c_str(), nullptr, &msg));
       }},
      {"GetFileList(path, list, null)", SUCCESS,
       [](World& w) { return Code(w.protocol->GetFileList(w.root.c_str(), &w.list, nullptr)); }},
      {"GetChanges(null, msg)", NOT_SUPPORTED,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->GetChanges(nullptr, &msg));
       }},
      {"GetChanges(changes, null)", NOT_SUPPORTED,
       [](World& w) { return Code(w.protocol->GetChanges(&w.changes, nullptr)); }},
      {"GetFileInfo(null, file, msg)", INVALID_PARAMETER,
       [](World& w) {
         _FS_FILE_V2 file;
         char* msg = nullptr;
         return Code(w.protocol->GetFileInfo(nullptr, &file, &msg));
       }},
      {"GetFileInfo(path, null, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->GetFileInfo(w.file_a.c_str(), nullptr, &msg));
       }},
      {"GetFileInfo(path, file, null)", SUCCESS,
       [](World& w) {
         _FS_FILE_V2 file;
         return Code(w.protocol->GetFileInfo(w.file_a.c_str(), &file, nullptr));
       }},
  };

  // Rename, Move and MoveDir share their arguments: (from, to, file, msg).
  using MoveSlot = AERROR (IProtocol_V2::*)(const char*, const char*, _FS_FILE_V2*, char**);
  const std::pair<const char*, MoveSlot> moves[] = {{"Rename", &IProtocol_V2::Rename},
                                                    {"Move", &IProtocol_V2::Move},
                                                    {"MoveDir", &IProtocol_V2::MoveDir}};
  for (const auto& [slot, method] : moves) {
    const std::string prefix = slot;
    const std::string names[4] = {"(null, to, file, msg)", "(from, null, file, msg)",
                                  "(from, to, null, msg)", "(from, to, file, null)"};
    const MoveSlot m = method;
    for (int position = 0; position < 4; ++position) {
      rows.push_back({prefix + names[position], position == 3 ? SUCCESS : INVALID_PARAMETER,
                      [m, position](World& w) {
                        _FS_FILE_V2 file = w.Record(w.file_a, "b.txt");
                        char* msg = nullptr;
                        return Code((w.protocol->*m)(position == 0 ? nullptr : w.file_a.c_str(),
                                                     position == 1 ? nullptr : w.dir_d.c_str(),
                                                     position == 2 ? nullptr : &file,
                                                     position == 3 ? nullptr : &msg));
                      }});
    }
  }

  const std::vector<Row> more = {
      {"CreateDirectory(null, file, msg)", INVALID_PARAMETER,
       [](World& w) {
         _FS_FILE_V2 file = w.Record("", "new");
         char* msg = nullptr;
         return Code(w.protocol->CreateDirectory(nullptr, &file, &msg));
       }},
      {"CreateDirectory(parent, null, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->CreateDirectory(w.root.c_str(), nullptr, &msg));
       }},
      {"CreateDirectory(parent, file, null)", SUCCESS,
       [](World& w) {
         _FS_FILE_V2 file = w.Record("", "new");
         return Code(w.protocol->CreateDirectory(w.root.c_str(), &file, nullptr));
       }},
      {"Delete(null, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->Delete(nullptr, &msg));
       }},
      {"Delete(file, null)", SUCCESS,
       [](World& w) {
         _FS_FILE_V2 file = w.Record(w.file_a, "a.txt");
         return Code(w.protocol->Delete(&file, nullptr));
       }},
      {"DeleteDirectory(null, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->DeleteDirectory(nullptr, &msg));
       }},
      {"DeleteDirectory(file, null)", SUCCESS,
       [](World& w) {
         _FS_FILE_V2 file = w.Record(w.dir_d, "d");
         return Code(w.protocol->DeleteDirectory(&file, nullptr));
       }},
  };
  rows.insert(rows.end(), more.begin(), more.end());

  AddPerPosition(rows,
                 {{"Read(null, .., handle, sink, msg)", INVALID_PARAMETER},
                  {"Read(path, .., null handle, sink, msg)", SUCCESS},
                  {"Read(path, .., handle, null, msg)", INVALID_PARAMETER},
                  {"Read(path, .., handle, sink, null)", SUCCESS}},
                 [](World& w, int position) {
                   char* msg = nullptr;
                   return Code(w.protocol->Read(position == 0 ? nullptr : w.file_a.c_str(), 0, 3,
                                                position == 1 ? nullptr : MakeHandle(),
                                                position == 2 ? nullptr : &w.sink,
                                                position == 3 ? nullptr : &msg));
                 });
  AddPerPosition(rows,
                 {{"Upload(null, handle, source, file, flag, msg)", INVALID_PARAMETER},
                  {"Upload(parent, null handle, source, file, flag, msg)", SUCCESS},
                  {"Upload(parent, handle, null, file, flag, msg)", INVALID_PARAMETER},
                  {"Upload(parent, handle, source, null, flag, msg)", INVALID_PARAMETER},
                  {"Upload(parent, handle, source, file, flag, null)", SUCCESS}},
                 [](World& w, int position) {
                   MemoryCache cache("xyz");
                   _FS_FILE_V2 file = w.Record("", "up.txt");
                   file.size = 3;
                   char* msg = nullptr;
                   return Code(w.protocol->Upload(position == 0 ? nullptr : w.root.c_str(),
                                                  position == 1 ? nullptr : MakeHandle(),
                                                  position == 2 ? nullptr : &cache,
                                                  position == 3 ? nullptr : &file, UPLOAD_FLAG_NONE,
                                                  position == 4 ? nullptr : &msg));
                 });
  AddPerPosition(rows,
                 {{"SetFileTime(null, .., file, msg)", INVALID_PARAMETER},
                  {"SetFileTime(path, .., null, msg)", SUCCESS},
                  {"SetFileTime(path, .., file, null)", SUCCESS}},
                 [](World& w, int position) {
                   _FS_FILE_V2 file;
                   char* msg = nullptr;
                   return Code(w.protocol->SetFileTime(
                       position == 0 ? nullptr : w.file_a.c_str(), "", "2020-01-01T00:00:00.000Z",
                       "2020-01-01T00:00:00.000Z", position == 1 ? nullptr : &file,
                       position == 2 ? nullptr : &msg));
                 });

  const std::vector<Row> rest = {
      {"SetOpt(null, value)", INVALID_PARAMETER,
       [](World& w) { return Code(w.protocol->SetOpt(nullptr, "/elsewhere")); }},
      {"SetOpt(null, null)", INVALID_PARAMETER,
       [](World& w) { return Code(w.protocol->SetOpt(nullptr, nullptr)); }},
      {"GetCredential(null, length)", INSUFFICIENT_BUFFER,
       [](World& w) {
         int length = 16;
         return Code(w.protocol->GetCredential(nullptr, &length));
       }},
      {"GetCredential(buffer, null)", INVALID_PARAMETER,
       [](World& w) {
         char buffer[16];
         return Code(w.protocol->GetCredential(buffer, nullptr));
       }},
      {"GetFeature(no pointers)", 0x40, [](World& w) { return w.protocol->GetFeature(); }},
      {"FreeMsg(null)", kNoCode,
       [](World& w) {
         w.protocol->FreeMsg(nullptr);
         return kNoCode;
       }},
      {"Connect(null, arg)", SUCCESS,
       [](World& w) { return Code(w.protocol->Connect(nullptr, "x")); }},
      {"Connect(auth, null)", SUCCESS,
       [](World& w) { return Code(w.protocol->Connect(&w.auth, nullptr)); }},
      {"GetIdentifier(null, length)", SUCCESS,
       [](World& w) {
         int length = 16;
         return Code(w.protocol->GetIdentifier(nullptr, &length));
       }},
      {"GetIdentifier(buffer, null)", SUCCESS,
       [](World& w) {
         char buffer[16];
         return Code(w.protocol->GetIdentifier(buffer, nullptr));
       }},
      {"GetRootID(null, length)", INSUFFICIENT_BUFFER,
       [](World& w) {
         int length = 16;
         return Code(w.protocol->GetRootID(nullptr, &length));
       }},
      {"GetRootID(buffer, null)", INVALID_PARAMETER,
       [](World& w) {
         char buffer[16];
         return Code(w.protocol->GetRootID(buffer, nullptr));
       }},
      {"GetPID(no pointers)", kNoCode,
       [](World& w) { return w.protocol->GetPID() == "instance-1" ? kNoCode : -1; }},
      {"SetChangesCallback(null)", SUCCESS,
       [](World& w) { return Code(w.protocol->SetChangesCallback(nullptr)); }},
      {"SetLocalConfiguration(null)", ACCESS_DENIED,
       [](World& w) { return Code(w.protocol->SetLocalConfiguration(nullptr)); }},
      {"GetShareableLink(null, link)", NOT_SUPPORTED,
       [](World& w) {
         std::string link = "kept";
         return Code(w.protocol->GetShareableLink(nullptr, link));
       }},
  };
  rows.insert(rows.end(), rest.begin(), rest.end());

  // A null value for every option the object or its base knows, and for one
  // that nobody knows. Options whose value is read refuse it; the token
  // options and unknown names never read it and accept the call unchanged.
  const std::pair<const char*, AERROR> options[] = {
      {"pid", INVALID_PARAMETER},       {"root_path", INVALID_PARAMETER},
      {"ROOT_PATH", INVALID_PARAMETER}, {"speedlimit", INVALID_PARAMETER},
      {"access_token", SUCCESS},        {"refresh_token", SUCCESS},
      {"no_such_option", SUCCESS}};
  for (const auto& [key, expected] : options) {
    rows.push_back({std::string("SetOpt(\"") + key + "\", null)", expected,
                    [key = key](World& w) { return Code(w.protocol->SetOpt(key, nullptr)); },
                    true});
  }
  return rows;
}

std::vector<Row> ExportRows() {
  return {
      {"GetProtocol(null, out)", 0,
       [](World&) {
         IProtocol_V2* out = nullptr;
         return GetProtocol(nullptr, &out) || out != nullptr ? 1 : 0;
       }},
      {"GetProtocol(manager, null)", 0,
       [](World& w) { return GetProtocol(&w.manager, nullptr) ? 1 : 0; }},
      {"GetSupportProtocol(null)", kNoCode,
       [](World&) {
         GetSupportProtocol(nullptr);
         return kNoCode;
       }},
      {"FreeP(null)", kNoCode,
       [](World&) {
         FreeP(nullptr);
         return kNoCode;
       }},
      {"GetAuthType(no pointers)", 0, [](World&) { return GetAuthType(); }},
      {"GetAuthFields(null, length)", NOT_SUPPORTED,
       [](World&) {
         int length = 4;
         return Code(GetAuthFields(nullptr, &length));
       }},
      {"GetAuthFields(buffer, null)", NOT_SUPPORTED,
       [](World&) {
         char buffer[4];
         return Code(GetAuthFields(buffer, nullptr));
       }},
      {"GetOptFields(null, null)", NOT_SUPPORTED,
       [](World&) { return Code(GetOptFields(nullptr, nullptr)); }},
      {"BindLogger(null)", 0, [](World&) { return BindLogger(nullptr) ? 1 : 0; }},
      {"UnbindLogger(no pointers)", kNoCode,
       [](World&) {
         static NullLog log;
         BindLogger(&log);
         UnbindLogger();
         return kNoCode;
       }},
  };
}

struct Outcome {
  bool exited = false;
  std::string how;
  int code = 0;
  bool unchanged = false;
};

Outcome RunForked(const std::function<void(int report[2])>& body) {
  const test_support::ChildOutcome child = test_support::RunForked(body);
  return {child.exited, child.how, child.report[0], child.report[1] == 1};
}

Outcome RunInChild(const Row& row, const std::string& root) {
  Populate(root);
  return RunForked([&](int report[2]) {
    World world(root);
    const std::string before = world.Snapshot();
    report[0] = row.call(world);
    report[1] = world.Snapshot() == before ? 1 : 0;
  });
}

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

class NullArguments : public ::testing::TestWithParam<Row> {};

TEST_P(NullArguments, ReturnsACodeAndRefusalsChangeNothing) {
  const Row& row = GetParam();
  backend_test::TempDir dir;
  const Outcome outcome = RunInChild(row, dir / "root");
  ASSERT_TRUE(outcome.exited) << row.name << ": " << outcome.how;
  EXPECT_EQ(outcome.code, row.expected) << row.name;
  if (row.expected == INVALID_PARAMETER || row.unchanged) {
    EXPECT_TRUE(outcome.unchanged) << row.name << " changed the object or the files";
  }
}

std::string RowName(const ::testing::TestParamInfo<Row>& info) {
  std::string name;
  for (const char c : info.param.name)
    name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name + "_" + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(ProtocolSlots, NullArguments, ::testing::ValuesIn(ProtocolRows()),
                         RowName);
INSTANTIATE_TEST_SUITE_P(EntryPoints, NullArguments, ::testing::ValuesIn(ExportRows()), RowName);

// The protocol base on its own, as another plug-in's object reaches it.
TEST(NullArgumentsBase, SuperProtocolSetOptRefusesWhatItWouldFollow) {
  const std::pair<const char*, AERROR> cases[] = {{"speedlimit", INVALID_PARAMETER},
                                                  {"SpeedLimit", INVALID_PARAMETER},
                                                  {"access_token", SUCCESS},
                                                  {"refresh_token", SUCCESS},
                                                  {"other", SUCCESS},
                                                  {nullptr, INVALID_PARAMETER}};
  for (const auto& entry : cases) {
    const char* const key = entry.first;  // a plain name: lambdas cannot capture bindings
    const AERROR expected = entry.second;
    const std::string label = key != nullptr ? key : "<null key>";
    const Outcome outcome = RunForked([&](int report[2]) {
      TestProtocol protocol;
      protocol.auth_document = R"({"results":{"access_token":"a"}})";
      protocol.SetOpt("speedlimit", "9");
      const std::string document = protocol.auth_document;
      report[0] = key != nullptr ? Code(protocol.SetOpt(key, nullptr))
                                 : Code(protocol.SetOpt(nullptr, "1"));
      report[1] = protocol.speed_limit == 9 && protocol.auth_document == document ? 1 : 0;
    });
    ASSERT_TRUE(outcome.exited) << label << ": " << outcome.how;
    EXPECT_EQ(outcome.code, expected) << label;
    EXPECT_TRUE(outcome.unchanged) << label;
  }
}

}  // namespace
