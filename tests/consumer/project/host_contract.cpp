// A host compiled apart from the plug-in, with only the installed contract
// headers: loads the plug-in with dlopen, resolves every entry point, drives
// the protocol object through its interface and releases it.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "protocol/contract.h"

namespace {

int failures = 0;

#define CHECK(condition)                                                           \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                                  \
    }                                                                              \
  } while (0)

template <typename T>
T Resolve(void* library, const char* name) {
  void* symbol = dlsym(library, name);
  if (symbol == nullptr) {
    std::fprintf(stderr, "missing entry point %s: %s\n", name, dlerror());
    std::exit(1);
  }
  return reinterpret_cast<T>(symbol);
}

class Manager : public IProtocolManager {
 public:
  std::vector<std::string> writes;
  int GetVersion() override { return 1; }
  AERROR WriteConfiguration(const char* section, const char* key, const char* value,
                            bool) override {
    writes.push_back(std::string(section) + "|" + key + "|" + value);
    return SUCCESS;
  }
  AERROR ReadConfiguration(const char*, const char*, char*, int* length) override {
    *length = 0;
    return FILE_NOT_FOUND;
  }
};

class LocalConfiguration : public ILocalConfiguration {
 public:
  AERROR WriteConfiguration(const char*, const char*) override { return SUCCESS; }
  AERROR ReadConfiguration(const char*, char*, int*) override { return SUCCESS; }
};

class Log : public ILog {
 public:
  std::vector<std::string> lines;
  void Write(LOGLEVEL, const char* text) override { lines.push_back(text); }
  void WriteFormat(LOGLEVEL, const char*, ...) override {}
  void WriteLog(LOGLEVEL, const char* format, va_list args) override {
    char buffer[512];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    lines.push_back(buffer);
  }
};

