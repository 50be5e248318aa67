// Whether the kernel may keep the pages it cached for a file at an earlier
// open: only while the file's modification time and size are what they were
// then, and never after the mount itself changed it.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "protocol/contract.h"

namespace plughost {

class CacheStamps {
 public:
  // True when `relative` still has the stamp of the last call; records the
  // current one either way.
  bool Keep(const std::string& relative, const _FS_FILE_V2& file);
  // The mount changed, moved or removed the entry.
  void Forget(const std::string& relative);

 private:
  struct Stamp {
    std::string modify_time;
    long long size = 0;
  };
  static constexpr std::size_t kLimit = 65536;

  std::mutex lock_;
  std::unordered_map<std::string, Stamp> stamps_;
};

}  // namespace plughost
