// The file system that a mount presents, on top of core's Client.
//
// Every operation takes mount paths ("/", "/dir/file") or an open-file handle
// and returns 0 (or a byte count) on success and a negative errno on failure,
// exactly what the kernel bridge hands back; nothing here knows the kernel
// interface, so the whole behaviour can be exercised without /dev/fuse.
//
// The protocol has no partial writes: a file opened for writing is staged
// (staging.h), writes go there, and a flush, fsync or the last release of a
// dirty file uploads the whole file through an atomic replace. Upload errors
// are returned by Flush/Fsync, which is where close() and fsync() of the
// application see them. A created file exists only in the open-file table
// (a pending entry, listed and found like any other) until that upload.
//
// The implementation is split by concern: mount_fs.cpp (open files and
// data), mount_namespace.cpp (create, remove, rename), mount_attributes.cpp
// (attributes, listings, times, modes).
//
// Thread-safe: the kernel bridge calls from many threads at once.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/core/client.h"
#include "host/core/confine.h"
#include "host/mount/cache_stamps.h"
#include "host/mount/mount_support.h"
#include "host/mount/open_files.h"
#include "host/mount/staging.h"

namespace plughost {

struct DirEntry {
  std::string name;
  struct stat st {};
};

struct MountSettings {
  Ownership owner;
  // Refuse chmod and chown that cannot be stored instead of accepting them.
  bool strict_modes = false;
  // Make every upload at close durable, not only those of fsync.
  bool sync_on_close = false;
  // The root directory when the plug-in serves a local one ("root_path").
  std::string local_root;
  // Seconds a listing is answered from memory; every change made through
  // the mount drops the kept listings. 0: always ask the plug-in.
  double dir_cache_time = 0;
  // The kernel checks the shown modes (default_permissions); when it does
  // not, the mount answers access(2) and refuses chown as the kernel would.
  bool kernel_checks_modes = true;
};

// What the uploads at shutdown left behind.
struct ShutdownReport {
  int uploaded = 0;
  // "/relative" -> where its content was kept (empty: it could not be kept).
  std::vector<std::pair<std::string, std::string>> failed;
};

class MountFs {
 public:
  // `client` must outlive this object; `root_id` is the protocol path of the
  // storage root; staging files go into the existing directory `cache_dir`.
  MountFs(Client& client, std::string root_id, std::string cache_dir, MountSettings settings);
  ~MountFs();
  MountFs(const MountFs&) = delete;
  MountFs& operator=(const MountFs&) = delete;

  // Attributes of `path`, or of the open file `fh` when it is non-zero (then
  // `path` may be null: the file may have been renamed or removed since).
  int GetAttr(const char* path, std::uint64_t fh, struct stat* st);
  // All entries of a directory (without "." and ".."), with their attributes.
  int ListDir(const char* path, std::vector<DirEntry>* entries);

  // Opens an existing file. `keep_cache` tells whether the kernel may keep
  // the pages it cached at an earlier open (the file has not changed since).
  int Open(const char* path, int flags, std::uint64_t* fh, bool* keep_cache);
  // Creates an empty file, visible at once, uploaded at its first flush.
  int Create(const char* path, int flags, std::uint64_t* fh);
  // Bytes read (short at the end of the file) or a negative errno.
  long long Read(std::uint64_t fh, char* buffer, std::size_t size, off_t offset);
  long long Write(std::uint64_t fh, const char* buffer, std::size_t size, off_t offset);
  // Changes the size of `path` or of the open file `fh`.
  int Truncate(const char* path, std::uint64_t fh, off_t size);
  int Flush(std::uint64_t fh);
  // Uploads what is dirty and makes the file durable where the host can.
  int Fsync(std::uint64_t fh);
  // Uploads what is still dirty and closes the handle; the result only tells
  // whether that final upload worked (the kernel ignores it).
  int Release(std::uint64_t fh);

