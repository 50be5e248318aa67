// Account information. (File operations are being completed.)
#include "localdisk/local_disk.h"

AERROR LocalDisk::GetUserInfo(char*, int*) { return NOT_SUPPORTED; }

AERROR LocalDisk::GetQuota(unsigned long long*, unsigned long long*) { return NOT_SUPPORTED; }

AERROR LocalDisk::SetQuota(unsigned long long, unsigned long long) { return NOT_SUPPORTED; }
