// Small pieces of the file-system bridge that need no kernel: errors and
// attributes between the protocol and POSIX, and reading the mount table. Kept apart so that they
// can be tested without /dev/fuse.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/contract.h"

namespace plughost {

// The negative errno for a protocol result, as ConvertAERROR maps it
// (SUCCESS 0, FILE_NOT_FOUND -ENOENT, ACCESS_DENIED/SHARING_VIOLATION -EACCES,
// anything else -EIO).
int ErrnoOf(AERROR code);

// Who owns the entries of a mount and which permission bits they show. The
// protocol stores neither, so they are the mount's choice: by default the
// mounting user, files 0600 and directories 0700.
struct Ownership {
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t file_mode = 0600;
  mode_t dir_mode = 0700;
};

// Whether the kernel must check the modes the mount shows
// (default_permissions). Without --allow-other only processes of the mounting
// user reach the mount at all; when the shown owner is that user and the modes
// give it everything a local owner has (or the mounting user is root, whom
// modes do not stop), the kernel's checks could only agree. They are left out
// then because they cost a request per change: the kernel forgets a
// directory's attributes whenever an entry is made or removed in it, and the
// next check has to ask for them again.
bool KernelChecksModes(const Ownership& owner, bool allow_other, uid_t mounter);

// Whether a handle opened with `flags` bypasses the kernel's page cache
// (direct_io): a write-only one does, since the staging file holds what it
// writes already and a second copy in the kernel's pages cost a copy and a
// page per byte. Such a handle can neither read nor be mapped, and the kernel
// drops the pages other handles hold for a range written this way. Not with
// the writeback cache, whose point is that the kernel gathers small writes.
bool BypassesPageCache(int flags, bool writeback_cache);

// Whether the kernel, speaking FUSE protocol 7.`proto_minor`, drops the pages
// other handles hold for a range written by a handle that bypasses the page
// cache. From 7.39 (Linux 6.6) it does; before, cached readers and mappings
// would keep the old bytes, so no handle bypasses the cache there.
bool KernelDropsPagesOnDirectWrites(unsigned proto_minor);

// Who asks, for the checks the mount makes itself when the kernel does not.
struct Caller {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary groups
  // False when they could not be read (the confined mount may not read
  // other processes' /proc entries): group membership is then given the
  // benefit of the doubt, since a refusal would break cp -a and rsync -a.
  bool groups_known = true;
};

// access(2) on an entry with the shown attributes `st`, by the kernel's own
// rules: root may do anything except execute a file without any x bit;
// others get the owner's, the group's or everyone's bits. 0 or -EACCES.
int AccessFor(const struct stat& st, int mask, const Caller& caller);

// chown(2) by the kernel's rules: only root gives a file away or moves it to
// a group it is not in (unknown groups count as its own). 0 or -EPERM.
int ChownAllowed(const struct stat& st, uid_t uid, gid_t gid, const Caller& caller);

// The block size the mount reports: copy tools size their buffers and the
// growth of sparse files by it, so it is the page size, not a transfer size.
inline constexpr long kReportedBlockSize = 4096;

// Fills a stat record from a protocol record: a directory or (anything else)
// a regular file with the modes and owners of `owner`, times from the
// record's wall-clock texts.
void FillStat(const _FS_FILE_V2& file, const Ownership& owner, struct stat* st);
// The same without the times: type, modes, owners, size and blocks.
void FillStatShape(bool directory, long long size, const Ownership& owner, struct stat* st);

// What is mounted at an absolute path, from /proc/self/mountinfo.
struct MountEntry {
  long id = -1;  // the mount's ID, unique while it is mounted
  std::string mount_point;
  std::string fs_type;  // "fuse.localdisk", "ext4", ...
  std::string source;
};
std::optional<MountEntry> FindMount(const std::string& absolute_path,
                                    const std::string& mountinfo = "/proc/self/mountinfo");

// Decodes the octal escapes (\040 for a blank) of a mountinfo field.
std::string UnescapeMountField(std::string_view field);

// An absolute form of `path` without resolving a last component that cannot
// be examined (a dead mount answers ENOTCONN): realpath when possible, else
// the current directory joined with the path.
std::string AbsolutePath(const std::string& path);

}  // namespace plughost
