#include "host/mount/mount_fs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "host/core/adapters.h"
#include "host/mount/mount_support.h"

namespace plughost {

namespace {

int PreadAll(int fd, char* buffer, std::size_t size, off_t offset, std::size_t* done) {
  *done = 0;
  while (*done < size) {
    ssize_t n = pread(fd, buffer + *done, size - *done, offset + static_cast<off_t>(*done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    if (n == 0) break;
    *done += static_cast<std::size_t>(n);
  }
  return 0;
}

int PwriteAll(int fd, const char* buffer, std::size_t size, off_t offset) {
  std::size_t done = 0;
  while (done < size) {
    ssize_t n = pwrite(fd, buffer + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    done += static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace

MountFs::MountFs(IProtocol_V2* protocol, std::string root_id, std::string cache_dir, uid_t uid,
                 gid_t gid)
    : protocol_(protocol),
      root_id_(std::move(root_id)),
      cache_dir_(std::move(cache_dir)),
      uid_(uid),
      gid_(gid) {}

MountFs::~MountFs() {
  // Handles the kernel never released (a forced unmount).
  {
    std::lock_guard<std::mutex> guard(handles_lock_);
    for (Handle* handle : handles_)
      delete handle;
    handles_.clear();
  }
  std::lock_guard<std::mutex> guard(registry_lock_);
  nodes_.clear();
}

std::uint64_t MountFs::Register(std::unique_ptr<Handle> handle) {
  std::lock_guard<std::mutex> guard(handles_lock_);
  handles_.insert(handle.get());
  return reinterpret_cast<std::uint64_t>(handle.release());
}

std::shared_ptr<MountFs::Node> MountFs::NodeOf(std::uint64_t fh) const {
  std::lock_guard<std::mutex> guard(handles_lock_);
  auto it = handles_.find(reinterpret_cast<Handle*>(fh));
  return it == handles_.end() ? nullptr : (*it)->node;
}

MountFs::Node::~Node() {
  if (fd >= 0) close(fd);
}

// --- helpers ---------------------------------------------------------------

std::string MountFs::Protocol(const std::string& relative) const {
  return ProtocolPathOf(root_id_, relative);
}

void MountFs::FreeMessage(char* message) {
  if (message != nullptr) protocol_->FreeMsg(message);
}

AERROR MountFs::Info(const std::string& relative, _FS_FILE_V2* file) {
  char* message = nullptr;
  AERROR result = protocol_->GetFileInfo(Protocol(relative).c_str(), file, &message);
  FreeMessage(message);
  return result;
}

std::shared_ptr<MountFs::Node> MountFs::Acquire(const std::string& relative) {
  std::lock_guard<std::mutex> guard(registry_lock_);
  std::shared_ptr<Node>& slot = nodes_[relative];
  if (!slot) {
    slot = std::make_shared<Node>();
    slot->relative = relative;
    open_nodes_.fetch_add(1, std::memory_order_relaxed);
  }
  ++slot->opens;
  return slot;
}

void MountFs::Drop(const std::shared_ptr<Node>& node) {
  std::lock_guard<std::mutex> guard(registry_lock_);
  if (--node->opens > 0) return;
  auto it = nodes_.find(node->relative);
  if (it != nodes_.end() && it->second == node) nodes_.erase(it);
  open_nodes_.fetch_sub(1, std::memory_order_relaxed);
  if (node->dirty.load()) {
    std::fprintf(stderr, "plughost mount: changes to /%s were not uploaded and are lost\n",
                 node->relative.c_str());
  }
}

std::shared_ptr<MountFs::Node> MountFs::Find(const std::string& relative) const {
  if (open_nodes_.load(std::memory_order_relaxed) == 0) return nullptr;
  std::lock_guard<std::mutex> guard(registry_lock_);
  auto it = nodes_.find(relative);
  return it == nodes_.end() ? nullptr : it->second;
}

std::string MountFs::RelativeOfNode(const Node& node) const {
  std::lock_guard<std::mutex> guard(registry_lock_);
  return node.relative;
}

std::size_t MountFs::OpenNodes() const {
  std::lock_guard<std::mutex> guard(registry_lock_);
  return nodes_.size();
}

int MountFs::MakeStagingFile() {
  int fd = open(cache_dir_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  // File systems without anonymous files: a named one, unlinked at once.
  std::string pattern = cache_dir_ + "/staging.XXXXXX";
  fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) return -errno;
  unlink(pattern.c_str());
  return fd;
}

bool MountFs::KeepCache(const std::string& relative, const _FS_FILE_V2& file) {
  std::lock_guard<std::mutex> guard(stamps_lock_);
  auto it = stamps_.find(relative);
  bool keep = it != stamps_.end() && it->second.modify_time == file.modify_time &&
              it->second.size == file.size;
  if (stamps_.size() > 65536) stamps_.clear();
  stamps_[relative] = CacheStamp{file.modify_time, file.size};
  return keep;
}

void MountFs::ForgetCache(const std::string& relative) {
  std::lock_guard<std::mutex> guard(stamps_lock_);
  stamps_.erase(relative);
}

void MountFs::OverlayStaged(const Node& node, struct stat* st) const {
  if (node.staged.load()) {
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

// Copies the first `keep` bytes of the file (all of it for -1) into a new
// staging file. With node.lock held.
int MountFs::Stage(Node& node, long long keep) {
  if (node.fd >= 0) return 0;
  int fd = MakeStagingFile();
  if (fd < 0) return fd;
  long long size = 0;
  if (keep != 0) {
    std::string relative = RelativeOfNode(node);
    _FS_FILE_V2 file;
    AERROR result = Info(relative, &file);
    if (result != SUCCESS) {
      close(fd);
      return ErrnoOf(result);
    }
    if (file.type == 2) {
      close(fd);
      return -EISDIR;
    }
    long long want = file.size;
    if (keep > 0 && keep < want) want = keep;
    if (want > 0) {
      auto handle = std::make_shared<_FS_HANDLE>();
      int write_error = 0;
      FetchAdapter sink(
          [&](long long offset, const char* data, long long length) {
            if (length <= 0) {
              // The file is shorter than it was: stop instead of waiting forever.
              handle->state.store(FS_HANDLE_STOP);
              return;
            }
            int error = PwriteAll(fd, data, static_cast<std::size_t>(length), offset);
            if (error != 0) {
              write_error = error;
              handle->state.store(FS_HANDLE_STOP);
              return;
            }
            size = std::max(size, offset + length);
          },
          handle);
      char* message = nullptr;
      result = protocol_->Read(Protocol(relative).c_str(), 0, want, handle, &sink, &message);
      FreeMessage(message);
      if (write_error != 0 || (result != SUCCESS && result != READ_CANCELED)) {
        close(fd);
        return write_error != 0 ? write_error : ErrnoOf(result);
      }
    }
  }
  node.fd = fd;
  node.size.store(size);
  node.staged.store(true);
  return 0;
}

// Uploads the whole staging file when it holds changes. With node.lock held.
int MountFs::UploadLocked(Node& node) {
  if (!node.dirty.load()) return 0;
  std::string relative;
  bool unlinked = false;
  {
    std::lock_guard<std::mutex> guard(registry_lock_);
    relative = node.relative;
    unlinked = node.unlinked;
  }
  if (unlinked) {
    // Removed while open: its content has nowhere to go.
    node.dirty.store(false);
    node.has_pending_times.store(false);
    return 0;
  }
  std::string parent, name;
  SplitRelative(relative, &parent, &name);
  const long long total = node.size.load();
  const int fd = node.fd;
  CacheAdapter cache([fd, total](long long offset, char* buffer, long long capacity) {
    long long want = std::min(capacity, total - offset);
    if (want <= 0) return 0LL;
    std::size_t done = 0;
    if (PreadAll(fd, buffer, static_cast<std::size_t>(want), offset, &done) != 0 || done == 0) {
      // A failed or empty read would otherwise make the upload spin.
      return -1LL;
    }
    return static_cast<long long>(done);
  });
  _FS_FILE_V2 file;
  file.name = name;
  file.size = total;
  char* message = nullptr;
  AERROR result = protocol_->Upload(Protocol(parent).c_str(), std::make_shared<_FS_HANDLE>(),
                                    &cache, &file, UPLOAD_FLAG_OVERWRITE, &message);
  FreeMessage(message);
  if (result != SUCCESS) return ErrnoOf(result);
  node.dirty.store(false);
  ForgetCache(relative);
  if (node.has_pending_times.exchange(false)) {
    return SetTimes(relative, node.pending_access.load(), node.pending_modify.load());
  }
  return 0;
}

int MountFs::SetTimes(const std::string& relative, time_t access, time_t modify) {
  _FS_FILE_V2 file;
  char* message = nullptr;
  std::string modify_text = FileTimeOf(modify);
  AERROR result = protocol_->SetFileTime(Protocol(relative).c_str(), modify_text,
                                         FileTimeOf(access), modify_text, &file, &message);
  FreeMessage(message);
  return ErrnoOf(result);
}

// --- attributes ------------------------------------------------------------

int MountFs::GetAttr(const char* path, std::uint64_t fh, struct stat* st) {
  std::shared_ptr<Node> node;
  std::string relative;
  if (fh != 0) {
    node = NodeOf(fh);
    if (!node) return -EBADF;
    relative = RelativeOfNode(*node);
  } else {
    relative = RelativeOf(path != nullptr ? path : "/");
  }
  _FS_FILE_V2 file;
  AERROR result = Info(relative, &file);
  if (result != SUCCESS) {
    if (!node || !node->staged.load()) return ErrnoOf(result);
    // Removed or renamed away on the storage while still open here: the
    // staged copy is all there is.
    file.type = 1;
    time_t written = node->written.load();
    file.modify_time = FileTimeOf(written != 0 ? written : time(nullptr));
    file.access_time = file.create_time = file.modify_time;
  } else {
    if (!node) node = Find(relative);
  }
  FillStat(file, uid_, gid_, st);
  if (node) OverlayStaged(*node, st);
  return 0;
}

int MountFs::ListDir(const char* path, std::vector<DirEntry>* entries) {
  std::string relative = RelativeOf(path);
  entries->clear();
  FileListAdapter list([&](const _FS_FILE_V2& file) {
    if (file.name.empty() || file.name == "." || file.name == ".." ||
        file.name.find('/') != std::string::npos) {
      return;
    }
    DirEntry entry;
    entry.name = file.name;
    FillStat(file, uid_, gid_, &entry.st);
    entries->push_back(std::move(entry));
  });
  char* message = nullptr;
  AERROR result = protocol_->GetFileList(Protocol(relative).c_str(), &list, &message);
  FreeMessage(message);
  if (result != SUCCESS) return ErrnoOf(result);
  if (open_nodes_.load(std::memory_order_relaxed) > 0) {
    std::string prefix = relative.empty() ? std::string() : relative + "/";
    for (DirEntry& entry : *entries) {
      if (std::shared_ptr<Node> node = Find(prefix + entry.name)) OverlayStaged(*node, &entry.st);
    }
  }
  return 0;
}

// --- open files --------------------------------------------------------------

int MountFs::StageEmpty(Node& node) {
  int error = Stage(node, 0);
  if (error == 0 && node.size.load() != 0) {
    if (ftruncate(node.fd, 0) != 0) error = -errno;
    node.size.store(0);
  }
  if (error == 0) {
    node.dirty.store(true);
    node.written.store(time(nullptr));
  }
  return error;
}

int MountFs::Open(const char* path, int flags, std::uint64_t* fh, bool* keep_cache) {
  std::string relative = RelativeOf(path);
  std::shared_ptr<Node> node = Acquire(relative);
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
  } else if (!node->staged.load()) {
    _FS_FILE_V2 file;
    AERROR result = Info(relative, &file);
    if (result != SUCCESS) {
      error = ErrnoOf(result);
    } else if (file.type == 2) {
      error = -EISDIR;
    } else {
      node->size.store(file.size);
      *keep_cache = KeepCache(relative, file);
    }
  }
  if (error != 0) {
    Drop(node);
    return error;
  }
  *fh = Register(std::make_unique<Handle>(Handle{node, writable}));
  return 0;
}

int MountFs::Create(const char* path, int /*flags*/, std::uint64_t* fh) {
  std::string relative = RelativeOf(path);
  if (relative.empty()) return -EEXIST;
  std::shared_ptr<Node> node = Acquire(relative);
  int error = 0;
  {
    std::lock_guard<std::mutex> guard(node->lock);
    error = StageEmpty(*node);
    // Upload the empty file now, so that the entry exists from here on.
    if (error == 0) error = UploadLocked(*node);
  }
  if (error != 0) {
    Drop(node);
    return error;
  }
  *fh = Register(std::make_unique<Handle>(Handle{node, true}));
  return 0;
}

long long MountFs::Read(std::uint64_t fh, char* buffer, std::size_t size, off_t offset) {
  std::shared_ptr<Node> held = NodeOf(fh);
  if (!held) return -EBADF;
  Node& node = *held;
  if (size == 0 || offset < 0) return 0;
  if (node.staged.load()) {
    std::lock_guard<std::mutex> guard(node.lock);
    long long end = node.size.load();
    if (offset >= end) return 0;
    std::size_t want = static_cast<std::size_t>(std::min<long long>(size, end - offset));
    std::size_t done = 0;
    int error = PreadAll(node.fd, buffer, want, offset, &done);
    return error != 0 ? error : static_cast<long long>(done);
  }
  std::string relative = RelativeOfNode(node);
  long long known = node.size.load();
  if (offset >= known) {
    // At the end as far as we know: the file may have grown since the open.
    _FS_FILE_V2 file;
    AERROR result = Info(relative, &file);
    if (result != SUCCESS) return ErrnoOf(result);
    known = file.size;
    node.size.store(known);
    if (offset >= known) return 0;
  }
  // The plug-in must never be asked past the end: it would hand out empty
  // chunks until cancelled.
  long long want = std::min<long long>(static_cast<long long>(size), known - offset);
  auto handle = std::make_shared<_FS_HANDLE>();
  long long got = 0;
  FetchAdapter sink(
      [&](long long position, const char* data, long long length) {
        if (length <= 0) {
          // Truncated meanwhile: return what we have as a short read.
          handle->state.store(FS_HANDLE_STOP);
          return;
        }
        long long start = position - offset;
        if (start < 0 || start >= want) return;
        long long count = std::min(length, want - start);
        std::memcpy(buffer + start, data, static_cast<std::size_t>(count));
        got = std::max(got, start + count);
      },
      handle);
  char* message = nullptr;
  AERROR result =
      protocol_->Read(Protocol(relative).c_str(), offset, want, handle, &sink, &message);
  FreeMessage(message);
  if (result != SUCCESS && result != READ_CANCELED) return ErrnoOf(result);
  return got;
}

long long MountFs::Write(std::uint64_t fh, const char* buffer, std::size_t size, off_t offset) {
  std::shared_ptr<Node> held = NodeOf(fh);
  if (!held) return -EBADF;
  Node& node = *held;
  std::lock_guard<std::mutex> guard(node.lock);
  int error = Stage(node, -1);
  if (error != 0) return error;
  error = PwriteAll(node.fd, buffer, size, offset);
  if (error != 0) return error;
  long long end = static_cast<long long>(offset) + static_cast<long long>(size);
  if (end > node.size.load()) node.size.store(end);
  node.written.store(time(nullptr));
  node.dirty.store(true);
  return static_cast<long long>(size);
}

int MountFs::Truncate(const char* path, std::uint64_t fh, off_t size) {
  if (size < 0) return -EINVAL;
  std::shared_ptr<Node> node;
  bool own = fh == 0;
  if (own) {
    std::string relative = RelativeOf(path);
    _FS_FILE_V2 file;
    AERROR result = Info(relative, &file);
    if (result != SUCCESS) return ErrnoOf(result);
    if (file.type == 2) return -EISDIR;
    node = Acquire(relative);
  } else {
    node = NodeOf(fh);
    if (!node) return -EBADF;
  }
  int error = 0;
  {
    std::lock_guard<std::mutex> guard(node->lock);
    error = Stage(*node, size);
    if (error == 0 && ftruncate(node->fd, size) != 0) error = -errno;
    if (error == 0) {
      node->size.store(size);
      node->written.store(time(nullptr));
      node->dirty.store(true);
      // A truncate by name has no close to report a failed upload at.
      if (own) error = UploadLocked(*node);
    }
  }
  if (own) Drop(node);
  return error;
}

int MountFs::Flush(std::uint64_t fh) {
  std::shared_ptr<Node> held = NodeOf(fh);
  if (!held) return -EBADF;
  Node& node = *held;
  if (!node.dirty.load()) return 0;
  std::lock_guard<std::mutex> guard(node.lock);
  return UploadLocked(node);
}

int MountFs::Fsync(std::uint64_t fh) {
  return Flush(fh);
}

int MountFs::Release(std::uint64_t fh) {
  Handle* handle = reinterpret_cast<Handle*>(fh);
  {
    std::lock_guard<std::mutex> guard(handles_lock_);
    if (handles_.erase(handle) == 0) return -EBADF;
  }
  int error = 0;
  {
    std::lock_guard<std::mutex> guard(handle->node->lock);
    error = UploadLocked(*handle->node);
  }
  Drop(handle->node);
  delete handle;
  return error;
}

// --- namespace ---------------------------------------------------------------

int MountFs::Mkdir(const char* path) {
  std::string parent, name;
  SplitRelative(RelativeOf(path), &parent, &name);
  if (name.empty()) return -EEXIST;
  _FS_FILE_V2 file;
  file.name = name;
  char* message = nullptr;
  AERROR result = protocol_->CreateDirectory(Protocol(parent).c_str(), &file, &message);
  FreeMessage(message);
  if (result != SUCCESS) return ErrnoOf(result);
  // The plug-in accepts an existing entry of that name, whatever its kind.
  if (file.type != 2) return -EEXIST;
  return 0;
}

void MountFs::ForgetNodeLocked(const std::string& relative) {
  auto it = nodes_.find(relative);
  if (it == nodes_.end()) return;
  it->second->unlinked = true;
  nodes_.erase(it);
}

int MountFs::Unlink(const char* path) {
  std::string relative = RelativeOf(path);
  _FS_FILE_V2 file;
  file.id = Protocol(relative);
  char* message = nullptr;
  AERROR result = protocol_->Delete(&file, &message);
  FreeMessage(message);
  if (result != SUCCESS) return ErrnoOf(result);
  {
    std::lock_guard<std::mutex> guard(registry_lock_);
    ForgetNodeLocked(relative);
  }
  ForgetCache(relative);
  return 0;
}

int MountFs::Rmdir(const char* path) {
  std::string relative = RelativeOf(path);
  if (relative.empty()) return -EBUSY;
  _FS_FILE_V2 file;
  file.id = Protocol(relative);
  char* message = nullptr;
  AERROR result = protocol_->DeleteDirectory(&file, &message);
  FreeMessage(message);
  return ErrnoOf(result);
}

int MountFs::Rename(const char* from, const char* to, unsigned int flags) {
  if ((flags & RENAME_EXCHANGE) != 0) return -EINVAL;
  if ((flags & ~static_cast<unsigned int>(RENAME_NOREPLACE)) != 0) return -EINVAL;
  std::string source = RelativeOf(from);
  std::string target = RelativeOf(to);
  if (source.empty() || target.empty()) return -EBUSY;
  if ((flags & RENAME_NOREPLACE) != 0) {
    _FS_FILE_V2 existing;
    if (Info(target, &existing) == SUCCESS) return -EEXIST;
  }
  std::string parent, name;
  SplitRelative(target, &parent, &name);
  _FS_FILE_V2 file;
  file.name = name;
  char* message = nullptr;
  AERROR result =
      protocol_->Move(Protocol(source).c_str(), Protocol(parent).c_str(), &file, &message);
  FreeMessage(message);
  if (result != SUCCESS) return ErrnoOf(result);
  {
    // Open files follow their entry: a replaced target is gone, and the
    // source (with everything below it) lives under the new name.
    std::lock_guard<std::mutex> guard(registry_lock_);
    ForgetNodeLocked(target);
    std::vector<std::shared_ptr<Node>> moved;
    const std::string prefix = source + "/";
    for (auto it = nodes_.begin(); it != nodes_.end();) {
      if (it->first == source || it->first.compare(0, prefix.size(), prefix) == 0) {
        moved.push_back(it->second);
        it = nodes_.erase(it);
      } else {
        ++it;
      }
    }
    for (const std::shared_ptr<Node>& node : moved) {
      node->relative = target + node->relative.substr(source.size());
      auto& slot = nodes_[node->relative];
      if (slot) slot->unlinked = true;
      slot = node;
    }
  }
  ForgetCache(source);
  ForgetCache(target);
  return 0;
}

int MountFs::Utimens(const char* path, std::uint64_t fh, const struct timespec times[2]) {
  std::shared_ptr<Node> node;
  std::string relative;
  if (fh != 0) {
    node = NodeOf(fh);
    if (!node) return -EBADF;
    relative = RelativeOfNode(*node);
  } else {
    relative = RelativeOf(path);
    node = Find(relative);
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
  if (omit[0] || omit[1]) {
    struct stat st {};
    int error = GetAttr(relative.empty() ? "/" : ("/" + relative).c_str(), 0, &st);
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
  unsigned long long total = 0;
  unsigned long long used = 0;
  // The second figure is the space in use, although the interface calls it free.
  AERROR result = protocol_->GetQuota(&total, &used);
  if (result != SUCCESS) return ErrnoOf(result);
  *st = {};
  constexpr unsigned long kBlock = 4096;
  st->f_bsize = kBlock;
  st->f_frsize = kBlock;
  st->f_blocks = total / kBlock;
  unsigned long long available = total > used ? total - used : 0;
  st->f_bfree = available / kBlock;
  st->f_bavail = available / kBlock;
  st->f_namemax = 255;
  return 0;
}

int MountFs::Chmod(const char* path, std::uint64_t fh, mode_t mode) {
  struct stat st {};
  int error = GetAttr(path, fh, &st);
  if (error != 0) return error;
  if ((st.st_mode & 07777) == (mode & 07777)) return 0;
  return -ENOTSUP;
}

int MountFs::Chown(const char* path, std::uint64_t fh, uid_t uid, gid_t gid) {
  struct stat st {};
  int error = GetAttr(path, fh, &st);
  if (error != 0) return error;
  bool same_uid = uid == static_cast<uid_t>(-1) || uid == uid_;
  bool same_gid = gid == static_cast<gid_t>(-1) || gid == gid_;
  return same_uid && same_gid ? 0 : -EPERM;
}

}  // namespace plughost
