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

// FillData's work, shared with the listing loop (which must not copy the
// directory for every entry).
void Fill(const std::string& directory, const struct stat& st, char separator, _FS_FILE_V2* file) {
  // One bit, not the whole type field: sockets and block devices count as
  // directories too, which the host expects.
  file->type = (st.st_mode & kDirectoryBit) != 0 ? 2 : 1;
  join_path_into(file->id, directory, file->name, separator);
  file->size = st.st_size;
  file->create_time = LocalTimeText(st.st_ctim.tv_sec);
  file->access_time = LocalTimeText(st.st_atim.tv_sec);
  file->modify_time = LocalTimeText(st.st_mtim.tv_sec);
}

// Makes a listing record indistinguishable from a fresh one named `name`,
// with `directory` as its only parent, keeping the memory it already holds.
void Reset(_FS_FILE_V2& record, const char* name, const std::string& directory) {
  record.id.clear();
  record.type = 0;
  record.size = 0;
  record.create_time.clear();
  record.access_time.clear();
  record.modify_time.clear();
  record.name.assign(name);
  record.aux_text.clear();
  if (record.parents.size() == 1) {
    record.parents.front().assign(directory);
  } else {
    record.parents.clear();
    record.parents.push_back(directory);
  }
  record.aux_text_v2.clear();
}

}  // namespace

void LocalDisk::FillData(std::string directory, struct stat* st, _FS_FILE_V2* file) {
  Fill(directory, *st, separator, file);
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
  // One record serves every entry: it is reset to the state of a fresh one
  // before each callback, so the host cannot tell, and a large directory
  // costs no allocations for the record's own structure.
  _FS_FILE_V2 record;
  while (const dirent* entry = readdir(dir.get())) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    Reset(record, name, directory);
    entry_path.resize(prefix);
    entry_path += name;
    struct stat st;
    if (stat(entry_path.c_str(), &st) == 0) {
      Fill(directory, st, separator, &record);
    } else {
      // A dangling link or an entry removed meanwhile is still listed, with
      // kind, size and times left clear.
      join_path_into(record.id, directory, record.name, separator);
    }
    list->OnFile(&record);
  }
  return SUCCESS;
}
