// A protocol plug-in that counts what the host does with it: how often its
// objects are released and how many messages the host hands back. It has no
// GetAERRORA, so hosts fall back to their own error names.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "protocol/contract.h"

namespace {

std::atomic<int> g_created{0};
std::atomic<int> g_released{0};
std::atomic<int> g_messages_out{0};
std::atomic<int> g_messages_freed{0};

char* Message(const char* text) {
  ++g_messages_out;
  return strdup(text);
}

class CountingProtocol final : public IProtocol_V2 {
 public:
  CountingProtocol() { ++g_created; }
  ~CountingProtocol() = default;

  void Release() override {
    ++g_released;
    delete this;
  }
  AERROR GetUserInfo(char* buffer, int* length) override {
    static const char kText[] = "box/counter";
    if (length == nullptr) return INVALID_PARAMETER;
    int capacity = *length;
    *length = static_cast<int>(sizeof kText - 1);
    if (buffer == nullptr || capacity < *length) return INSUFFICIENT_BUFFER;
    std::memcpy(buffer, kText, sizeof kText - 1);  // unterminated, as plug-ins may do
    return SUCCESS;
  }
  AERROR GetQuota(unsigned long long* total, unsigned long long* free) override {
    if (total != nullptr) *total = 1000;
    if (free != nullptr) *free = 250;
    return SUCCESS;
  }
  AERROR SetQuota(unsigned long long, unsigned long long) override { return NOT_SUPPORTED; }
  AERROR GetType(char** type) override {
    static char kType[] = "counting";
    *type = kType;
    return SUCCESS;
  }
  AERROR GetFileList(const char*, IFileList*, char** msg) override {
    if (msg != nullptr) *msg = Message("listing is not allowed here");
    return ACCESS_DENIED;
  }
  AERROR GetChanges(IFileChanges*, char**) override { return NOT_SUPPORTED; }
  AERROR GetFileInfo(const char*, _FS_FILE_V2*, char** msg) override {
    if (msg != nullptr) *msg = Message("counting says no");
    return FILE_NOT_FOUND;
  }
  AERROR Rename(const char*, const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Move(const char*, const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR MoveDir(const char*, const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR CreateDirectory(const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Delete(_FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR DeleteDirectory(_FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Read(const char*, long long, long long, std::shared_ptr<_FS_HANDLE>, IFetchCallback*,
              char**) override {
    return NOT_SUPPORTED;
  }
  AERROR Upload(const char*, std::shared_ptr<_FS_HANDLE>, ICacheIO*, _FS_FILE_V2*, UPLOAD_FLAG,
                char**) override {
    return NOT_SUPPORTED;
  }
  AERROR SetFileTime(const char*, std::string, std::string, std::string, _FS_FILE_V2*,
                     char**) override {
    return NOT_SUPPORTED;
  }
  AERROR SetOpt(const char*, const char*) override { return SUCCESS; }
  AERROR GetCredential(char*, int*) override { return NOT_SUPPORTED; }
  int GetFeature() override { return 7; }
  void FreeMsg(char* msg) override {
    if (msg != nullptr) ++g_messages_freed;
    std::free(msg);
  }
  AERROR Connect(IProtocolAuth*, const char*) override { return SUCCESS; }
  AERROR GetIdentifier(char*, int*) override { return NOT_SUPPORTED; }
  AERROR GetRootID(char* buffer, int* length) override {
    static const char kRoot[] = "/counted";
    if (length == nullptr) return INVALID_PARAMETER;
    int capacity = *length;
    *length = static_cast<int>(sizeof kRoot - 1);
    if (buffer == nullptr || capacity < *length) return INSUFFICIENT_BUFFER;
    std::memcpy(buffer, kRoot, sizeof kRoot - 1);
    return SUCCESS;
  }
  std::string GetPID() override { return "counting-pid"; }
  AERROR SetChangesCallback(IFileChanges*) override { return SUCCESS; }
  AERROR SetLocalConfiguration(ILocalConfiguration*) override { return SUCCESS; }
  AERROR GetShareableLink(_FS_FILE_V2*, std::string&) override { return NOT_SUPPORTED; }
};

}  // namespace

extern "C" {
bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out) {
  if (manager == nullptr || out == nullptr) return false;
  *out = new CountingProtocol();
  return true;
}
void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = strdup("counting");
}
void FreeP(void* p) {
  std::free(p);
}
int GetAuthType() {
  return 5;
}
AERROR GetAuthFields(char*, int*) {
  return NOT_SUPPORTED;
}
AERROR GetOptFields(char*, int*) {
  return NOT_SUPPORTED;
}
bool BindLogger(ILog* logger) {
  return logger != nullptr;
}
void UnbindLogger() {}

// Test hooks.
__attribute__((visibility("default"))) int CountingCreated() {
  return g_created;
}
__attribute__((visibility("default"))) int CountingReleased() {
  return g_released;
}
__attribute__((visibility("default"))) int CountingMessagesOut() {
  return g_messages_out;
}
__attribute__((visibility("default"))) int CountingMessagesFreed() {
  return g_messages_freed;
}
}
