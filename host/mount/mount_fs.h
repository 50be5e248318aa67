// The file system that a mount presents, on top of one protocol object.
//
// Every operation takes mount paths ("/", "/dir/file") or an open-file handle
// and returns 0 (or a byte count) on success and a negative errno on failure,
// exactly what the kernel bridge hands back; nothing here knows the kernel
// interface, so the whole behaviour can be exercised without /dev/fuse.
//
// The protocol has no partial writes: a file opened for writing is staged in
// an unlinked local cache file (filled with Read unless truncated), writes go
// there, and a flush, fsync or the last release of a dirty file uploads the
// whole file with Upload. Upload errors are returned by Flush/Fsync, which is
// where close() and fsync() of the application see them.
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
#include <unordered_set>
#include <utility>
#include <vector>

#include "protocol/contract.h"

namespace plughost {

struct DirEntry {
  std::string name;
  struct stat st {};
};

class MountFs {
 public:
  // `protocol` is not owned and must outlive this object; `root_id` is the
  // protocol path of the storage root (GetRootID); staging files go into the
  // existing directory `cache_dir`; entries are owned by uid/gid.
  MountFs(IProtocol_V2* protocol, std::string root_id, std::string cache_dir, uid_t uid, gid_t gid);
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
  // Creates an empty file (it exists on the storage once this returns) and
  // opens it for writing.
  int Create(const char* path, int flags, std::uint64_t* fh);
  // Bytes read (short at the end of the file) or a negative errno.
  long long Read(std::uint64_t fh, char* buffer, std::size_t size, off_t offset);
  long long Write(std::uint64_t fh, const char* buffer, std::size_t size, off_t offset);
  // Changes the size of `path` or of the open file `fh`.
  int Truncate(const char* path, std::uint64_t fh, off_t size);
  int Flush(std::uint64_t fh);
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
  // Modes and owners are fixed: a request that changes nothing succeeds,
  // anything else is refused (ENOTSUP for modes, EPERM for owners).
  int Chmod(const char* path, std::uint64_t fh, mode_t mode);
  int Chown(const char* path, std::uint64_t fh, uid_t uid, gid_t gid);

  // Number of files currently open (for tests and diagnostics).
  std::size_t OpenNodes() const;

 private:
  // The state of one open file, shared by all handles open on it.
  struct Node {
    ~Node();
    std::mutex lock;  // serialises staging, writes and uploads
    // Guarded by MountFs::registry_lock_.
    std::string relative;
    bool unlinked = false;
    int opens = 0;
    // Guarded by `lock`; the atomics are also read without it.
    int fd = -1;  // staging file, -1 while not staged
    std::atomic<bool> staged{false};
    std::atomic<bool> dirty{false};
    std::atomic<long long> size{0};
    std::atomic<time_t> written{0};  // time of the last local change
    // Times set while dirty, applied after the upload.
    std::atomic<bool> has_pending_times{false};
    std::atomic<time_t> pending_access{0};
    std::atomic<time_t> pending_modify{0};
  };
  struct Handle {
    std::shared_ptr<Node> node;
    bool writable = false;
  };
  struct CacheStamp {
    std::string modify_time;
    long long size = 0;
  };

  std::string Protocol(const std::string& relative) const;
  AERROR Info(const std::string& relative, _FS_FILE_V2* file);
  std::shared_ptr<Node> Acquire(const std::string& relative);
  void Drop(const std::shared_ptr<Node>& node);
  std::shared_ptr<Node> Find(const std::string& relative) const;
  // The entry at `relative` is gone from the storage: its open node must never
  // be uploaded again. registry_lock_ held.
  void ForgetNodeLocked(const std::string& relative);
  std::string RelativeOfNode(const Node& node) const;
  // Handles are looked up under a lock: the kernel hands one from the thread
  // that opened it to others, an ordering the thread checkers cannot see.
  std::uint64_t Register(std::unique_ptr<Handle> handle);
  std::shared_ptr<Node> NodeOf(std::uint64_t fh) const;

  // With node->lock held.
  int Stage(Node& node, long long keep);
  // Stages `node` empty and marks it changed (truncate, create); node.lock held.
  int StageEmpty(Node& node);
  int UploadLocked(Node& node);
  int SetTimes(const std::string& relative, time_t access, time_t modify);
  void OverlayStaged(const Node& node, struct stat* st) const;
  bool KeepCache(const std::string& relative, const _FS_FILE_V2& file);
  void ForgetCache(const std::string& relative);
  int MakeStagingFile();
  void FreeMessage(char* message);

  IProtocol_V2* protocol_;
  std::string root_id_;
  std::string cache_dir_;
  uid_t uid_;
  gid_t gid_;

  mutable std::mutex registry_lock_;
  std::unordered_map<std::string, std::shared_ptr<Node>> nodes_;
  std::atomic<std::size_t> open_nodes_{0};  // nodes_.size(), read without the lock

  mutable std::mutex handles_lock_;
  std::unordered_set<Handle*> handles_;

  std::mutex stamps_lock_;
  std::unordered_map<std::string, CacheStamp> stamps_;
};

}  // namespace plughost
