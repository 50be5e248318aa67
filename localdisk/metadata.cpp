// File metadata and listing. (Being completed.)
#include "localdisk/local_disk.h"

void LocalDisk::FillData(std::string, struct stat*, _FS_FILE_V2*) {}

AERROR LocalDisk::GetFileList(const char*, IFileList*, char**) { return NOT_SUPPORTED; }

AERROR LocalDisk::GetFileInfo(const char*, _FS_FILE_V2*, char**) { return NOT_SUPPORTED; }
