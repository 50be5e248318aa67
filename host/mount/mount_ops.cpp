// The libfuse operations table: each operation is one MountFs call, wrapped
// so that no exception reaches libfuse (C).
#define FUSE_USE_VERSION 35

#include "host/mount/mount_ops.h"

#include <fuse3/fuse.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "host/mount/mount_fs.h"

namespace plughost {

namespace {

KernelContext* Context() {
  return static_cast<KernelContext*>(fuse_get_context()->private_data);
}

MountFs* Fs() {
  return Context()->fs;
}

// No exception may cross into libfuse (C).
template <typename F>
auto Guard(F&& f) noexcept -> decltype(f()) {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  } catch (...) {
    return -EIO;
  }
}

std::uint64_t FhOf(const fuse_file_info* fi) {
  return fi != nullptr ? fi->fh : 0;
}

// Whether a new handle bypasses the page cache (BypassesPageCache), on a
// kernel that keeps the other handles' pages right when it does.
unsigned DirectIo(int flags) {
  const KernelTuning& tuning = Context()->tuning;
  return tuning.direct_writes_coherent && BypassesPageCache(flags, tuning.writeback_cache) ? 1 : 0;
}

// --- operations ---------------------------------------------------------------

void* OpInit(fuse_conn_info* conn, fuse_config* cfg) {
  KernelTuning& tuning = Context()->tuning;
  tuning.direct_writes_coherent = KernelDropsPagesOnDirectWrites(conn->proto_minor);
  conn->max_read = tuning.transfer_size;
  conn->max_write = tuning.transfer_size;
  conn->max_readahead = tuning.transfer_size;
  conn->max_background = 64;
  conn->congestion_threshold = 48;
  if ((conn->capable & FUSE_CAP_READDIRPLUS) != 0) {
    // Always hand the attributes along with a listing: ls -l and find then
    // need no lookup per entry.
    conn->want |= FUSE_CAP_READDIRPLUS;
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
  }
  // The kernel gathers writes into pages and hands them over in large
  // requests; the staging file absorbs them. Flush and fsync write the pages
  // back before they reach the mount, so uploads see every byte.
  if (tuning.writeback_cache && (conn->capable & FUSE_CAP_WRITEBACK_CACHE) != 0) {
    conn->want |= FUSE_CAP_WRITEBACK_CACHE;
  } else {
    conn->want &= ~FUSE_CAP_WRITEBACK_CACHE;
  }

  cfg->entry_timeout = tuning.attr_timeout;
  cfg->attr_timeout = tuning.attr_timeout;
  cfg->negative_timeout = 0;
  // A removed or replaced open file is moved aside to a hidden name and
  // deleted at its last close: reads, fstat and fchmod keep working on it,
  // as on a local disk. Handle operations need no path.
  cfg->hard_remove = 0;
  cfg->nullpath_ok = 1;
  cfg->use_ino = 0;
  cfg->no_rofd_flush = 1;
  cfg->kernel_cache = 0;
  cfg->auto_cache = 0;
  cfg->direct_io = 0;
  return fuse_get_context()->private_data;
}

int OpGetattr(const char* path, struct stat* st, fuse_file_info* fi) {
  return Guard([&] { return Fs()->GetAttr(path, FhOf(fi), st); });
}

int OpMkdir(const char* path, mode_t) {
  return Guard([&] { return Fs()->Mkdir(path); });
}

int OpMknod(const char*, mode_t, dev_t) {
  return -EPERM;
}
int OpSymlink(const char*, const char*) {
  return -EPERM;
}
int OpLink(const char*, const char*) {
  return -EPERM;
}

int OpUnlink(const char* path) {
  return Guard([&] { return Fs()->Unlink(path); });
}

int OpRmdir(const char* path) {
  return Guard([&] { return Fs()->Rmdir(path); });
}

int OpRename(const char* from, const char* to, unsigned int flags) {
  return Guard([&] { return Fs()->Rename(from, to, flags); });
}

int OpChmod(const char* path, mode_t mode, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Chmod(path, FhOf(fi), mode); });
}

// The process behind the request being served.
Caller CurrentCaller() {
  const fuse_context* context = fuse_get_context();
  Caller caller;
  caller.uid = context->uid;
  caller.gid = context->gid;
  gid_t groups[64];
  int count = fuse_getgroups(64, groups);
  if (count > 64) {
    caller.groups.resize(static_cast<std::size_t>(count));
    count = fuse_getgroups(count, caller.groups.data());
    caller.groups.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  } else if (count > 0) {
    caller.groups.assign(groups, groups + count);
  }
  caller.groups_known = count >= 0;
  return caller;
}

int OpChown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Chown(path, FhOf(fi), uid, gid, CurrentCaller()); });
}

int OpAccess(const char* path, int mask) {
  return Guard([&] { return Fs()->Access(path, mask, CurrentCaller()); });
}

int OpTruncate(const char* path, off_t size, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Truncate(path, FhOf(fi), size); });
}

int OpOpen(const char* path, fuse_file_info* fi) {
  return Guard([&] {
    bool keep_cache = false;
    std::uint64_t fh = 0;
    int error = Fs()->Open(path, fi->flags, &fh, &keep_cache);
    if (error != 0) return error;
    fi->fh = fh;
    fi->keep_cache = keep_cache ? 1 : 0;
    fi->direct_io = DirectIo(fi->flags);
    return 0;
  });
}