  int Mkdir(const char* path);
  int Unlink(const char* path);
  int Rmdir(const char* path);
  // flags: RENAME_NOREPLACE is honoured, RENAME_EXCHANGE refused (EINVAL).
  int Rename(const char* from, const char* to, unsigned int flags);
  // times[0] access, times[1] modification; UTIME_NOW and UTIME_OMIT allowed.
  int Utimens(const char* path, std::uint64_t fh, const struct timespec times[2]);
  int Statfs(struct statvfs* st);
  // Modes and owners cannot be stored: accepted without effect, or with
  // strict modes refused unless they change nothing (ENOTSUP for modes,
  // EPERM for owners).
  int Chmod(const char* path, std::uint64_t fh, mode_t mode);
  // `caller` matters only when the kernel leaves the checks to the mount
  // (kernel_checks_modes off): then it is refused what the kernel would
  // refuse (a root caller, the default, may do anything).
  int Chown(const char* path, std::uint64_t fh, uid_t uid, gid_t gid,
            const Caller& caller = Caller{});
  // access(2), asked only when the kernel does not check modes itself.
  int Access(const char* path, int mask, const Caller& caller);

  // Uploads every dirty open file (the end of the mount); what failed is
  // kept in the cache directory.
  ShutdownReport Shutdown();

  // Number of files currently open (for tests and diagnostics).
  std::size_t OpenNodes() const;
  // Waits until the staged data queued for the disk is there (for tests).
  void WaitForWriteBehind() { write_behind_.Drain(); }

 private:
  std::string Protocol(const std::string& relative) const;
  // The record of `relative`; 0 or a negative errno.
  int Info(const std::string& relative, _FS_FILE_V2* file);
  // The relative path of a kernel path; -ENAMETOOLONG for an overlong name.
  static int RelativeOf(const char* path, std::string* relative);
  // 0 when `relative` stays beneath a local root (no link leads out), else
  // -EACCES. For what the kernel's confinement does not cover: time changes,
  // and creates, which reach the storage only at the first flush.
  int Beneath(const std::string& relative) const;
  // Attributes of a file that exists only in the table.
  void PendingStat(const OpenNode& node, struct stat* st) const;
  void OverlayStaged(const OpenNode& node, struct stat* st) const;

  // With node.lock held.
  int Stage(OpenNode& node, long long keep);
  int StageEmpty(OpenNode& node);
  int UploadLocked(OpenNode& node, bool durable);
  int SetTimes(const std::string& relative, time_t access, time_t modify);
  // The last close of a node: upload, then remove an aside entry.
  int Close(const std::shared_ptr<OpenNode>& node);
  // Moves an open, unstaged entry aside so that it stays readable after
  // `relative` is removed or replaced. 0 or a negative errno.
  int HideOpen(const std::string& relative);

  // Listings kept for dir_cache_time (without the open files' overlay).
  bool CachedListing(const std::string& relative, std::vector<DirEntry>* entries);
  void KeepListing(const std::string& relative, std::uint64_t generation,
                   const std::vector<DirEntry>& entries);
  // Something changed through the mount: no kept listing is valid any more.
  void Changed() { generation_.fetch_add(1); }

  struct Listing {
    std::uint64_t generation = 0;
    double loaded = 0;  // monotonic seconds
    std::vector<DirEntry> entries;
  };
  // The record an upload returned: the kernel asks for the file's
  // attributes right after its close, and they are known.
  void KeepRecord(const std::string& relative, const _FS_FILE_V2& record);
  bool FreshRecord(const std::string& relative, _FS_FILE_V2* record);
  struct Record {
    std::uint64_t generation = 0;
    double made = 0;
    _FS_FILE_V2 file;
  };
  std::unordered_map<std::string, Record> records_;  // guarded by listings_lock_

  Client& client_;
  std::string root_id_;
  std::mutex listings_lock_;
  std::unordered_map<std::string, Listing> listings_;
  std::atomic<std::uint64_t> generation_{0};
  MountSettings settings_;
  Staging staging_;
  std::unique_ptr<BeneathChecker> beneath_;  // null when the plug-in serves no local root
  OpenFiles open_;
  CacheStamps stamps_;
  // Last: its thread stops before the open files go.
  WriteBehind write_behind_;
};

}  // namespace plughost
