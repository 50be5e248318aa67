// Small pieces of the file-system bridge that need no kernel: error and time
// conversions between the protocol and POSIX, path mapping, and reading the
// mount table. Kept apart so that they can be tested without /dev/fuse.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/contract.h"

namespace plughost {

// The negative errno for a protocol result, as ConvertAERROR maps it
// (SUCCESS 0, FILE_NOT_FOUND -ENOENT, ACCESS_DENIED/SHARING_VIOLATION -EACCES,
// anything else -EIO).
int ErrnoOf(AERROR code);

// A file time of a record as an instant. The plug-in writes local wall-clock
// fields and RFC3339ToTM reads them back as local *standard* time, which is
// the real instant except during summer time; there the reading is shifted
// back so that the fields of the result are the fields of the text.
time_t InstantOfFileTime(const std::string& text);

// The text to hand to SetFileTime so that the plug-in (which reads it with
// RFC3339ToTM) sets exactly `t`.
std::string FileTimeOf(time_t t);

// The protocol path of a mount path ("/", "/a/b"): the root's identifier for
// "/", otherwise the identifier joined with the relative path.
std::string ProtocolPathOf(const std::string& root_id, std::string_view mount_path);

// "a/b" for "/a/b"; "" for "/".
std::string RelativeOf(std::string_view mount_path);

// Splits a relative path into its parent ("" for the root) and last name.
void SplitRelative(const std::string& relative, std::string* parent, std::string* name);

// Fills a stat record from a protocol record: directories 0755, everything
// else a regular file 0644, owned by uid/gid, times from the record's texts.
void FillStat(const _FS_FILE_V2& file, uid_t uid, gid_t gid, struct stat* st);

// What is mounted at an absolute path, from /proc/self/mountinfo.
struct MountEntry {
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
