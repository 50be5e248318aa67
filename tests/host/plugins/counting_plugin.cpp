// A protocol plug-in that counts what the host does with it: how often its
// objects are released and how many messages the host hands back. It has no
// GetAERRORA, so hosts fall back to their own error names. Everything it
// does not count answers as the shared null protocol does.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "protocol/contract.h"
#include "tests/support/null_protocol.h"

namespace {

std::atomic<int> g_created{0};
std::atomic<int> g_released{0};
std::atomic<int> g_messages_out{0};
std::atomic<int> g_messages_freed{0};

char* Message(const char* text) {
  ++g_messages_out;
  return strdup(text);
}

class CountingProtocol final : public test_support::NullProtocol {
 public:
  explicit CountingProtocol(IProtocolManager* manager) : NullProtocol(manager) {
    pid = "counting-pid";
    ++g_created;
  }

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
  AERROR GetType(char** type) override {
    static char kType[] = "counting";
    *type = kType;
    return SUCCESS;
  }
  AERROR GetFileList(const char*, IFileList*, char** msg) override {
    if (msg != nullptr) *msg = Message("listing is not allowed here");
    return ACCESS_DENIED;
  }
  AERROR GetFileInfo(const char*, _FS_FILE_V2*, char** msg) override {
    if (msg != nullptr) *msg = Message("counting says no");
    return FILE_NOT_FOUND;
  }
  int GetFeature() override { return 7; }
  void FreeMsg(char* msg) override {
    if (msg != nullptr) ++g_messages_freed;
    std::free(msg);
  }
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
};

}  // namespace

extern "C" {
bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out) {
  if (manager == nullptr || out == nullptr) return false;
  *out = new CountingProtocol(manager);
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
