// File metadata and listing.
#include <dirent.h>
#include <libgen.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "localdisk/local_disk.h"
#include "localdisk/path_internal.h"
#include "time/rfc3339.h"

namespace {

constexpr mode_t kDirectoryBit = 0x4000;
constexpr size_t kNameScratch = 1024;

// Local wall-clock fields of `seconds`, written with the fixed ".000Z".
std::string LocalTimeText(time_t seconds) {
  tm fields;
  if (localtime_r(&seconds, &fields) == nullptr) std::memset(&fields, 0, sizeof fields);
  return TMToRFC3339(&fields);
}

// The same answer as the C library's POSIX basename, for paths too long for
// the scratch buffer: trailing separators ignored, "" gives ".", only
// separators give "/".
std::string LongBasename(const std::string& path) {
  if (path.empty()) return ".";
  size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return "/";
  size_t start = path.find_last_of('/', end);
  start = start == std::string::npos ? 0 : start + 1;
  return path.substr(start, end + 1 - start);
}

std::string BaseName(const std::string& path) {
  if (path.size() >= kNameScratch) return LongBasename(path);
  char scratch[kNameScratch];
  std::memcpy(scratch, path.c_str(), path.size() + 1);
  return basename(scratch);
}

}  // namespace

void LocalDisk::FillData(std::string directory, struct stat* st, _FS_FILE_V2* file) {
  // One bit, not the whole type field: sockets and block devices count as
  // directories too, which the host expects.
  file->type = (st->st_mode & kDirectoryBit) != 0 ? 2 : 1;
  file->id = JoinPath(directory, file->name);
  file->size = st->st_size;
  file->create_time = LocalTimeText(st->st_ctim.tv_sec);
  file->access_time = LocalTimeText(st->st_atim.tv_sec);
  file->modify_time = LocalTimeText(st->st_mtim.tv_sec);
}

AERROR LocalDisk::GetFileInfo(const char* path, _FS_FILE_V2* file, char**) {
  if (path == nullptr || file == nullptr) return INVALID_PARAMETER;
  std::string parent(path);
  const std::string local = GetPath(path);
  // Only the exact text "/" is its own parent; "//" and "/." reach "/" below.
  if (parent != root_id) parent += "/..";
  {
    std::unique_ptr<char, void (*)(void*)> normal(normalize_path(parent.c_str(), parent.size()),
                                                  std::free);
    parent.assign(normal.get());
  }
  struct stat st;
  if (stat(local.c_str(), &st) < 0) return FILE_NOT_FOUND;
  file->name = BaseName(path);
  FillData(std::move(parent), &st, file);
  return SUCCESS;
}

AERROR LocalDisk::GetFileList(const char* path, IFileList* list, char**) {
  if (path == nullptr || list == nullptr) return INVALID_PARAMETER;
  const std::string local = GetPath(path);
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(local.c_str()), closedir);
  if (!dir) return FILE_NOT_FOUND;
  const std::string directory(path);
  std::string entry_path = local + "/";
  const size_t prefix = entry_path.size();
  while (const dirent* entry = readdir(dir.get())) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    _FS_FILE_V2 record;
    entry_path.resize(prefix);
    entry_path += name;
    record.name = name;
    struct stat st;
    if (stat(entry_path.c_str(), &st) == 0) {
      FillData(directory, &st, &record);
    } else {
      // A dangling link or an entry removed meanwhile is still listed, with
      // kind, size and times left clear.
      record.id = JoinPath(directory, record.name);
    }
    record.parents.push_back(directory);
    list->OnFile(&record);
  }
  return SUCCESS;
}
