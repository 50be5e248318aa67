#include "host/mount/staging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "host/core/adapters.h"
#include "host/core/paths.h"
#include "host/core/transfer.h"
#include "host/mount/mount_support.h"

namespace plughost {

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

bool IsKernelHiddenName(const std::string& name) {
  return name.compare(0, 12, ".fuse_hidden") == 0;
}

bool IsTemporaryEntryName(const std::string& name) {
  return IsTemporaryName(name) || IsKernelHiddenName(name);
}

Staging::Staging(Client& client, std::string cache_dir, std::string local_root)
    : client_(client), cache_dir_(std::move(cache_dir)), local_root_(std::move(local_root)) {}

int Staging::MakeFile() const {
  int fd = open(cache_dir_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  // File systems without anonymous files: a named one, unlinked at once.
  std::string pattern = cache_dir_ + "/staging.XXXXXX";
  fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) return -errno;
  unlink(pattern.c_str());
  return fd;
}

int Staging::Fill(const std::string& path, long long want, int fd, long long* size) {
  *size = 0;
  if (want <= 0) return 0;
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
        *size = std::max(*size, offset + length);
      },
      handle);
  AERROR result = client_.Read(path, 0, want, handle, &sink, nullptr);
  if (write_error != 0) return write_error;
  if (result != SUCCESS && result != READ_CANCELED) return ErrnoOf(result);
  return 0;
}

int Staging::Upload(const std::string& parent, const std::string& name, int fd, long long size,
                    bool durable, const WriteBehindState* behind, _FS_FILE_V2* record) {
  long long dropped = 0;
  CacheAdapter cache(
      [fd, size, behind, &dropped](long long offset, char* buffer, long long capacity) {
        long long want = std::min(capacity, size - offset);
        if (want <= 0) return 0LL;
        if (behind != nullptr) {
          // What the plug-in has taken and the disk already holds: the stored
          // file's new pages can have its memory.
          long long clean = std::min(offset, behind->clean.load());
          if (clean - dropped >= WriteBehind::kStep) {
            DropCleanPages(fd, dropped, clean);
            dropped = clean;
          }
        }
        std::size_t done = 0;
        if (PreadAll(fd, buffer, static_cast<std::size_t>(want), offset, &done) != 0 || done == 0) {
          // A failed or empty read would otherwise make the upload spin.
          return -1LL;
        }
        return static_cast<long long>(done);
      });
  ReplaceRequest request;
  request.parent = parent;
  request.name = name;
  request.source = &cache;
  request.size = size;
  request.flag = UPLOAD_FLAG_OVERWRITE;
  request.local_root = local_root_;
  // Synced before the rename: syncing after it would leave a window in
  // which the old content is gone and the new one not yet on the disk.
  request.sync = durable;
  ReplaceResult result = ReplaceFile(client_, request);
  if (result.ok()) {
    *record = result.file;
    // The staged copy is not written back: it is an unlinked file whose
    // pages go at the last close, and writing them to the disk here made
    // fsync wait for a second file-sized write that nobody reads.
    return 0;
  }
  if (result.out_of_space) return -ENOSPC;
  if (result.is_directory) return -EISDIR;
  if (result.status == TransferStatus::kCancelled) return -EINTR;
  return result.code == SUCCESS ? -EIO : ErrnoOf(result.code);
}

namespace {

int SyncPath(const std::string& path, int flags) {
  int fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return -errno;
  int error = fsync(fd) == 0 ? 0 : -errno;
  close(fd);
  return error;
}

}  // namespace

int Staging::MakeDurable(const std::string& relative) const {
  if (local_root_.empty()) return 0;
  const std::string file = JoinProtocolPath(local_root_, relative);
  int error = SyncPath(file, O_RDONLY);
  if (error != 0) return error;
  // The rename that put the file in place lives in its directory.
  return SyncPath(JoinProtocolPath(local_root_, DirName(relative)), O_RDONLY | O_DIRECTORY);
}

std::string Staging::Keep(int fd, const std::string& relative) const {
  std::string name = BaseName(relative);
  if (name.empty()) name = "file";
  std::string path = cache_dir_ + "/" + name + ".unsaved-XXXXXX";
  int out = mkostemp(path.data(), O_CLOEXEC);
  if (out < 0) return {};
  struct stat st {};
  bool ok = fstat(fd, &st) == 0;
  off_t in_offset = 0;
  off_t remaining = ok ? st.st_size : 0;
  while (ok && remaining > 0) {
    ssize_t n =
        copy_file_range(fd, &in_offset, out, nullptr, static_cast<std::size_t>(remaining), 0);
    if (n <= 0) {
      ok = false;
      break;
    }
    remaining -= n;
  }
  if (ok) ok = fsync(out) == 0;
  close(out);
  if (!ok) {
    unlink(path.c_str());
    return {};
  }
  return path;
}

}  // namespace plughost
