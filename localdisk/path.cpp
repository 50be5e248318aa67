// Path mapping. (Being completed.)
#include "localdisk/local_disk.h"

std::string LocalDisk::GetPath(const char* path) { return path; }

std::string LocalDisk::JoinPath(const std::string& directory, const std::string& name) {
  std::string joined = directory;
  if (joined.empty() || joined.back() != separator) joined += separator;
  return joined + name;
}
