// Safe transfers for every front end: a file in the storage or on the local
// disk only ever holds its complete old content or the complete new one.
//
// The plug-in's Upload rewrites its target in place (it truncates first,
// keeps a partial file when cancelled and removes the file when it fails),
// so the host never uploads onto a final name: ReplaceFile uploads to a
// temporary name in the same storage directory and then moves it over the
// final name (the protocol's Move is a rename). DownloadFile does the same on
// the local side: an unnamed (O_TMPFILE) or temporary file in the destination
// directory, renamed into place once complete.
//
// Temporary names: ".NAME.plughost-XXXXXX.partial" (XXXXXX random letters
// and digits) for uploads in progress and ".NAME.plughost-XXXXXX.old" for the
// old version a replace keeps aside while a plug-in that cannot move over an
// existing name swaps the files. A killed process leaves at most such a
// file; FindTemporaryFiles and CleanupTemporaryFiles find and remove (or, for
// a ".old" whose final name is missing, restore) them.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/core/client.h"
#include "protocol/contract.h"

namespace plughost {

// --- temporary names -----------------------------------------------------------

enum class TemporaryKind {
  kNone,     // not a name of ours
  kPartial,  // ".NAME.plughost-XXXXXX.partial": an upload or download in progress
  kBackup,   // ".NAME.plughost-XXXXXX.old": an old version kept aside during a swap
};

// ".NAME.plughost-XXXXXX.partial" with six random characters [A-Za-z0-9].
// NAME is shortened (at a UTF-8 character boundary) so that the whole name
// stays within 255 bytes.
std::string TemporaryNameFor(const std::string& name);
// ".NAME.plughost-XXXXXX.old"; NAME is never shortened, so an empty result
// means the name is too long to keep an old version aside under.
std::string BackupNameFor(const std::string& name);
// True for names of either pattern (front ends hide them, cleanup finds them).
bool IsTemporaryName(std::string_view name);
TemporaryKind TemporaryKindOf(std::string_view name);
// NAME of a temporary name (possibly shortened for ".partial"); "" for other names.
std::string OriginalNameOf(std::string_view temporary);

// --- results ------------------------------------------------------------------------

enum class TransferStatus {
  kDone,       // the final name holds the complete new content
  kCancelled,  // stopped through the handle; the final name is untouched
  kFailed,     // failed; the final name is untouched (see kept_existing)
};

// --- atomic replace in the storage --------------------------------------------------

struct ReplaceRequest {
  std::string parent;          // protocol path of the storage directory
  std::string name;            // final name inside it (a plain name)
  ICacheIO* source = nullptr;  // the new content, served by position
  long long size = 0;          // bytes to take from `source`
  // Cancellation (state >= FS_HANDLE_STOP) and progress; a fresh handle when
  // null. Handed to the plug-in's Upload as is.
  std::shared_ptr<_FS_HANDLE> handle;
  UPLOAD_FLAG flag = UPLOAD_FLAG_NONE;
  // The local directory the plug-in serves (LocalRootFor) when it serves
  // one, "" otherwise. With it a failure is told apart as lack of space
  // (statvfs), and a replaced file keeps its owner and permission bits.
  std::string local_root;
  // With local_root: fsync the new file before the rename and its directory
  // after, so that a crash cannot leave the name with neither version on a
  // file system that does not order a rename after the data. Off by
  // default (a mount closing many small files syncs when asked to).
  bool sync = false;
};

struct ReplaceResult {
  TransferStatus status = TransferStatus::kFailed;
  // SUCCESS when done; UPLOAD_CANCELED when cancelled; otherwise the code of
  // the step that failed.
  AERROR code = SUCCESS;
  // The failing step: "check", "upload", "mode", "sync", "move", "replace".
  std::string step;
  std::string message;         // the plug-in's text for it, if any
  bool existed = false;        // a file of that name was there before
  bool kept_existing = false;  // not done, and that file is still in place, unchanged
  bool source_failed = false;  // the source refused a request (ReadCache non-zero)
  bool out_of_space = false;   // the storage ran out of space (known via local_root)
  bool is_directory = false;   // refused: the final name is a directory
  // Why it failed, for people: "failed for lack of space on the storage",
  // "failed: reading the source failed", "failed: <the plug-in's error>".
  std::string reason;
  // A temporary (protocol path) that could not be removed, "" if none.
  std::string leftover;
  // Where the old file is when a failed swap could not move it back to its
  // name (protocol path of its ".old" name), "" otherwise.
  std::string old_kept_at;
  // When done: the record Move returned for the final name.
  _FS_FILE_V2 file;
  // Done, but the directory could not be synced after the rename (a crash
  // could still bring the old version back): "cannot sync the directory
  // DIR: <strerror>"; "" otherwise.
  std::string warning;

