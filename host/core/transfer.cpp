#include "host/core/transfer.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>

#include "host/core/paths.h"
#include "host/core/transfer_internal.h"

namespace plughost {

namespace transfer_internal {

std::string Join(const std::string& parent, const std::string& name) {
  return JoinProtocolPath(parent, name);
}

std::string ParentOf(const std::string& path, const std::string& name) {
  if (path.size() <= name.size()) return "/";
  std::string parent = path.substr(0, path.size() - name.size());
  while (parent.size() > 1 && parent.back() == '/')
    parent.pop_back();
  return parent;
}

bool Stopped(const _FS_HANDLE& handle) {
  return handle.state.load() >= FS_HANDLE_STOP;
}

std::string DescribeError(Client& client, const ProtocolError& error) {
  std::string text = DescribeAERROR(error.code(), client.ErrorName(error.code())) + " (" +
                     client.ErrorName(error.code()) + ")";
  if (!error.message().empty()) text += ": " + error.message();
  return text;
}

std::string DescribeCode(Client& client, AERROR code, const std::string& message) {
  std::string name = client.ErrorName(code);
  std::string text = DescribeAERROR(code, name) + " (" + name + ")";
  if (!message.empty()) text += ": " + message;
  return text;
}

std::optional<_FS_FILE_V2> Existing(Client& client, const std::string& path) {
  // Most uploads make a new file: "not found" is the common answer here.
  _FS_FILE_V2 file;
  AERROR code = client.TryInfo(path, &file);
  if (code == FILE_NOT_FOUND) return std::nullopt;
  if (code != SUCCESS) return client.Info(path, {"check", path});  // throws with the message
  return file;
}

std::string DescribeOutcome(TransferStatus status, bool existed, const std::string& reason,
                            const std::string& kept) {
  switch (status) {
    case TransferStatus::kDone:
      return existed ? "replaced" : "created";
    case TransferStatus::kCancelled:
      return "cancelled" + kept;
    case TransferStatus::kFailed:
      break;
  }
  return (reason.empty() ? std::string("failed") : reason) + kept;
}

}  // namespace transfer_internal

using namespace transfer_internal;

namespace {

constexpr std::string_view kMarker = ".plughost-";
constexpr std::string_view kPartialSuffix = ".partial";
constexpr std::string_view kBackupSuffix = ".old";
constexpr size_t kRandomLength = 6;
constexpr size_t kMaxName = 255;
// Where the storage has less than this left while an upload runs, a failure
// of that upload is put down to lack of space.
constexpr unsigned long long kNearlyFull = 2 * 524288;

std::string RandomSuffix() {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char bytes[kRandomLength];
  size_t got = 0;
  while (got < sizeof bytes) {
    ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  if (got < sizeof bytes) {
    std::random_device device;
    for (unsigned char& byte : bytes)
      byte = static_cast<unsigned char>(device());
  }
  std::string out;
  for (unsigned char byte : bytes)
    out += kAlphabet[byte % (sizeof kAlphabet - 1)];
  return out;
}

bool IsAlnum(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// Splits a temporary name into its NAME part and kind.
TemporaryKind Parse(std::string_view name, std::string_view* original) {
  TemporaryKind kind = TemporaryKind::kNone;
  std::string_view rest = name;
  auto ends_with = [&](std::string_view suffix) {
    return rest.size() >= suffix.size() && rest.substr(rest.size() - suffix.size()) == suffix;
  };
  if (ends_with(kPartialSuffix)) {
    kind = TemporaryKind::kPartial;
    rest.remove_suffix(kPartialSuffix.size());
  } else if (ends_with(kBackupSuffix)) {
    kind = TemporaryKind::kBackup;
    rest.remove_suffix(kBackupSuffix.size());
  } else {
    return TemporaryKind::kNone;
  }
  if (rest.size() < 2 + kMarker.size() + kRandomLength || rest.front() != '.') {
    return TemporaryKind::kNone;
  }
  std::string_view random = rest.substr(rest.size() - kRandomLength);
  if (!std::all_of(random.begin(), random.end(), IsAlnum)) return TemporaryKind::kNone;
  rest.remove_suffix(kRandomLength);
  if (!ends_with(kMarker)) return TemporaryKind::kNone;
  rest.remove_suffix(kMarker.size());
  rest.remove_prefix(1);
  if (rest.empty() || rest.find('/') != std::string_view::npos) return TemporaryKind::kNone;
  if (original != nullptr) *original = rest;
  return kind;
}

std::string Decorate(std::string_view name, std::string_view suffix) {
  std::string out = ".";
  out += name;
  out += kMarker;
  out += RandomSuffix();
  out += suffix;
  return out;
}

// Passes the plug-in's requests on to the real source, noting a refusal and
// the least free space seen on the storage while the upload ran.
class WatchedSource final : public ICacheIO {
 public:
  WatchedSource(ICacheIO* inner, std::string local_root)
      : inner_(inner), local_root_(std::move(local_root)) {}

  AERROR ReadCache(_FS_CACHE_READ* request) override {
    Sample();
    AERROR code = inner_ != nullptr ? inner_->ReadCache(request) : FAILED;
    if (code != SUCCESS) failed_ = true;
    return code;
  }

  void Sample() {
    if (local_root_.empty()) return;
    std::optional<unsigned long long> free = FreeBytes(local_root_);
    if (free && (!least_free_ || *free < *least_free_)) least_free_ = free;
  }

  bool failed() const noexcept { return failed_; }
  std::optional<unsigned long long> least_free() const noexcept { return least_free_; }

 private:
  ICacheIO* inner_;
  std::string local_root_;
  bool failed_ = false;
  std::optional<unsigned long long> least_free_;
};

// Removes a temporary file of ours; a file that is already gone is fine.
// Returns false when it is still there.
bool RemoveQuietly(Client& client, const std::string& path) {
  try {
    client.Delete(path, {"remove", path});
    return true;
  } catch (const ProtocolError& error) {
    if (error.code() == FILE_NOT_FOUND) return true;
  } catch (const std::exception&) {
  }
  try {
    client.Info(path, {"check", path});
  } catch (const ProtocolError& error) {
    return error.code() == FILE_NOT_FOUND;
  } catch (const std::exception&) {
  }
  return false;
}

// fsync of a local file or directory; false with errno set when it fails.
bool SyncLocal(const std::string& path, int flags) {
  int fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  int error = errno;
  close(fd);
  errno = error;
  return ok;
}

// Where the storage is a local directory (its protocol paths are local
// paths): creates the temporary file first with the owner and permission
// bits of the file it will replace, so that the new content is never more
// exposed than the old and the replaced file keeps its mode. The plug-in's
// Upload then rewrites that empty file in place (truncating keeps its mode).
// Returns the final mode, or nothing when the file could not be prepared.
std::optional<mode_t> PrepareLocalTemporary(const std::string& final_path,
                                            const std::string& parent, const std::string& name,
                                            std::string* temporary) {
  struct stat st {};
  if (stat(final_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  const mode_t mode = st.st_mode & 07777;
  for (int attempt = 0; attempt < 16; ++attempt) {
    const std::string path = Join(parent, *temporary);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
      if (st.st_uid != geteuid() || st.st_gid != getegid()) {
        if (fchown(fd, st.st_uid, st.st_gid) != 0) {
          // Not allowed: the new file belongs to this user, as any new file would.
        }
      }
      // Writable by its owner while it is written; the final bits are
      // checked, and set where they differ, once the content is in.
      if (fchmod(fd, mode | S_IWUSR) != 0) {
        // Left 0600: never more exposed than the old file meanwhile.
      }
      close(fd);
      return mode;
    }
    if (errno != EEXIST) return std::nullopt;
    *temporary = TemporaryNameFor(name);
  }
  return std::nullopt;
}

}  // namespace

// --- temporary names -----------------------------------------------------------

std::string TemporaryNameFor(const std::string& name) {
  const size_t room = kMaxName - 1 - kMarker.size() - kRandomLength - kPartialSuffix.size();
  size_t keep = std::min(name.size(), room);
  // Never cut a UTF-8 sequence in two.
  while (keep > 0 && keep < name.size() && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80)
    --keep;
  return Decorate(std::string_view(name).substr(0, keep), kPartialSuffix);
}

std::string BackupNameFor(const std::string& name) {
  if (1 + name.size() + kMarker.size() + kRandomLength + kBackupSuffix.size() > kMaxName) return {};
  return Decorate(name, kBackupSuffix);
}

bool IsTemporaryName(std::string_view name) {
  return Parse(name, nullptr) != TemporaryKind::kNone;
}

TemporaryKind TemporaryKindOf(std::string_view name) {
  return Parse(name, nullptr);
}

std::string OriginalNameOf(std::string_view temporary) {
  std::string_view original;
  if (Parse(temporary, &original) == TemporaryKind::kNone) return {};
  return std::string(original);
}

// --- space and identity ----------------------------------------------------------

std::optional<unsigned long long> FreeBytes(const std::string& path) {
  struct statvfs vfs {};
  if (path.empty() || statvfs(path.c_str(), &vfs) != 0) return std::nullopt;
  unsigned long long blocks = geteuid() == 0 ? vfs.f_bfree : vfs.f_bavail;
  // No inode left is as full as no block left.
  if (vfs.f_files > 0 && (geteuid() == 0 ? vfs.f_ffree : vfs.f_favail) == 0) return 0;
  return blocks * static_cast<unsigned long long>(vfs.f_frsize);
}

bool SameLocalFile(const std::string& a, const std::string& b) {
  struct stat sa {};
  struct stat sb {};
  if (a.empty() || b.empty() || stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) {
    return false;
  }
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

std::string LocalRootFor(const std::string& root_id, const std::string& root_path) {
  struct stat st {};
  if (root_id.empty() || root_id.front() != '/' || stat(root_id.c_str(), &st) != 0 ||
      !S_ISDIR(st.st_mode) || !SameLocalFile(root_id, root_path)) {
    return {};
  }
  return root_id;
}

// --- ReplaceFile ---------------------------------------------------------------------

std::string ReplaceResult::Describe() const {
  return DescribeOutcome(status, existed, reason,
                         !old_kept_at.empty() ? "; the existing file was kept as " + old_kept_at
                         : kept_existing      ? "; the existing file was kept"
                                              : "");
}

namespace {

// An empty new file has no partial state anyone could see, so it is made
// under its own name: a temporary name and a rename would only cost a
// second directory change per file (a mount creating many files feels it).
// The name was free a moment ago; a file made under it in that moment is
// emptied in place instead of replaced (the protocol has no exclusive
// create), the window `touch` has as well.
ReplaceResult CreateEmpty(Client& client, const ReplaceRequest& request,
                          const std::shared_ptr<_FS_HANDLE>& handle, ReplaceResult result) {
  const std::string final_path = Join(request.parent, request.name);
  _FS_FILE_V2 uploaded;
  uploaded.name = request.name;
  uploaded.size = 0;
  std::string message;
  // Nothing is read from the source for an empty file: it goes as it is.
  AERROR code =
      client.Upload(request.parent, handle, request.source, &uploaded, request.flag, &message);
  if (code != SUCCESS) {
    // Nothing is removed: whatever a failed empty upload left under the name
    // is empty, as wanted, or somebody else's file.
    result.status = code == UPLOAD_CANCELED ? TransferStatus::kCancelled : TransferStatus::kFailed;
    result.step = "upload";
    result.code = code;
    result.message = message;
    result.reason =
        code == UPLOAD_CANCELED ? "cancelled" : "failed: " + DescribeCode(client, code, message);
    return result;
  }
  const bool sync = request.sync && !request.local_root.empty();
  if (sync && !SyncLocal(final_path, O_RDONLY)) {
    result.warning = std::string("cannot sync ") + final_path + ": " + std::strerror(errno);
  }
  if (sync && !SyncLocal(request.parent, O_RDONLY | O_DIRECTORY)) {
    result.warning =
        std::string("cannot sync the directory ") + request.parent + ": " + std::strerror(errno);
  }
  result.file = uploaded;
  result.status = TransferStatus::kDone;
  result.code = SUCCESS;
  return result;
}

}  // namespace

ReplaceResult ReplaceFile(Client& client, const ReplaceRequest& request) {
  ReplaceResult result;
  std::shared_ptr<_FS_HANDLE> handle =
      request.handle ? request.handle : std::make_shared<_FS_HANDLE>();
  const std::string final_path = Join(request.parent, request.name);

  auto fail = [&](std::string step, AERROR code, std::string message, std::string reason) {
    result.status = TransferStatus::kFailed;
    result.step = std::move(step);
    result.code = code;
    result.message = std::move(message);
    result.reason = std::move(reason);
    return result;
  };
  auto cancel = [&]() {
    result.status = TransferStatus::kCancelled;
    result.code = UPLOAD_CANCELED;
    result.kept_existing = result.existed;
    result.reason = "cancelled";
    return result;
  };

  // What is at the final name now decides what a failure keeps.
  try {
    if (std::optional<_FS_FILE_V2> existing = Existing(client, final_path)) {
      result.existed = true;
      if (existing->type == 2) {
        result.is_directory = true;
        result.kept_existing = true;
        return fail("check", ACCESS_DENIED, {}, "is a directory");
      }
    }
  } catch (const ProtocolError& error) {
    return fail("check", error.code(), error.message(), DescribeError(client, error));
  }
  if (Stopped(*handle)) return cancel();
  if (!result.existed && request.size == 0) return CreateEmpty(client, request, handle, result);

  // 1. The whole content under a temporary name.
  std::string temporary = TemporaryNameFor(request.name);
  std::optional<mode_t> final_mode;
  if (result.existed && !request.local_root.empty()) {
    final_mode = PrepareLocalTemporary(final_path, request.parent, request.name, &temporary);
  }
  const std::string temporary_path = Join(request.parent, temporary);
  WatchedSource source(request.source, request.local_root);
  _FS_FILE_V2 uploaded;
  uploaded.name = temporary;
  uploaded.size = request.size;
  std::string message;
  AERROR code = client.Upload(request.parent, handle, &source, &uploaded, request.flag, &message);
  if (code != SUCCESS || Stopped(*handle)) {
    // A cancelled upload keeps its partial file, a failed one may not.
    if (!RemoveQuietly(client, temporary_path)) result.leftover = temporary_path;
    result.kept_existing = result.existed;
    if (code == UPLOAD_CANCELED || (code == SUCCESS && Stopped(*handle))) return cancel();
    result.source_failed = source.failed();
    if (!result.source_failed && !request.local_root.empty()) {
      source.Sample();  // after the removal: the space the old file and others leave
      std::optional<unsigned long long> least = source.least_free();
      std::optional<unsigned long long> now = FreeBytes(request.local_root);
      unsigned long long size =
          request.size > 0 ? static_cast<unsigned long long>(request.size) : 0;
      result.out_of_space = (least && *least < kNearlyFull) || (now && *now < size + kNearlyFull);
    }
    std::string reason = result.out_of_space    ? "failed for lack of space on the storage"
                         : result.source_failed ? "failed: reading the source failed"
                                                : "failed: " + DescribeCode(client, code, message);
    return fail("upload", code, message, reason);
  }

  // The owner may not write to the file it replaces: the temporary file was
  // writable for the upload, and takes the final mode only now. A replaced
  // file that would silently change its mode is a failure: the old one stays.
  if (final_mode) {
    struct stat st {};
    int error = 0;
    if (stat(temporary_path.c_str(), &st) != 0) {
      error = errno;
    } else if ((st.st_mode & 07777) != *final_mode && chmod(temporary_path.c_str(), *final_mode)) {
      error = errno;
    }
    if (error != 0) {
      if (!RemoveQuietly(client, temporary_path)) result.leftover = temporary_path;
      result.kept_existing = result.existed;
      return fail(
          "mode", FILE_WRITE_FAILED, {},
          std::string("failed: cannot set the mode of the new file: ") + std::strerror(error));
    }
  }
  const bool sync = request.sync && !request.local_root.empty();
  if (sync && !SyncLocal(temporary_path, O_RDONLY)) {
    if (!RemoveQuietly(client, temporary_path)) result.leftover = temporary_path;
    result.kept_existing = result.existed;
    return fail("sync", FILE_WRITE_FAILED, {},
                std::string("failed: cannot sync the new file: ") + std::strerror(errno));
  }

  // 2. Rename it over the final name.
  try {
    result.file = client.Move(temporary_path, request.parent, request.name, {"move", final_path});
    result.status = TransferStatus::kDone;
    result.code = SUCCESS;
    // The rename is done and the new content is on the disk: a directory
    // that cannot be synced only means a crash could still bring the old
    // version back. The transfer succeeded; the caller is told, not failed.
    if (sync && !SyncLocal(request.parent, O_RDONLY | O_DIRECTORY)) {
      result.warning =
          std::string("cannot sync the directory ") + request.parent + ": " + std::strerror(errno);
    }
    return result;
  } catch (const ProtocolError& error) {
    code = error.code();
    message = error.message();
  }

  // The move was refused. Where the final name holds a file, the plug-in may
  // be one that does not move over an existing name: swap through a backup.
  std::optional<_FS_FILE_V2> now;
  try {
    now = Existing(client, final_path);
  } catch (const ProtocolError&) {
  }
  const std::string backup = BackupNameFor(request.name);
  if (!now || now->type != 1 || backup.empty() || Stopped(*handle)) {
    if (!RemoveQuietly(client, temporary_path)) result.leftover = temporary_path;
    result.kept_existing = result.existed && now.has_value();
    if (Stopped(*handle)) return cancel();
    return fail("move", code, message, "failed: " + DescribeCode(client, code, message));
  }
  result.existed = true;
  const std::string backup_path = Join(request.parent, backup);
  try {
    client.Move(final_path, request.parent, backup, {"move", final_path});
  } catch (const ProtocolError& error) {
    if (!RemoveQuietly(client, temporary_path)) result.leftover = temporary_path;
    result.kept_existing = true;
    return fail("move", error.code(), error.message(), "failed: " + DescribeError(client, error));
  }
  try {
    result.file = client.Move(temporary_path, request.parent, request.name, {"move", final_path});
  } catch (const ProtocolError& error) {
    try {
      client.Move(backup_path, request.parent, request.name, {"move", backup_path});
      result.kept_existing = true;
    } catch (const ProtocolError&) {
      result.old_kept_at = backup_path;
    }
    if (!RemoveQuietly(client, temporary_path)) result.leftover = temporary_path;
    return fail("replace", error.code(), error.message(),
                "failed: " + DescribeError(client, error));
  }
  if (!RemoveQuietly(client, backup_path)) result.leftover = backup_path;
  result.status = TransferStatus::kDone;
  result.code = SUCCESS;
  return result;
}

}  // namespace plughost
