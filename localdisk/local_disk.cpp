// Construction, options and the operations whose answers are fixed.
#include "localdisk/local_disk.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

namespace {
// The protocol's type name; GetType hands out its address.
char kTypeName[] = "localdisk";
constexpr int kFeatureMask = 0x40;
}  // namespace

LocalDisk::LocalDisk(IProtocolManager* manager)
    : SuperProtocol(manager), root_path(), root_id("/"), root_prefix(), separator('/') {
  // An unconfigured object serves the file system's root.
  root_path = root_id;
}

LocalDisk::~LocalDisk() = default;

int LocalDisk::GetAuthType() {
  return 0;
}

AERROR LocalDisk::GetAuthFields(char*, int*) {
  return NOT_SUPPORTED;
}

void LocalDisk::Release() {
  delete this;
}

AERROR LocalDisk::GetType(char** type) {
  if (type == nullptr) return INVALID_PARAMETER;
  *type = kTypeName;
  return SUCCESS;
}

AERROR LocalDisk::GetChanges(IFileChanges*, char**) {
  return NOT_SUPPORTED;
}

AERROR LocalDisk::SetOpt(const char* key, const char* value) {
  // A null key or value is the caller's error: refuse before anything changes.
  if (key == nullptr || value == nullptr) return INVALID_PARAMETER;
  if (strcasecmp(key, "pid") == 0) {
    pid = value;
  } else if (strcasecmp(key, "root_path") == 0) {
    // Taken as it stands: no normalisation, no existence check.
    root_path = root_prefix + value;
  }
  // Every option, ours included, also goes to the base.
  return SuperProtocol::SetOpt(key, value);
}

AERROR LocalDisk::GetCredential(char* buffer, int* length) {
  if (length == nullptr) return INVALID_PARAMETER;
  AERROR result = INSUFFICIENT_BUFFER;
  if (buffer != nullptr && *length >= 0) {
    // Publishes the pid straight to the manager, bypassing a local configuration.
    manager->WriteConfiguration(pid.c_str(), "pid", pid.c_str(), true);
    result = SUCCESS;
  }
  *length = 0;
  return result;
}

int LocalDisk::GetFeature() {
  return kFeatureMask;
}

void LocalDisk::FreeMsg(char* msg) {
  std::free(msg);
}

AERROR LocalDisk::Connect(IProtocolAuth*, const char*) {
  return SUCCESS;
}

AERROR LocalDisk::GetIdentifier(char*, int*) {
  return SUCCESS;
}

AERROR LocalDisk::GetRootID(char* buffer, int* length) {
  if (length == nullptr) return INVALID_PARAMETER;
  const int needed = static_cast<int>(root_path.size());
  if (buffer == nullptr) {
    *length = needed;
    return INSUFFICIENT_BUFFER;
  }
  const int capacity = *length;
  *length = needed;
  if (capacity < needed) return INSUFFICIENT_BUFFER;
  // Exactly n bytes and no terminator: the caller uses the returned length.
  std::memcpy(buffer, root_path.data(), root_path.size());
  return SUCCESS;
}

AERROR LocalDisk::SetChangesCallback(IFileChanges*) {
  return SUCCESS;
}

AERROR LocalDisk::GetShareableLink(_FS_FILE_V2*, std::string&) {
  return NOT_SUPPORTED;
}