  bool ok() const noexcept { return status == TransferStatus::kDone; }
  // For people, without the operation and path: "created", "replaced",
  // "cancelled; the existing file was kept", "failed for lack of space on
  // the storage; the existing file was kept".
  std::string Describe() const;
};

// Uploads `request.size` bytes from `request.source` to a temporary name in
// `request.parent` and moves it over `request.name`. On cancel or failure the
// temporary file is removed and the old file, if any, is left as it was.
// Concurrent replaces of one name: each rename is atomic, so the last one to
// complete wins and the name never holds a mix.
//
// A plug-in whose Move refuses an existing target: the old file is moved
// aside to BackupNameFor(name), the new one moved in, the old one deleted.
// Between the two moves the final name is briefly missing (its old content
// sits under the ".old" name); if the second move fails the old file is
// moved back. Never throws for plug-in failures; may throw std::bad_alloc.
ReplaceResult ReplaceFile(Client& client, const ReplaceRequest& request);

// --- atomic download to the local disk ------------------------------------------------

struct DownloadRequest {
  std::string path;        // protocol path of the storage file
  long long size = 0;      // its size as the caller last saw it
  std::string local_path;  // destination file (not a directory)
  // Cancellation and progress, as for ReplaceFile. Progress reports
  // (size, bytes so far).
  std::shared_ptr<_FS_HANDLE> handle;
  // fsync the new file (and its directory after the rename). On by default:
  // a crash right after the rename must not leave an empty final name.
  bool sync = true;
  // Times the file is read again when it changed size while being read (a
  // concurrent replace in the storage); each read is one whole version.
  int attempts = 3;
  // A destination that is not a regular file (a device, a pipe), already
  // open for writing (before a confinement, say): written directly and
  // closed by DownloadFile. -1: open `local_path`.
  int device_fd = -1;
};

struct DownloadResult {
  TransferStatus status = TransferStatus::kFailed;
  AERROR code = SUCCESS;  // the plug-in's code when the read failed
  std::string message;    // the plug-in's text, if any
  int error = 0;          // errno of a local failure (ENOSPC, EACCES, ...)
  std::string what;       // the local step that failed: "open", "write", "rename", ...
  // Why it failed, for people: "failed for lack of space on the local disk",
  // "cannot write PATH: <strerror>", "failed: <the plug-in's error>".
  std::string reason;
  bool existed = false;        // a local file was at the destination before
  bool kept_existing = false;  // not done, and that file is untouched
  bool out_of_space = false;   // the local file system ran out of space
  bool changed = false;        // failed because the file kept changing while read
  // The destination was not a regular file (a device, a FIFO): written
  // directly, as cp does; there is no old content to keep there.
  bool in_place = false;
  long long bytes = 0;     // bytes of the version written
  std::string local_path;  // the file written (a symbolic link resolved)
  // Done, but the directory could not be synced after the rename: "cannot
  // sync the directory DIR: <strerror>"; "" otherwise.
  std::string warning;

