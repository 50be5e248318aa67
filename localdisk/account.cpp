// Account information: the local login on the local host, and the capacity
// of the file system that holds the root directory.
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "localdisk/local_disk.h"

namespace {
constexpr size_t kScratch = 1024;
}  // namespace

AERROR LocalDisk::GetUserInfo(char* buffer, int* length) {
  if (length == nullptr) return INVALID_PARAMETER;
  // Both scratch areas are bounded: a missing USER is an empty name and a
  // longer one is cut to the scratch size.
  char user[kScratch] = {};
  if (const char* login = std::getenv("USER")) std::strncpy(user, login, kScratch - 1);
  char host[kScratch] = {};
  std::string text;
  if (gethostname(host, kScratch) == 0) {
    text.assign(host, strnlen(host, kScratch));
    text += '/';
  }
  text += user;

  const int capacity = *length;
  const int needed = static_cast<int>(text.size());
  *length = needed;
  if (buffer == nullptr || capacity < needed) return INSUFFICIENT_BUFFER;
  // Exactly the text, no terminator: the caller uses the returned length.
  std::memcpy(buffer, text.data(), text.size());
  return SUCCESS;
}

AERROR LocalDisk::GetQuota(unsigned long long* total, unsigned long long* free) {
  // No root configured: nothing to measure, and the outputs stay as they are.
  if (root_path == root_id) return SUCCESS;
  struct statfs fs;
  if (statfs(root_path.c_str(), &fs) != 0) return ACCESS_DENIED;
  const unsigned long long block = static_cast<unsigned long long>(fs.f_bsize);
  if (total != nullptr) *total = block * fs.f_blocks;
  // Deliberately the used space, despite the parameter's name.
  if (free != nullptr) *free = block * (fs.f_blocks - fs.f_bavail);
  return SUCCESS;
}

AERROR LocalDisk::SetQuota(unsigned long long, unsigned long long) {
  return NOT_SUPPORTED;
}
