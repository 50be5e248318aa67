// Namespace changes: move, create, delete and time-stamp entries.
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>

#include "localdisk/local_disk.h"
#include "time/rfc3339.h"

namespace {

// stat follows links, so a link counts as what it points to. Anything but a
// regular file or a directory is treated as missing.
bool IsFileOrDirectory(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  const mode_t kind = st.st_mode & S_IFMT;
  return kind == S_IFREG || kind == S_IFDIR;
}

}  // namespace

AERROR LocalDisk::Rename(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  return Move(from, to, file, msg);
}

AERROR LocalDisk::MoveDir(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  return Move(from, to, file, msg);
}

AERROR LocalDisk::Move(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  if (from == nullptr || to == nullptr || file == nullptr) return INVALID_PARAMETER;
  const std::string source = GetPath(from);
  if (!IsFileOrDirectory(source)) return FILE_NOT_FOUND;
  const std::string target = GetPath(to) + "/" + file->name;
  if (rename(source.c_str(), target.c_str()) != 0) return ACCESS_DENIED;
  // The separator is appended as is: a move into "/" refills from "//name".
  const std::string moved = std::string(to) + "/" + file->name;
  GetFileInfo(moved.c_str(), file, msg);
  return SUCCESS;
}

AERROR LocalDisk::CreateDirectory(const char* parent, _FS_FILE_V2* file, char** msg) {
  if (parent == nullptr || file == nullptr) return INVALID_PARAMETER;
  const std::string local = GetPath(parent);
  // A regular file passes on purpose; mkdir below then refuses.
  if (!IsFileOrDirectory(local)) return FILE_NOT_FOUND;
  const std::string target = local + "/" + file->name;
  if (mkdir(target.c_str(), 0755) != 0 && errno != EEXIST) {
    errno = ENOTDIR;
    return ACCESS_DENIED;
  }
  const std::string created = std::string(parent) + "/" + file->name;
  GetFileInfo(created.c_str(), file, msg);
  return SUCCESS;
}

AERROR LocalDisk::Delete(_FS_FILE_V2* file, char**) {
  if (file == nullptr) return INVALID_PARAMETER;
  const std::string local = GetPath(file->id.c_str());
  if (!IsFileOrDirectory(local)) return FILE_NOT_FOUND;
  return remove(local.c_str()) == 0 ? SUCCESS : ACCESS_DENIED;
}

AERROR LocalDisk::DeleteDirectory(_FS_FILE_V2* file, char** msg) {
  return Delete(file, msg);
}

AERROR LocalDisk::SetFileTime(const char* path, std::string, std::string access_time,
                              std::string modify_time, _FS_FILE_V2*, char**) {
  if (path == nullptr) return INVALID_PARAMETER;
  // The only operation that takes a local path as it stands, unmapped.
  if (!IsFileOrDirectory(path)) return FILE_NOT_FOUND;
  timeval times[2];
  times[0].tv_sec = RFC3339ToTM(access_time.c_str());
  times[0].tv_usec = 0;
  times[1].tv_sec = RFC3339ToTM(modify_time.c_str());
  times[1].tv_usec = 0;
  return utimes(path, times) == 0 ? SUCCESS : ACCESS_DENIED;
}
