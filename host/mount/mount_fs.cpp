// MountFs: construction, open files and their data.
#include "host/mount/mount_fs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "host/core/confine.h"
#include "host/core/paths.h"
#include "host/mount/read_ahead.h"

namespace plughost {

MountFs::MountFs(Client& client, std::string root_id, std::string cache_dir, MountSettings settings)
    : client_(client),
      root_id_(std::move(root_id)),
      settings_(std::move(settings)),
      staging_(client, std::move(cache_dir), settings_.local_root) {
  if (!settings_.local_root.empty()) {
    beneath_ = std::make_unique<BeneathChecker>(settings_.local_root);
  }
}

MountFs::~MountFs() = default;

std::string MountFs::Protocol(const std::string& relative) const {
  return JoinProtocolPath(root_id_, relative);
}

int MountFs::Info(const std::string& relative, _FS_FILE_V2* file) {
  AERROR code = client_.TryInfo(Protocol(relative), file);
  return code == SUCCESS ? 0 : ErrnoOf(code);
}

int MountFs::RelativeOf(const char* path, std::string* relative) {
  std::optional<std::string> normal = NormalizeUserPath(path != nullptr ? path : "/");
  if (!normal) return -ENOENT;
  // The kernel checks whole paths only; names are checked here, before the
  // plug-in turns an overlong one into a vaguer error.
  std::size_t begin = 0;
  while (begin < normal->size()) {
    std::size_t end = normal->find('/', begin);
    if (end == std::string::npos) end = normal->size();
    if (end - begin > 255) return -ENAMETOOLONG;
    begin = end + 1;
  }
  *relative = std::move(*normal);
  return 0;
}

int MountFs::Beneath(const std::string& relative) const {
  if (!beneath_) return 0;
  return beneath_->Check(relative, false) == 0 ? 0 : -EACCES;
}

std::size_t MountFs::OpenNodes() const {
  return open_.Count();
}

// --- staging ---------------------------------------------------------------------

// Copies the first `keep` bytes of the file (all of it for -1) into a new
// staging file. With node.lock held.
int MountFs::Stage(OpenNode& node, long long keep) {
  if (node.fd >= 0) return 0;
  int fd = staging_.MakeFile();
  if (fd < 0) return fd;
  long long size = 0;
  if (node.pending.load()) {
    // Created here: there is nothing to copy yet.
    size = node.size.load();
    if (size > 0 && ftruncate(fd, size) != 0) {
      int error = -errno;
      close(fd);
      return error;
    }
  } else if (keep != 0) {
    std::string relative = open_.RelativeOf(node);
    _FS_FILE_V2 file;
    int error = Info(relative, &file);
    if (error == 0 && file.type == 2) error = -EISDIR;
    long long want = file.size;
    if (keep > 0 && keep < want) want = keep;
    if (error == 0) error = staging_.Fill(Protocol(relative), want, fd, &size);
    if (error != 0) {
      close(fd);
      return error;
    }
  }
  node.fd = fd;
  node.size.store(size);
  node.staged.store(true);
  node.read_ahead.reset();
  return 0;
}

int MountFs::StageEmpty(OpenNode& node) {
  int error = Stage(node, 0);
  if (error == 0 && node.size.load() != 0) {
    if (ftruncate(node.fd, 0) != 0) error = -errno;
    node.size.store(0);
    WriteBehind::Cut(node.behind, 0);
  }
  if (error == 0) {
    node.dirty.store(true);
    node.written.store(time(nullptr));
  }
  return error;
}

// Uploads the whole staging file when it holds changes. With node.lock held.
int MountFs::UploadLocked(OpenNode& node, bool durable) {
  std::string relative = open_.RelativeOf(node);
  if (!node.dirty.load()) {
    if (durable && !open_.Unlinked(node)) return staging_.MakeDurable(relative);
    return 0;
  }
  if (open_.Unlinked(node) || open_.Hidden(node) || IsKernelHiddenName(BaseName(relative))) {
    // Removed while open: its content has nowhere to go.
    node.dirty.store(false);
    node.pending.store(false);
    node.has_pending_times.store(false);
    return 0;
  }
  _FS_FILE_V2 record;
  int error = staging_.Upload(Protocol(DirName(relative)), BaseName(relative), node.fd,
                              node.size.load(), durable, &node.behind, &record);
  if (error != 0) return error;
  node.dirty.store(false);
  node.pending.store(false);
  stamps_.Forget(relative);
  Changed();
  if (node.has_pending_times.exchange(false)) {
    error = SetTimes(relative, node.pending_access.load(), node.pending_modify.load());
    if (error != 0) return error;
  } else {
    KeepRecord(relative, record);
  }
  // A durable upload synced the file before its rename and the directory
  // after it: nothing is left to sync.
  return 0;
}

// --- open files ------------------------------------------------------------------

int MountFs::Open(const char* path, int flags, std::uint64_t* fh, bool* keep_cache) {
  std::string relative;
  if (int error = RelativeOf(path, &relative); error != 0) return error;
  std::shared_ptr<OpenNode> node = open_.Acquire(relative);
  bool writable = (flags & O_ACCMODE) != O_RDONLY;
  *keep_cache = false;
  int error = 0;
  if (writable || (flags & O_TRUNC) != 0) {
    std::lock_guard<std::mutex> guard(node->lock);
    if ((flags & O_TRUNC) != 0) {
      error = StageEmpty(*node);
    } else {
      error = Stage(*node, -1);
    }
  } else if (!node->staged.load() && !node->pending.load()) {
    _FS_FILE_V2 file;
    error = Info(relative, &file);
    if (error == 0 && file.type == 2) error = -EISDIR;
    if (error == 0) {
      node->size.store(file.size);
      *keep_cache = stamps_.Keep(relative, file);
    }
  }
  if (error != 0) {
    std::string aside;
    open_.Drop(node, &aside);
    return error;
  }
  *fh = open_.Register(std::make_unique<OpenHandle>(OpenHandle{node, writable}));
  return 0;
}

int MountFs::Create(const char* path, int /*flags*/, std::uint64_t* fh) {
  std::string relative;
  if (int error = RelativeOf(path, &relative); error != 0) return error;
  if (relative.empty()) return -EEXIST;
  if (int error = Beneath(relative); error != 0) return error;
  std::shared_ptr<OpenNode> node = open_.Acquire(relative);
  {
    std::lock_guard<std::mutex> guard(node->lock);
    if (node->fd >= 0) {
      // Already open here: creating truncates.
      int error = StageEmpty(*node);
      if (error != 0) {
        std::string aside;
        open_.Drop(node, &aside);
        return error;
      }
    } else {
      // Nothing is made yet: the entry lives in the table until its first
      // flush uploads it, and the staging file comes with the first write.
      node->pending.store(true);
      node->size.store(0);
      node->written.store(time(nullptr));
      node->dirty.store(true);
    }
  }
  *fh = open_.Register(std::make_unique<OpenHandle>(OpenHandle{node, true}));
  return 0;
}

long long MountFs::Read(std::uint64_t fh, char* buffer, std::size_t size, off_t offset) {
  std::shared_ptr<OpenNode> held = open_.NodeOf(fh);
  if (!held) return -EBADF;
  OpenNode& node = *held;
  if (size == 0 || offset < 0) return 0;
  std::lock_guard<std::mutex> guard(node.lock);
  if (node.staged.load()) {
    long long end = node.size.load();
    if (offset >= end) return 0;
    std::size_t want = static_cast<std::size_t>(std::min<long long>(size, end - offset));
    std::size_t done = 0;
    int error = PreadAll(node.fd, buffer, want, offset, &done);
    return error != 0 ? error : static_cast<long long>(done);
  }
  if (node.pending.load()) return 0;  // created, nothing written yet
  std::string relative = open_.RelativeOf(node);
  long long known = node.size.load();
  if (offset >= known) {
    // At the end as far as we know: the file may have grown since the open.
    _FS_FILE_V2 file;
    if (int error = Info(relative, &file); error != 0) return error;
    known = file.size;
    node.size.store(known);
    if (offset >= known) return 0;
  }
  if (!node.read_ahead) node.read_ahead = std::make_unique<ReadAhead>();
  return ReadThrough(client_, Protocol(relative), known, *node.read_ahead, buffer, size, offset);
}

long long MountFs::Write(std::uint64_t fh, const char* buffer, std::size_t size, off_t offset) {
  std::shared_ptr<OpenNode> held = open_.NodeOf(fh);
  if (!held) return -EBADF;
  OpenNode& node = *held;
  std::lock_guard<std::mutex> guard(node.lock);
  int error = Stage(node, -1);
  if (error != 0) return error;
  error = PwriteAll(node.fd, buffer, size, offset);
  if (error != 0) return error;
  long long end = static_cast<long long>(offset) + static_cast<long long>(size);
  if (end > node.size.load()) {
    node.size.store(end);
    write_behind_.Appended(held, node.fd, node.behind, end);
  }
  node.written.store(time(nullptr));
  node.dirty.store(true);
  return static_cast<long long>(size);
}

int MountFs::Truncate(const char* path, std::uint64_t fh, off_t size) {
  if (size < 0) return -EINVAL;
  std::shared_ptr<OpenNode> node;
  bool own = fh == 0;
  if (own) {
    std::string relative;
    if (int error = RelativeOf(path, &relative); error != 0) return error;
    std::shared_ptr<OpenNode> open = open_.Find(relative);
    if (!open || !open->pending.load()) {
      _FS_FILE_V2 file;
      if (int error = Info(relative, &file); error != 0) return error;
      if (file.type == 2) return -EISDIR;
    }
    node = open_.Acquire(relative);
  } else {
    node = open_.NodeOf(fh);
    if (!node) return -EBADF;
  }
  int error = 0;
  {
    std::lock_guard<std::mutex> guard(node->lock);
    // Only what stays is copied; growth is a hole in the staging file.
    error = Stage(*node, size);
    if (error == 0 && ftruncate(node->fd, size) != 0) error = -errno;
    if (error == 0) {
      WriteBehind::Cut(node->behind, size);
      node->size.store(size);
      node->written.store(time(nullptr));
      node->dirty.store(true);
      // A truncate by name has no close to report a failed upload at; a
      // file still being created is uploaded at its own close.
      if (own && !node->pending.load()) error = UploadLocked(*node, settings_.sync_on_close);
    }
  }
  if (own) {
    std::string aside;
    open_.Drop(node, &aside);
  }
  return error;
}

int MountFs::Flush(std::uint64_t fh) {
  std::shared_ptr<OpenNode> held = open_.NodeOf(fh);
  if (!held) return -EBADF;
  OpenNode& node = *held;
  if (!node.dirty.load()) return 0;
  std::lock_guard<std::mutex> guard(node.lock);
  return UploadLocked(node, settings_.sync_on_close);
}

int MountFs::Fsync(std::uint64_t fh) {
  std::shared_ptr<OpenNode> held = open_.NodeOf(fh);
  if (!held) return -EBADF;
  std::lock_guard<std::mutex> guard(held->lock);
  return UploadLocked(*held, true);
}

int MountFs::Close(const std::shared_ptr<OpenNode>& node) {
  int error = 0;
  {
    std::lock_guard<std::mutex> guard(node->lock);
    error = UploadLocked(*node, settings_.sync_on_close);
  }
  std::string aside;
  if (!open_.Drop(node, &aside)) return error;
  // A file the bridge moved aside when it was removed while open: the
  // bridge deletes it after this release, unless the move and this release
  // crossed, so it goes here (a second delete finds nothing).
  if (aside.empty() && IsKernelHiddenName(BaseName(open_.RelativeOf(*node)))) {
    aside = open_.RelativeOf(*node);
  }
  if (!aside.empty()) {
    try {
      client_.Delete(Protocol(aside), {"remove", aside});
    } catch (const ProtocolError&) {
      // Left for `plughost cleanup`; never listed by the mount.
    }
  }
  std::lock_guard<std::mutex> guard(node->lock);
  if (node->dirty.load()) {
    // Nobody is left to retry: the staged copy stays in the cache
    // directory, as at the end of the mount.
    const std::string relative = open_.RelativeOf(*node);
    if (node->fd < 0) node->fd = staging_.MakeFile();
    std::string kept = node->fd >= 0 ? staging_.Keep(node->fd, relative) : std::string();
    if (kept.empty()) {
      std::fprintf(stderr, "plughost mount: could not upload /%s; its changes are lost\n",
                   relative.c_str());
    } else {
      std::fprintf(stderr, "plughost mount: could not upload /%s; its content is kept in %s\n",
                   relative.c_str(), kept.c_str());
    }
    node->dirty.store(false);
  }
  return error;
}

int MountFs::Release(std::uint64_t fh) {
  std::unique_ptr<OpenHandle> handle = open_.Take(fh);
  if (!handle) return -EBADF;
  return Close(handle->node);
}

ShutdownReport MountFs::Shutdown() {
  ShutdownReport report;
  for (const std::shared_ptr<OpenNode>& node : open_.All()) {
    std::lock_guard<std::mutex> guard(node->lock);
    if (!node->dirty.load()) continue;
    std::string relative = open_.RelativeOf(*node);
    if (UploadLocked(*node, settings_.sync_on_close) == 0) {
      ++report.uploaded;
      continue;
    }
    std::string kept;
    if (node->fd < 0) node->fd = staging_.MakeFile();
    if (node->fd >= 0) kept = staging_.Keep(node->fd, relative);
    report.failed.emplace_back("/" + relative, kept);
    // Reported here; the table must not report it again as lost.
    node->dirty.store(false);
  }
  // Removed files still open when the mount ended: the kernel drops their
  // last releases at an unmount, so their aside entries go here.
  for (const std::shared_ptr<OpenNode>& node : open_.All()) {
    std::string relative = open_.RelativeOf(*node);
    if (open_.Hidden(*node) || IsKernelHiddenName(BaseName(relative))) {
      try {
        client_.Delete(Protocol(relative), {"remove", relative});
      } catch (const ProtocolError&) {
      }
    }
  }
  return report;
}

}  // namespace plughost
