// The local side of a transfer: a download renamed into place once complete.
#include "host/core/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "host/core/transfer_internal.h"

namespace plughost {

using namespace transfer_internal;

namespace {

bool IsSpaceError(int error) {
  return error == ENOSPC || error == EDQUOT;
}

int WriteAll(int fd, const char* data, long long length) {
  while (length > 0) {
    ssize_t n = write(fd, data, static_cast<size_t>(std::min<long long>(length, 1 << 20)));
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data += n;
    length -= n;
  }
  return 0;
}

// Receives one read of the file: writes each chunk, stops the read at the
// first empty chunk (the end of the file), on a write error, and when the
// caller's handle asks to stop; forwards progress to the caller's handle.
class DownloadSink final : public IFetchCallback {
 public:
  DownloadSink(int fd, long long expected, _FS_HANDLE* user, _FS_HANDLE* internal)
      : fd_(fd), expected_(expected), user_(user), internal_(internal) {}

  AERROR OnFetch(long long, const char* data, long long length, long long*) override {
    if (length <= 0) {
      end_of_file = true;
      internal_->state.store(FS_HANDLE_STOP);
      return SUCCESS;
    }
    if (int error = WriteAll(fd_, data, length)) {
      write_error = error;
      internal_->state.store(FS_HANDLE_STOP);
      return FAILED;
    }
    received += length;
    if (user_->progress != nullptr) {
      user_->progress(expected_, std::min(received, expected_), user_->progress_context, 0.0);
    }
    if (Stopped(*user_)) {
      cancelled = true;
      internal_->state.store(FS_HANDLE_STOP);
    }
    return SUCCESS;
  }

  long long received = 0;
  bool end_of_file = false;
  bool cancelled = false;
  int write_error = 0;

 private:
  int fd_;
  long long expected_;
  _FS_HANDLE* user_;
  _FS_HANDLE* internal_;
};

// The new local file while it is written, removed unless published.
class LocalTemporary {
 public:
  ~LocalTemporary() { Discard(); }