class Listing : public IFileList {
 public:
  std::vector<std::string> names;
  AERROR OnFile(_FS_FILE_V2* file) override {
    names.push_back(file->name);  // copied: the record dies after the call
    return SUCCESS;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: host_contract path/to/liblocaldisk.so\n");
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  auto get_protocol = Resolve<GetProtocol_t>(library, "GetProtocol");
  auto get_support_protocol = Resolve<GetSupportProtocol_t>(library, "GetSupportProtocol");
  auto free_p = Resolve<FreeP_t>(library, "FreeP");
  auto get_auth_type = Resolve<GetAuthType_t>(library, "GetAuthType");
  auto get_auth_fields = Resolve<GetAuthFields_t>(library, "GetAuthFields");
  auto get_opt_fields = Resolve<GetOptFields_t>(library, "GetOptFields");
  auto bind_logger = Resolve<BindLogger_t>(library, "BindLogger");
  auto unbind_logger = Resolve<UnbindLogger_t>(library, "UnbindLogger");

  Log log;
  CHECK(!bind_logger(nullptr));
  CHECK(bind_logger(&log));

  char* name = nullptr;
  get_support_protocol(&name);
  CHECK(name != nullptr && std::strcmp(name, "localdisk") == 0);
  free_p(name);
  CHECK(get_auth_type() == 0);
  CHECK(get_auth_fields(nullptr, nullptr) == NOT_SUPPORTED);
  CHECK(get_opt_fields(nullptr, nullptr) == NOT_SUPPORTED);

  Manager manager;
  IProtocol_V2* protocol = nullptr;
  CHECK(!get_protocol(nullptr, &protocol));
  CHECK(get_protocol(&manager, &protocol));
  if (protocol == nullptr) return 1;

  // Fixed answers.
  char* type = nullptr;
  CHECK(protocol->GetType(&type) == SUCCESS && std::strcmp(type, "localdisk") == 0);
  CHECK(protocol->GetFeature() == 0x40);
  CHECK(protocol->GetChanges(nullptr, nullptr) == NOT_SUPPORTED);
  CHECK(protocol->SetQuota(1, 1) == NOT_SUPPORTED);
  CHECK(protocol->Connect(nullptr, "") == SUCCESS);
  CHECK(protocol->SetChangesCallback(nullptr) == SUCCESS);
  std::string link = "kept";
  CHECK(protocol->GetShareableLink(nullptr, link) == NOT_SUPPORTED && link == "kept");
  char untouched[4] = {'u', 'u', 'u', 'u'};
  int untouched_length = 4;
  CHECK(protocol->GetIdentifier(untouched, &untouched_length) == SUCCESS);
  CHECK(untouched_length == 4 && std::memcmp(untouched, "uuuu", 4) == 0);
  protocol->FreeMsg(nullptr);
  protocol->FreeMsg(strdup("message"));

  // Options, the pid as std::string across the boundary, local configuration.
  CHECK(protocol->GetPID().empty());
  CHECK(protocol->SetOpt("PID", "host-1") == SUCCESS);
  CHECK(protocol->GetPID() == "host-1");
  CHECK(protocol->SetOpt("unknown", "x") == SUCCESS);
  CHECK(protocol->SetLocalConfiguration(nullptr) == ACCESS_DENIED);
  LocalConfiguration local;
  CHECK(protocol->SetLocalConfiguration(&local) == SUCCESS);

  // Root identifier: exactly n bytes, no terminator, capacity n is enough.
  char buffer[16];
  std::memset(buffer, '#', sizeof buffer);
  int length = sizeof buffer;
  CHECK(protocol->GetRootID(buffer, &length) == SUCCESS && length == 1);
  CHECK(buffer[0] == '/' && buffer[1] == '#');
  CHECK(protocol->SetOpt("root_path", "/data") == SUCCESS);
  std::memset(buffer, '#', sizeof buffer);
  length = 5;
  CHECK(protocol->GetRootID(buffer, &length) == SUCCESS && length == 5);
  CHECK(std::memcmp(buffer, "/data#", 6) == 0);
  length = 4;
  CHECK(protocol->GetRootID(buffer, &length) == INSUFFICIENT_BUFFER && length == 5);
  length = 3;
  CHECK(protocol->GetRootID(nullptr, &length) == INSUFFICIENT_BUFFER && length == 5);
  CHECK(protocol->GetRootID(buffer, nullptr) == INVALID_PARAMETER);

  // Credential: publishes the pid to the manager, writes no buffer.
  length = 0;
  CHECK(protocol->GetCredential(buffer, &length) == SUCCESS && length == 0);
  CHECK(manager.writes.size() == 1 && manager.writes[0] == "host-1|pid|host-1");
  length = -1;
  CHECK(protocol->GetCredential(buffer, &length) == INSUFFICIENT_BUFFER && length == 0);
  CHECK(protocol->GetCredential(buffer, nullptr) == INVALID_PARAMETER);

  // A real directory as the root: the file operations answer through the
  // interface. A precondition that cannot be set up fails the run.
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/localdisk-host-XXXXXX";
  std::vector<char> root(pattern.begin(), pattern.end());
  root.push_back('\0');
  if (mkdtemp(root.data()) == nullptr) {
    std::perror("host_contract: mkdtemp");
    return 1;
  }
  const std::string file_path = std::string(root.data()) + "/a.txt";
  FILE* f = std::fopen(file_path.c_str(), "w");
  CHECK(f != nullptr);
  if (f != nullptr) {
    CHECK(std::fputs("hello", f) >= 0);
    CHECK(std::fclose(f) == 0);
  }
  CHECK(protocol->SetOpt("root_path", root.data()) == SUCCESS);
  _FS_FILE_V2 record;
  CHECK(protocol->GetFileInfo(file_path.c_str(), &record, nullptr) == SUCCESS);
  CHECK(record.type == 1 && record.size == 5 && record.name == "a.txt");
  Listing listing;
  CHECK(protocol->GetFileList(root.data(), &listing, nullptr) == SUCCESS);
  CHECK(listing.names.size() == 1 && listing.names[0] == "a.txt");
  CHECK(unlink(file_path.c_str()) == 0);
  CHECK(rmdir(root.data()) == 0);

  protocol->Release();
  unbind_logger();
  CHECK(dlclose(library) == 0);

  if (failures != 0) {
    std::fprintf(stderr, "host_contract: %d failure(s)\n", failures);
    return 1;
  }
  std::puts("host_contract: ok");
  return 0;
}
