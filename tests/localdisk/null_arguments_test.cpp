// Every slot of the protocol object and every exported entry point, called
// with null in each pointer position in turn. Each call runs in a child
// process: a crash fails its own row instead of ending the suite. A call that
// is refused must leave the object and the files as they were.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "localdisk/local_disk.h"
#include "protocol/plugin.h"
#include "tests/localdisk/backend_support.h"
#include "tests/protocol/test_protocol.h"

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
};

int Code(AERROR result) {
  return static_cast<int>(result);
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
      {"Read(null, .., handle, sink, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->Read(nullptr, 0, 3, MakeHandle(), &w.sink, &msg));
       }},
      {"Read(path, .., null handle, sink, msg)", SUCCESS,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->Read(w.file_a.c_str(), 0, 3, nullptr, &w.sink, &msg));
       }},
      {"Read(path, .., handle, null, msg)", INVALID_PARAMETER,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->Read(w.file_a.c_str(), 0, 3, MakeHandle(), nullptr, &msg));
       }},
      {"Read(path, .., handle, sink, null)", SUCCESS,
       [](World& w) {
         return Code(w.protocol->Read(w.file_a.c_str(), 0, 3, MakeHandle(), &w.sink, nullptr));
       }},
      {"Upload(null, handle, source, file, flag, msg)", INVALID_PARAMETER,
       [](World& w) {
         MemoryCache cache("xyz");
         _FS_FILE_V2 file = w.Record("", "up.txt");
         file.size = 3;
         char* msg = nullptr;
         return Code(
             w.protocol->Upload(nullptr, MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, &msg));
       }},
      {"Upload(parent, null handle, source, file, flag, msg)", SUCCESS,
       [](World& w) {
         MemoryCache cache("xyz");
         _FS_FILE_V2 file = w.Record("", "up.txt");
         file.size = 3;
         char* msg = nullptr;
         return Code(
             w.protocol->Upload(w.root.c_str(), nullptr, &cache, &file, UPLOAD_FLAG_NONE, &msg));
       }},
      {"Upload(parent, handle, null, file, flag, msg)", INVALID_PARAMETER,
       [](World& w) {
         _FS_FILE_V2 file = w.Record("", "up.txt");
         file.size = 3;
         char* msg = nullptr;
         return Code(w.protocol->Upload(w.root.c_str(), MakeHandle(), nullptr, &file,
                                        UPLOAD_FLAG_NONE, &msg));
       }},
      {"Upload(parent, handle, source, null, flag, msg)", INVALID_PARAMETER,
       [](World& w) {
         MemoryCache cache("xyz");
         char* msg = nullptr;
         return Code(w.protocol->Upload(w.root.c_str(), MakeHandle(), &cache, nullptr,
                                        UPLOAD_FLAG_NONE, &msg));
       }},
      {"Upload(parent, handle, source, file, flag, null)", SUCCESS,
       [](World& w) {
         MemoryCache cache("xyz");
         _FS_FILE_V2 file = w.Record("", "up.txt");
         file.size = 3;
         return Code(w.protocol->Upload(w.root.c_str(), MakeHandle(), &cache, &file,
                                        UPLOAD_FLAG_NONE, nullptr));
       }},
      {"SetFileTime(null, .., file, msg)", INVALID_PARAMETER,
       [](World& w) {
         _FS_FILE_V2 file;
         char* msg = nullptr;
         return Code(w.protocol->SetFileTime(nullptr, "", "2020-01-01T00:00:00.000Z",
                                             "2020-01-01T00:00:00.000Z", &file, &msg));
       }},
      {"SetFileTime(path, .., null, msg)", SUCCESS,
       [](World& w) {
         char* msg = nullptr;
         return Code(w.protocol->SetFileTime(w.file_a.c_str(), "", "2020-01-01T00:00:00.000Z",
                                             "2020-01-01T00:00:00.000Z", nullptr, &msg));
       }},
      {"SetFileTime(path, .., file, null)", SUCCESS,
       [](World& w) {
         _FS_FILE_V2 file;
         return Code(w.protocol->SetFileTime(w.file_a.c_str(), "", "2020-01-01T00:00:00.000Z",
                                             "2020-01-01T00:00:00.000Z", &file, nullptr));
       }},
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
  rows.insert(rows.end(), more.begin(), more.end());

  // A null value for every option the object or its base knows, and for one
  // that nobody knows.
  static const char* const kOptions[] = {"pid",          "root_path",     "speedlimit",
                                         "access_token", "refresh_token", "no_such_option"};
  for (const char* key : kOptions) {
    rows.push_back({std::string("SetOpt(\"") + key + "\", null)", INVALID_PARAMETER,
                    [key](World& w) { return Code(w.protocol->SetOpt(key, nullptr)); }});
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
  bool exited = false;  // the child came back on its own
  std::string how;      // otherwise: how it ended
  int code = 0;
  bool unchanged = false;
};

// Runs `body` in a child process; the child reports the call's result and
// whether the world is unchanged through a pipe.
Outcome RunForked(const std::function<void(int report[2])>& body) {
  int fds[2];
  if (pipe(fds) != 0) return {false, "pipe failed", 0, false};
  const pid_t child = fork();
  if (child < 0) return {false, "fork failed", 0, false};
  if (child == 0) {
    close(fds[0]);
    int report[2] = {-1, 0};
    body(report);
    const ssize_t written = write(fds[1], report, sizeof report);
    _exit(written == static_cast<ssize_t>(sizeof report) ? 0 : 3);
  }
  close(fds[1]);
  int report[2] = {0, 0};
  const ssize_t got = read(fds[0], report, sizeof report);
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  Outcome outcome;
  if (WIFSIGNALED(status)) {
    outcome.how = std::string("killed by signal ") + strsignal(WTERMSIG(status));
  } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
             got != static_cast<ssize_t>(sizeof report)) {
    outcome.how = "exit status " + std::to_string(WEXITSTATUS(status)) + " without a report";
  } else {
    outcome.exited = true;
    outcome.code = report[0];
    outcome.unchanged = report[1] == 1;
  }
  return outcome;
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
  if (row.expected == INVALID_PARAMETER) {
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
TEST(NullArgumentsBase, SuperProtocolSetOptRefusesNullAndKeepsItsState) {
  for (const char* key : {"speedlimit", "access_token", "refresh_token", "other", "<null>"}) {
    const bool null_key = std::string(key) == "<null>";
    const Outcome outcome = RunForked([&](int report[2]) {
      TestProtocol protocol;
      protocol.auth_document = R"({"results":{"access_token":"a"}})";
      protocol.SetOpt("speedlimit", "9");
      const std::string document = protocol.auth_document;
      report[0] =
          null_key ? Code(protocol.SetOpt(nullptr, "1")) : Code(protocol.SetOpt(key, nullptr));
      report[1] = protocol.speed_limit == 9 && protocol.auth_document == document ? 1 : 0;
    });
    ASSERT_TRUE(outcome.exited) << key << ": " << outcome.how;
    EXPECT_EQ(outcome.code, INVALID_PARAMETER) << key;
    EXPECT_TRUE(outcome.unchanged) << key;
  }
}

}  // namespace