  // An unnamed file in `dir` where the file system and /proc allow it
  // (nothing at all is left if the process dies), a temporary name otherwise.
  int Create(int dir_fd, const std::string& base) {
    dir_fd_ = dir_fd;
    base_ = base;
    if (access("/proc/self/fd", X_OK) == 0) {
      fd_ = openat(dir_fd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
      if (fd_ >= 0) return 0;
      if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return errno;
    }
    for (int attempt = 0; attempt < 16; ++attempt) {
      name_ = TemporaryNameFor(base);
      fd_ = openat(dir_fd, name_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
      if (fd_ >= 0) return 0;
      if (errno != EEXIST) break;
    }
    int error = errno;
    name_.clear();
    return error;
  }

  int fd() const noexcept { return fd_; }

  // Gives the file its name, closes it and renames it over `base`. Returns
  // 0 or errno, with `what` naming the step; ECANCELED when `stop` asks to
  // stop before the rename (the last moment that keeps the old file).
  int Publish(const _FS_HANDLE& stop, const char** what) {
    if (name_.empty()) {
      // linkat cannot replace a name: link under a temporary name, then rename.
      const std::string proc = "/proc/self/fd/" + std::to_string(fd_);
      for (int attempt = 0; attempt < 16; ++attempt) {
        std::string name = TemporaryNameFor(base_);
        if (linkat(AT_FDCWD, proc.c_str(), dir_fd_, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
          name_ = name;
          break;
        }
        if (errno != EEXIST) break;
      }
      if (name_.empty()) {
        *what = "link";
        return errno;
      }
    }
    int fd = std::exchange(fd_, -1);
    if (close(fd) != 0) {
      *what = "close";
      return errno;
    }
    if (Stopped(stop)) return ECANCELED;
    if (renameat(dir_fd_, name_.c_str(), dir_fd_, base_.c_str()) != 0) {
      *what = "rename";
      return errno;
    }
    name_.clear();
    return 0;
  }

  void Discard() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
    if (!name_.empty()) unlinkat(dir_fd_, name_.c_str(), 0);
    name_.clear();
  }

 private:
  int dir_fd_ = -1;
  int fd_ = -1;
  std::string base_;
  std::string name_;  // "" while unnamed
};

}  // namespace

std::string DownloadResult::Describe() const {
  std::string text;
  switch (status) {
    case TransferStatus::kDone:
      return existed ? "replaced" : "created";
    case TransferStatus::kCancelled:
      text = "cancelled";
      break;
    case TransferStatus::kFailed:
      text = reason.empty() ? "failed" : reason;
      break;
  }
  if (kept_existing) text += "; the existing file was kept";
  return text;
}

DownloadResult DownloadFile(Client& client, const DownloadRequest& request) {
  DownloadResult result;
  std::shared_ptr<_FS_HANDLE> user =
      request.handle ? request.handle : std::make_shared<_FS_HANDLE>();
  auto local_failure = [&](const char* what, int error) {
    result.status = TransferStatus::kFailed;
    result.what = what;
    result.error = error;
    result.out_of_space = IsSpaceError(error);
    result.kept_existing = result.existed;
    result.reason = result.out_of_space ? std::string("failed for lack of space on the local disk")
                                        : std::string("cannot ") + what + " " + result.local_path +
                                              ": " + std::strerror(error);
    return result;
  };

  // Where the bytes go: links are followed, a dangling one to the file it
  // names, which is then created.
  result.local_path = request.local_path;
  struct stat st {};
  bool exists = request.device_fd >= 0 || lstat(result.local_path.c_str(), &st) == 0;
  for (int hops = 0; exists && S_ISLNK(st.st_mode); ++hops) {
    if (hops == 40) return local_failure("write through the link", ELOOP);
    std::string target(4096, '\0');
    ssize_t n = readlink(result.local_path.c_str(), target.data(), target.size());
    if (n < 0 || static_cast<size_t>(n) >= target.size()) {
      return local_failure("write through the link", n < 0 ? errno : ENAMETOOLONG);
    }
    target.resize(static_cast<size_t>(n));
    const size_t slash = result.local_path.find_last_of('/');
    if (target.front() != '/' && slash != std::string::npos) {
      target = result.local_path.substr(0, slash + 1) + target;
    }
    result.local_path = target;
    exists = lstat(result.local_path.c_str(), &st) == 0;
  }
  if (exists && S_ISDIR(st.st_mode)) return local_failure("write", EISDIR);
  result.existed = request.device_fd < 0 && exists && S_ISREG(st.st_mode);
  result.in_place = request.device_fd >= 0 || (exists && !S_ISREG(st.st_mode));

  const std::string& dest = result.local_path;
  const size_t slash = dest.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : dest.substr(0, slash);
  const std::string base = slash == std::string::npos ? dest : dest.substr(slash + 1);

  int dir_fd = -1;
  LocalTemporary temporary;
  int out = -1;
  if (result.in_place) {
    // A device or a FIFO: there is no old content to keep, and no rename.
    out = request.device_fd >= 0 ? request.device_fd
                                 : open(dest.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (out < 0) return local_failure("open", errno);
  } else {
    dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd < 0) return local_failure("open", errno);
    if (int error = temporary.Create(dir_fd, base)) {
      close(dir_fd);
      return local_failure("open", error);
    }
    out = temporary.fd();
    if (result.existed) {
      // The replaced file's owner (where allowed) and permission bits.
      if (st.st_uid != geteuid() || st.st_gid != getegid()) {
        if (fchown(out, st.st_uid, st.st_gid) != 0) {
          // Not allowed: the new file belongs to this user, as cp's would.
        }
      }
      fchmod(out, st.st_mode & 07777);
    }
  }
  auto finish = [&](DownloadResult r) {
    temporary.Discard();
    if (result.in_place && out >= 0) close(out);
    if (dir_fd >= 0) close(dir_fd);
    return r;
  };

  long long expected = request.size;
  const int attempts = result.in_place ? 1 : std::max(1, request.attempts);
  bool complete = false;
  for (int attempt = 0; attempt < attempts && !complete; ++attempt) {
    if (attempt > 0) {
      // The file changed while it was read: start over with its new size.
      try {
        _FS_FILE_V2 info = client.Info(request.path, {"get", request.path});
        if (info.type == 2) return finish(local_failure("read", EISDIR));
        expected = info.size;
      } catch (const ProtocolError& error) {
        result.status = TransferStatus::kFailed;
        result.code = error.code();
        result.message = error.message();
        result.kept_existing = result.existed;
        result.reason = "failed: " + DescribeError(client, error);
        return finish(result);
      }
      if (ftruncate(out, 0) != 0 || lseek(out, 0, SEEK_SET) != 0) {
        return finish(local_failure("write", errno));
      }
    }
    if (Stopped(*user)) break;
    auto internal = std::make_shared<_FS_HANDLE>();
    DownloadSink sink(out, expected, user.get(), internal.get());
    std::string message;
    // One byte more than expected: the end of the file shows up as an empty
    // chunk, and a longer file as that extra byte.
    AERROR code = client.Read(request.path, 0, expected + 1, internal, &sink, &message);
    if (sink.write_error != 0) return finish(local_failure("write", sink.write_error));
    if (sink.cancelled || Stopped(*user)) break;
    if (sink.end_of_file && sink.received == expected) {
      complete = true;
    } else if (sink.end_of_file || sink.received > expected) {
      result.changed = true;  // shorter or longer than it was: read it again
    } else {
      result.status = TransferStatus::kFailed;
      result.code = code == SUCCESS ? FAILED : code;
      result.message = message;
      result.kept_existing = result.existed;
      result.reason = "failed: " + DescribeCode(client, result.code, message);
      return finish(result);
    }
  }
  if (!complete) {
    if (Stopped(*user)) {
      result.status = TransferStatus::kCancelled;
      result.code = READ_CANCELED;
      result.kept_existing = result.existed;
      result.reason = "cancelled";
      return finish(result);
    }
    result.status = TransferStatus::kFailed;
    result.kept_existing = result.existed;
    result.reason = "failed: the file kept changing while it was read";
    return finish(result);
  }
  result.changed = false;
  result.bytes = expected;

  if (result.in_place) {
    int fd = std::exchange(out, -1);
    if (close(fd) != 0) return finish(local_failure("write", errno));
  } else {
    if (request.sync && fsync(out) != 0) return finish(local_failure("write", errno));
    const char* what = "rename";
    if (int error = temporary.Publish(*user, &what)) {
      if (error != ECANCELED) return finish(local_failure(what, error));
      result.status = TransferStatus::kCancelled;
      result.code = READ_CANCELED;
      result.kept_existing = result.existed;
      result.reason = "cancelled";
      return finish(result);
    }
    if (request.sync) fsync(dir_fd);
  }
  result.status = TransferStatus::kDone;
  return finish(result);
}

}  // namespace plughost