  bool ok() const noexcept { return status == TransferStatus::kDone; }
  std::string Describe() const;
};

// Reads the storage file into a new local file in the destination's
// directory (O_TMPFILE, named with linkat only once complete; a temporary
// name where the file system has no O_TMPFILE) and renames it over
// `local_path`. On cancel or failure nothing partial remains and an existing
// file is untouched. A replaced file keeps its permission bits (and its
// owner where the process may set it); hard links to it keep the old content,
// as with rsync. A symbolic link at the destination is followed. Checks the
// length of the version read: a file that changed size while being read is
// read again (`attempts`). Never throws for plug-in or file-system failures.
DownloadResult DownloadFile(Client& client, const DownloadRequest& request);

// --- same file --------------------------------------------------------------------------

// True when both local paths exist and are one file (same device and inode,
// which covers hard links), as cp's "are the same file" check. With the
// storage's local root, the storage side of a transfer is local_root joined
// with its relative path.
bool SameLocalFile(const std::string& a, const std::string& b);

// The local directory a plug-in serves, for the checks above and for
// telling lack of space apart: `root_id` (the root's identifier) when it
// names an existing local directory that is `root_path` (the "root_path"
// option the host set), "" otherwise (a plug-in whose paths are not local).
std::string LocalRootFor(const std::string& root_id, const std::string& root_path);

// --- space ------------------------------------------------------------------------------

// Bytes this process may still write on the file system holding `path`
// (statvfs; the root's reserve counts for root); nothing when unknown.
std::optional<unsigned long long> FreeBytes(const std::string& path);

// --- stale temporary files ----------------------------------------------------------------

struct TemporaryFile {
  std::string path;      // protocol path
  std::string relative;  // path relative to the searched directory's `relative`
  std::string name;      // the temporary name
  TemporaryKind kind = TemporaryKind::kNone;
  long long size = 0;
  std::string modify_time;  // as the plug-in reports it
};

// Lists `directory` (a protocol path) and its subdirectories through the
// protocol and returns every entry with a temporary name, sorted by path.
// `relative` is the directory's path as shown to the user ("" for the root);
// results' `relative` extend it. Directories deeper than `max_depth` are not
// entered (a plug-in that follows symbolic links could loop). Throws
// ProtocolError when `directory` itself cannot be listed; subdirectories that
// vanish meanwhile are skipped.
std::vector<TemporaryFile> FindTemporaryFiles(Client& client, const std::string& directory,
                                              const std::string& relative = {}, int max_depth = 64);

enum class CleanupAction {
  kRemoved,        // a stale ".partial" (or a ".old" whose final name exists) removed
  kRestored,       // a ".old" moved back to its final name, which was missing
  kSkippedRecent,  // modified within min_age_seconds: may belong to a running transfer
  kFailed,         // the plug-in refused; see detail
};

struct CleanupOptions {
  bool dry_run = false;  // report what would be done, change nothing
  // Files modified more recently than this are left alone: a transfer in
  // progress writes its temporary file at least once per chunk.
  long long min_age_seconds = 60;
  std::time_t now = 0;  // 0: the current time
};

struct CleanupEntry {
  TemporaryFile file;
  CleanupAction action = CleanupAction::kFailed;
  std::string detail;  // for kFailed: the reason; for kRestored: the final name
};

// Removes (or restores, see CleanupAction) each file found by
// FindTemporaryFiles. With dry_run the actions are the ones that would be
// taken. Never throws for plug-in failures.
std::vector<CleanupEntry> CleanupTemporaryFiles(Client& client,
                                                const std::vector<TemporaryFile>& files,
                                                const CleanupOptions& options = {});

// The age of a file from the plug-in's modify_time text ("YYYY-MM-DDThh:mm:ss",
// local wall-clock fields); nothing when the text cannot be read.
std::optional<long long> AgeSeconds(const std::string& modify_time, std::time_t now);

}  // namespace plughost
