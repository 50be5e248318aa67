// Namespace changes. (Being completed.)
#include "localdisk/local_disk.h"

AERROR LocalDisk::Rename(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  return Move(from, to, file, msg);
}

AERROR LocalDisk::MoveDir(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  return Move(from, to, file, msg);
}

AERROR LocalDisk::Move(const char*, const char*, _FS_FILE_V2*, char**) { return NOT_SUPPORTED; }

AERROR LocalDisk::CreateDirectory(const char*, _FS_FILE_V2*, char**) { return NOT_SUPPORTED; }

AERROR LocalDisk::Delete(_FS_FILE_V2*, char**) { return NOT_SUPPORTED; }

AERROR LocalDisk::DeleteDirectory(_FS_FILE_V2* file, char** msg) { return Delete(file, msg); }

AERROR LocalDisk::SetFileTime(const char*, std::string, std::string, std::string, _FS_FILE_V2*,
                              char**) {
  return NOT_SUPPORTED;
}
