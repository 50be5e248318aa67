// Staging: the protocol has no partial writes, so a file opened for writing
// is copied into an unlinked local file in the cache directory, changed
// there, and uploaded whole. The upload goes to a temporary name beside the
// file and is moved over it only when complete (ReplaceFile, transfer.h): a
// failed, cancelled or killed upload leaves the old content under the name.
#pragma once

#include <memory>
#include <string>

#include "host/core/client.h"
#include "host/mount/write_behind.h"
#include "protocol/contract.h"

namespace plughost {

class Staging {
 public:
  // `cache_dir` exists; `local_root` is the root directory when the plug-in
  // serves a local one (then fsync can make uploads durable), else empty.
  Staging(Client& client, std::string cache_dir, std::string local_root);

  // A new, empty, unlinked staging file; a negative errno on failure.
  int MakeFile() const;

  // Copies the first `want` bytes of the file at protocol path `path` into
  // `fd`; `*size` receives the bytes copied. 0 or a negative errno.
  int Fill(const std::string& path, long long want, int fd, long long* size);

  // Uploads `size` bytes of `fd` as `name` in the protocol directory
  // `parent` through a temporary name and a move over `name` (an empty file
  // is made in place: there is no partial state to hide). On success
  // `*record` is the record of the new file. With `durable` and a local
  // root, the new file is synced before the move and its directory after,
  // so that a crash leaves the old or the new content under `name`, never
  // an empty or short file. With `behind`, the clean pages of `fd` that
  // the upload has passed are dropped (write_behind.h). 0 or a negative
  // errno (ENOSPC when the local root has no room for it).
  int Upload(const std::string& parent, const std::string& name, int fd, long long size,
             bool durable, const WriteBehindState* behind, _FS_FILE_V2* record);

  // Makes a file uploaded earlier and its directory entry durable. Only
  // possible for a local root; for other plug-ins durability is theirs.
  // 0 or -errno.
  int MakeDurable(const std::string& relative) const;

  // Copies a staged file into the cache directory under a name that tells
  // what it was, for changes that could not be uploaded; the path, or empty.
  std::string Keep(int fd, const std::string& relative) const;

  const std::string& cache_dir() const noexcept { return cache_dir_; }
  const std::string& local_root() const noexcept { return local_root_; }

 private:
  Client& client_;
  std::string cache_dir_;
  std::string local_root_;
};

// Names the mount never lists: the temporary names of atomic replaces and of
// open files moved aside (IsTemporaryName, transfer.h), and the names the
// kernel bridge moves removed open files to (".fuse_hidden...").
bool IsTemporaryEntryName(const std::string& name);
// ".fuse_hidden...": an open file removed through the kernel, deleted by the
// bridge at its last close; its content is never uploaded again.
bool IsKernelHiddenName(const std::string& name);

// pread/pwrite until done or failed; 0 or a negative errno.
int PreadAll(int fd, char* buffer, std::size_t size, off_t offset, std::size_t* done);
int PwriteAll(int fd, const char* buffer, std::size_t size, off_t offset);

}  // namespace plughost