int OpCreate(const char* path, mode_t, fuse_file_info* fi) {
  return Guard([&] {
    std::uint64_t fh = 0;
    int error = Fs()->Create(path, fi->flags, &fh);
    if (error != 0) return error;
    fi->fh = fh;
    fi->direct_io = DirectIo(fi->flags);
    return 0;
  });
}

int OpRead(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
  return Guard([&] { return static_cast<int>(Fs()->Read(fi->fh, buffer, size, offset)); });
}

int OpWrite(const char*, const char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
  return Guard([&] { return static_cast<int>(Fs()->Write(fi->fh, buffer, size, offset)); });
}

int OpStatfs(const char*, struct statvfs* st) {
  return Guard([&] { return Fs()->Statfs(st); });
}

int OpFlush(const char*, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Flush(fi->fh); });
}

int OpRelease(const char*, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Release(fi->fh); });
}

int OpFsync(const char*, int, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Fsync(fi->fh); });
}

// Extended attributes: ENOSYS once, and the kernel stops asking.
int OpSetxattr(const char*, const char*, const char*, size_t, int) {
  return -ENOSYS;
}
int OpGetxattr(const char*, const char*, char*, size_t) {
  return -ENOSYS;
}
int OpListxattr(const char*, char*, size_t) {
  return -ENOSYS;
}
int OpRemovexattr(const char*, const char*) {
  return -ENOSYS;
}

struct DirHandle {
  std::string path;
  bool listed = false;
  std::vector<DirEntry> entries;
};

// Directory handles pass between the kernel's threads; the lock makes that
// hand-over visible to thread checkers (and costs nothing measurable).
std::mutex dir_handles_lock;

int OpOpendir(const char* path, fuse_file_info* fi) {
  return Guard([&] {
    // Listed at the first read: when the kernel still holds the listing it
    // never asks, and the storage is not listed for nothing.
    auto handle = std::make_unique<DirHandle>();
    handle->path = path != nullptr ? path : "/";
    std::lock_guard<std::mutex> guard(dir_handles_lock);
    fi->fh = reinterpret_cast<std::uint64_t>(handle.release());
    // The kernel keeps the listing until the directory changes.
    fi->cache_readdir = 1;
    fi->keep_cache = 1;
    return 0;
  });
}

int OpReaddir(const char*, void* buffer, fuse_fill_dir_t fill, off_t offset, fuse_file_info* fi,
              fuse_readdir_flags flags) {
  return Guard([&] {
    std::lock_guard<std::mutex> guard(dir_handles_lock);
    auto* handle = reinterpret_cast<DirHandle*>(fi->fh);
    if (!handle->listed || offset == 0) {
      int error = Fs()->ListDir(handle->path.c_str(), &handle->entries);
      if (error != 0) return error;
      handle->listed = true;
    }
    // Each entry carries its position + 1 as its offset: the bridge then
    // hands entries and attributes straight to the kernel, which keeps them
    // (no lookup per entry after a listing).
    auto plus =
        (flags & FUSE_READDIR_PLUS) != 0 ? FUSE_FILL_DIR_PLUS : static_cast<fuse_fill_dir_flags>(0);
    struct stat dir {};
    dir.st_mode = S_IFDIR;
    const off_t total = static_cast<off_t>(handle->entries.size()) + 2;
    for (off_t i = offset; i < total; ++i) {
      if (i < 2) {
        if (fill(buffer, i == 0 ? "." : "..", &dir, i + 1, static_cast<fuse_fill_dir_flags>(0)) !=
            0) {
          break;
        }
        continue;
      }
      const DirEntry& entry = handle->entries[static_cast<std::size_t>(i - 2)];
      if (fill(buffer, entry.name.c_str(), &entry.st, i + 1, plus) != 0) break;
    }
    return 0;
  });
}

int OpReleasedir(const char*, fuse_file_info* fi) {
  std::lock_guard<std::mutex> guard(dir_handles_lock);
  delete reinterpret_cast<DirHandle*>(fi->fh);
  return 0;
}

int OpUtimens(const char* path, const struct timespec times[2], fuse_file_info* fi) {
  return Guard([&] { return Fs()->Utimens(path, FhOf(fi), times); });
}

fuse_operations MakeOperations() {
  fuse_operations ops{};
  ops.init = OpInit;
  ops.getattr = OpGetattr;
  ops.mknod = OpMknod;
  ops.mkdir = OpMkdir;
  ops.unlink = OpUnlink;
  ops.rmdir = OpRmdir;
  ops.symlink = OpSymlink;
  ops.rename = OpRename;
  ops.link = OpLink;
  ops.chmod = OpChmod;
  ops.chown = OpChown;
  ops.truncate = OpTruncate;
  ops.open = OpOpen;
  ops.read = OpRead;
  ops.write = OpWrite;
  ops.statfs = OpStatfs;
  ops.flush = OpFlush;
  ops.release = OpRelease;
  ops.fsync = OpFsync;
  ops.setxattr = OpSetxattr;
  ops.getxattr = OpGetxattr;
  ops.listxattr = OpListxattr;
  ops.removexattr = OpRemovexattr;
  ops.opendir = OpOpendir;
  ops.readdir = OpReaddir;
  ops.releasedir = OpReleasedir;
  ops.create = OpCreate;
  ops.utimens = OpUtimens;
  ops.access = OpAccess;
  return ops;
}

}  // namespace

const fuse_operations* Operations() {
  static const fuse_operations ops = MakeOperations();
  return &ops;
}

}  // namespace plughost
