#include "host/mount/cache_stamps.h"

namespace plughost {

bool CacheStamps::Keep(const std::string& relative, const _FS_FILE_V2& file) {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = stamps_.find(relative);
  bool keep = it != stamps_.end() && it->second.modify_time == file.modify_time &&
              it->second.size == file.size;
  // Forgetting a stamp only costs a re-read.
  if (stamps_.size() > kLimit) stamps_.clear();
  stamps_[relative] = Stamp{file.modify_time, file.size};
  return keep;
}

void CacheStamps::Forget(const std::string& relative) {
  std::lock_guard<std::mutex> guard(lock_);
  stamps_.erase(relative);
}

}  // namespace plughost
