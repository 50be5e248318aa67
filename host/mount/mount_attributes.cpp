// MountFs: attributes, listings, times, modes and space.
#include <cerrno>
#include <ctime>
#include <unordered_set>

#include "host/core/file_time.h"
#include "host/core/paths.h"
#include "host/mount/mount_fs.h"

namespace plughost {

void MountFs::PendingStat(const OpenNode& node, struct stat* st) const {
  FillStatShape(false, node.size.load(), settings_.owner, st);
  time_t written = node.written.load();
  if (written == 0) written = time(nullptr);
  st->st_atim = st->st_mtim = st->st_ctim = {written, 0};
  OverlayStaged(node, st);
}

void MountFs::OverlayStaged(const OpenNode& node, struct stat* st) const {
  if (node.staged.load() || node.pending.load()) {
    st->st_size = node.size.load();
    st->st_blocks = (st->st_size + 511) / 512;
  }
  if (node.dirty.load()) {
    st->st_mtim = {node.written.load(), 0};
    st->st_ctim = st->st_mtim;
  }
  if (node.has_pending_times.load()) {
    st->st_atim = {node.pending_access.load(), 0};
    st->st_mtim = {node.pending_modify.load(), 0};
  }
}

int MountFs::GetAttr(const char* path, std::uint64_t fh, struct stat* st) {
  std::shared_ptr<OpenNode> node;
  std::string relative;
  if (fh != 0) {
    node = open_.NodeOf(fh);
    if (!node) return -EBADF;
    if (open_.Unlinked(*node) || node->pending.load()) {
      // Removed (its name may name another file now) or not uploaded yet:
      // the table knows it all.
      PendingStat(*node, st);
      return 0;
    }
    relative = open_.RelativeOf(*node);
  } else {
    if (int error = RelativeOf(path, &relative); error != 0) return error;
    node = open_.Find(relative);
    if (node && node->pending.load()) {
      PendingStat(*node, st);
      return 0;
    }
  }
  _FS_FILE_V2 file;
  if (FreshRecord(relative, &file)) {
    FillStat(file, settings_.owner, st);
    if (node) OverlayStaged(*node, st);
    return 0;
  }
  if (int error = Info(relative, &file); error != 0) {
    if (!node || !node->staged.load()) return error;
    // Removed or renamed away on the storage while still open here: the
    // staged copy is all there is.
    PendingStat(*node, st);
    return 0;
  }
  FillStat(file, settings_.owner, st);
  if (node) OverlayStaged(*node, st);
  return 0;
}

namespace {

double MonotonicSeconds() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

constexpr std::size_t kListingsKept = 256;

}  // namespace

bool MountFs::CachedListing(const std::string& relative, std::vector<DirEntry>* entries) {
  if (settings_.dir_cache_time <= 0) return false;
  std::lock_guard<std::mutex> guard(listings_lock_);
  auto it = listings_.find(relative);
  if (it == listings_.end()) return false;
  if (it->second.generation != generation_.load() ||
      MonotonicSeconds() - it->second.loaded > settings_.dir_cache_time) {
    listings_.erase(it);
    return false;
  }
  *entries = it->second.entries;
  return true;
}

void MountFs::KeepListing(const std::string& relative, std::uint64_t generation,
                          const std::vector<DirEntry>& entries) {
  if (settings_.dir_cache_time <= 0) return;
  std::lock_guard<std::mutex> guard(listings_lock_);
  if (listings_.size() >= kListingsKept) listings_.clear();
  listings_[relative] = Listing{generation, MonotonicSeconds(), entries};
}

void MountFs::KeepRecord(const std::string& relative, const _FS_FILE_V2& record) {
  std::lock_guard<std::mutex> guard(listings_lock_);
  if (records_.size() >= kListingsKept) records_.clear();
  records_[relative] = Record{generation_.load(), MonotonicSeconds(), record};
}

bool MountFs::FreshRecord(const std::string& relative, _FS_FILE_V2* record) {
  // Only for the moment after the upload: later the storage is asked again.
  constexpr double kFreshSeconds = 1.0;
  std::lock_guard<std::mutex> guard(listings_lock_);
  if (records_.empty()) return false;
  auto it = records_.find(relative);
  if (it == records_.end()) return false;
  bool fresh = it->second.generation == generation_.load() &&
               MonotonicSeconds() - it->second.made <= kFreshSeconds;
  if (fresh) *record = it->second.file;
  records_.erase(it);
  return fresh;
}

int MountFs::ListDir(const char* path, std::vector<DirEntry>* entries) {
  std::string relative;
  if (int error = RelativeOf(path, &relative); error != 0) return error;
  entries->clear();
  if (!CachedListing(relative, entries)) {
    // Taken before the listing: a change during it makes the result stale.
    const std::uint64_t generation = generation_.load();
    std::vector<_FS_FILE_V2> files;
    try {
      files = client_.List(Protocol(relative), {"list", relative});
    } catch (const ProtocolError& error) {
      return ErrnoOf(error.code());
    }
    entries->reserve(files.size());
    for (const _FS_FILE_V2& file : files) {
      // Aside entries of open files and partial uploads are the mount's own.
      if (!IsPlainName(file.name) || IsTemporaryEntryName(file.name)) continue;
      DirEntry entry;
      entry.name = file.name;
      FillStat(file, settings_.owner, &entry.st);
      entries->push_back(std::move(entry));
    }
    KeepListing(relative, generation, *entries);
  }
  if (open_.Count() == 0) return 0;
  const std::string prefix = relative.empty() ? std::string() : relative + "/";
  std::unordered_set<std::string> names;
  for (DirEntry& entry : *entries) {
    if (std::shared_ptr<OpenNode> node = open_.Find(prefix + entry.name)) {
      OverlayStaged(*node, &entry.st);
    }
    names.insert(entry.name);
  }
  for (const std::shared_ptr<OpenNode>& node : open_.PendingIn(relative)) {
    DirEntry entry;
    entry.name = BaseName(open_.RelativeOf(*node));
    if (names.count(entry.name) != 0) continue;
    PendingStat(*node, &entry.st);
    entries->push_back(std::move(entry));
  }
  return 0;
}

int MountFs::SetTimes(const std::string& relative, time_t access, time_t modify) {
  try {
    std::string modify_text = FileTimeText(modify);
    client_.SetFileTime(Protocol(relative), modify_text, FileTimeText(access), modify_text,
                        {"touch", relative});
  } catch (const ProtocolError& error) {
    return ErrnoOf(error.code());
  }
  stamps_.Forget(relative);
  Changed();
  return 0;
}

int MountFs::Utimens(const char* path, std::uint64_t fh, const struct timespec times[2]) {
  std::shared_ptr<OpenNode> node;
  std::string relative;
  if (fh != 0) {
    node = open_.NodeOf(fh);
    if (!node) return -EBADF;
    relative = open_.RelativeOf(*node);
  } else {
    if (int error = RelativeOf(path, &relative); error != 0) return error;
    node = open_.Find(relative);
  }
  time_t now = time(nullptr);
  time_t chosen[2] = {now, now};
  bool omit[2] = {false, false};
  for (int i = 0; i < 2; ++i) {
    if (times == nullptr || times[i].tv_nsec == UTIME_NOW) continue;
    if (times[i].tv_nsec == UTIME_OMIT) {
      omit[i] = true;
    } else {
      chosen[i] = times[i].tv_sec;
    }
  }
  if (omit[0] && omit[1]) return 0;
  const bool both_now =
      times == nullptr || (times[0].tv_nsec == UTIME_NOW && times[1].tv_nsec == UTIME_NOW);
  if (both_now && node && node->dirty.load()) {
    std::lock_guard<std::mutex> guard(node->lock);
    if (node->dirty.load()) {
      // touch on a file not uploaded yet: the upload stamps it with its own
      // time, which is this moment or later, so nothing is left to set.
      node->has_pending_times.store(false);
      node->written.store(now);
      return 0;
    }
  }
  if (int error = Beneath(relative); error != 0) return error;
  if (omit[0] || omit[1]) {
    struct stat st {};
    int error = GetAttr(("/" + relative).c_str(), 0, &st);
    if (error != 0 && !node) return error;
    if (error != 0) st.st_atim.tv_sec = st.st_mtim.tv_sec = now;
    if (omit[0]) chosen[0] = st.st_atim.tv_sec;
    if (omit[1]) chosen[1] = st.st_mtim.tv_sec;
  }
  if (node && node->dirty.load()) {
    std::lock_guard<std::mutex> guard(node->lock);
    if (node->dirty.load()) {
      // The upload at close would stamp the file with the time of the
      // upload; the times are set after it (cp -p, tar, rsync do this).
      node->pending_access.store(chosen[0]);
      node->pending_modify.store(chosen[1]);
      node->has_pending_times.store(true);
      return 0;
    }
  }
  return SetTimes(relative, chosen[0], chosen[1]);
}

int MountFs::Statfs(struct statvfs* st) {
  std::optional<Quota> quota;
  try {
    quota = client_.GetQuota();
  } catch (const ProtocolError& error) {
    return ErrnoOf(error.code());
  }
  *st = {};
  constexpr unsigned long kBlock = kReportedBlockSize;
  st->f_bsize = kBlock;
  st->f_frsize = kBlock;
  st->f_namemax = 255;
  if (!quota) return 0;
  st->f_blocks = quota->total / kBlock;
  unsigned long long available = quota->total > quota->used ? quota->total - quota->used : 0;
  st->f_bfree = available / kBlock;
  st->f_bavail = available / kBlock;
  return 0;
}

int MountFs::Chmod(const char* path, std::uint64_t fh, mode_t mode) {
  struct stat st {};
  int error = GetAttr(path, fh, &st);
  if (error != 0) return error;
  // The modes come from the mount's options; tar, cp -a, rsync -a and
  // install need the request to succeed.
  if (!settings_.strict_modes) return 0;
  if ((st.st_mode & 07777) == (mode & 07777)) return 0;
  return -ENOTSUP;
}

int MountFs::Chown(const char* path, std::uint64_t fh, uid_t uid, gid_t gid, const Caller& caller) {
  struct stat st {};
  int error = GetAttr(path, fh, &st);
  if (error != 0) return error;
  if (!settings_.kernel_checks_modes) {
    if (int refused = ChownAllowed(st, uid, gid, caller); refused != 0) return refused;
  }
  if (!settings_.strict_modes) return 0;
  bool same_uid = uid == static_cast<uid_t>(-1) || uid == settings_.owner.uid;
  bool same_gid = gid == static_cast<gid_t>(-1) || gid == settings_.owner.gid;
  return same_uid && same_gid ? 0 : -EPERM;
}

int MountFs::Access(const char* path, int mask, const Caller& caller) {
  struct stat st {};
  if (int error = GetAttr(path, 0, &st); error != 0) return error;
  return AccessFor(st, mask, caller);
}

}  // namespace plughost
