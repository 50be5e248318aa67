// Reading and uploading. (Being completed.)
#include "localdisk/local_disk.h"

AERROR LocalDisk::Read(const char*, long long, long long, std::shared_ptr<_FS_HANDLE>,
                       IFetchCallback*, char**) {
  return NOT_SUPPORTED;
}

AERROR LocalDisk::Upload(const char*, std::shared_ptr<_FS_HANDLE>, ICacheIO*, _FS_FILE_V2*,
                         UPLOAD_FLAG, char**) {
  return NOT_SUPPORTED;
}
