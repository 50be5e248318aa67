// The life of a mount: checks, set-up, mounting, the background, signals,
// the uploads at the end and the unmount.
#define FUSE_USE_VERSION 35

#include "host/mount/mount_lifecycle.h"

#include <fcntl.h>
#include <fuse3/fuse.h>
#include <fuse3/fuse_lowlevel.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/file_time.h"
#include "host/core/plugin.h"
#include "host/core/session.h"
#include "host/mount/mount_fs.h"
#include "host/mount/mount_ops.h"
#include "host/mount/mount_support.h"

namespace plughost {

void Complain(const std::string& command, const std::string& text) {
  std::cerr << "plughost " << command << ": " << text << std::endl;
}

namespace {

mode_t ParseMode(const std::string& text, const char* option) {
  char* end = nullptr;
  errno = 0;
  unsigned long value = std::strtoul(text.c_str(), &end, 8);
  if (text.empty() || *end != '\0' || errno != 0 || value > 07777) {
    throw UsageError(std::string(option) + " " + text + ": expected an octal mode");
  }
  return static_cast<mode_t>(value);
}

}  // namespace

Ownership OwnershipOf(const MountOptions& options) {
  Ownership owner;
  owner.uid = options.uid >= 0 ? static_cast<uid_t>(options.uid) : getuid();
  owner.gid = options.gid >= 0 ? static_cast<gid_t>(options.gid) : getgid();
  if (!options.umask.empty()) {
    mode_t mask = ParseMode(options.umask, "--umask");
    owner.file_mode = 0666 & ~mask;
    owner.dir_mode = 0777 & ~mask;
  }
  if (!options.file_mode.empty()) owner.file_mode = ParseMode(options.file_mode, "--file-mode");
  if (!options.dir_mode.empty()) owner.dir_mode = ParseMode(options.dir_mode, "--dir-mode");
  return owner;
}

namespace {

std::string CheckMountPoint(const std::string& mountpoint) {
  std::string absolute = AbsolutePath(mountpoint);
  struct stat st {};
  if (stat(absolute.c_str(), &st) != 0) {
    int error = errno;
    if (error == ENOTCONN) {
      throw UsageError(mountpoint + " is busy: a mount whose server has gone is still there; " +
                       "run 'plughost unmount " + mountpoint + "' first");
    }
    throw UsageError("mount point " + mountpoint + ": " + std::strerror(error));
  }
  if (!S_ISDIR(st.st_mode)) throw UsageError("mount point " + mountpoint + ": not a directory");
  if (std::optional<MountEntry> mounted = FindMount(absolute)) {
    throw UsageError(mountpoint + " is busy: " + mounted->source + " (" + mounted->fs_type +
                     ") is already mounted there; run 'plughost unmount " + mountpoint + "' first");
  }
  return absolute;
}

std::string MakeCacheDirectory(const std::string& requested) {
  std::string base = requested;
  if (base.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  }
  base = AbsolutePath(base);
  std::string pattern = base + "/plughost-mount.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    throw UsageError("--cache-dir " + base + ": " + std::strerror(errno));
  }
  return pattern;
}

// Escapes a value for libfuse's comma-separated -o list.
std::string EscapeOption(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == ',' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// Confinement takes away the right to unmount, so a small unconfined helper
// process is started first. It waits until the server closes its end of a
// pipe, which happens when the server is done or dies (even by SIGKILL),
// and then detaches the mount: a mount never outlives its server.
class UnmountHelper {
 public:
  // Returns with the helper running, or throws.
  // The helper also removes the (then empty) cache directory, which the
  // confined server may not.
  UnmountHelper(const std::string& mountpoint, const std::string& cache_dir, int fuse_fd) {
    // Which mount is ours: by the time the server ends, an unmount may have
    // taken it away and another one may sit on the same directory.
    std::optional<MountEntry> ours = FindMount(mountpoint);
    const long id = ours ? ours->id : -1;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    pid_ = fork();
    if (pid_ < 0) {
      int error = errno;
      close(ends[0]);
      close(ends[1]);
      throw std::runtime_error(std::string("fork: ") + std::strerror(error));
    }
    if (pid_ == 0) {
      // Holds nothing of the server: with the kernel's descriptor open here,
      // a dead server's mount would hang instead of failing.
      close(ends[1]);
      close(fuse_fd);
      for (int fd = 3; fd < 1024; ++fd) {
        if (fd != ends[0]) close(fd);
      }
      signal(SIGINT, SIG_IGN);
      signal(SIGTERM, SIG_IGN);
      // 'u': the server ended on a signal and its mount is still there;
      // 'k': the mount is already gone; nothing: the server died.
      char byte = 0;
      ssize_t n;
      do {
        n = read(ends[0], &byte, 1);
      } while (n < 0 && errno == EINTR);
      std::optional<MountEntry> now = FindMount(mountpoint);
      // Mount IDs are reused at once, so a dead server's mount is only
      // taken for its own when no other kind of file system sits there.
      const bool ours = byte == 'u' || (n == 0 && id >= 0 && now && now->id == id &&
                                        now->fs_type.compare(0, 4, "fuse") == 0);
      if (!ours) {
        rmdir(cache_dir.c_str());
        _exit(0);
      }
      if (geteuid() == 0) {
        umount2(mountpoint.c_str(), MNT_DETACH);
        rmdir(cache_dir.c_str());
        _exit(0);
      }
      // fusermount3 below: the cache directory first (kept when not empty).
      rmdir(cache_dir.c_str());
      execlp("fusermount3", "fusermount3", "-u", "-z", "-q", "--", mountpoint.c_str(),
             static_cast<char*>(nullptr));
      _exit(127);
    }
    close(ends[0]);
    write_end_ = ends[1];
  }
  UnmountHelper(const UnmountHelper&) = delete;
  UnmountHelper& operator=(const UnmountHelper&) = delete;
  ~UnmountHelper() { Unmount(true); }

  // Detaches the mount (when `still_mounted`) and waits until it is gone.
  void Unmount(bool still_mounted) {
    if (write_end_ < 0) return;
    const char byte = still_mounted ? 'u' : 'k';
    while (write(write_end_, &byte, 1) < 0 && errno == EINTR) {
    }
    close(write_end_);
    write_end_ = -1;
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }

 private:
  pid_t pid_ = -1;
  int write_end_ = -1;
};

}  // namespace

int Serve(const MountOptions& options) {
  // Times are converted for every entry listed: the zone is read once.
  PinTimeZone();
  std::string mountpoint = CheckMountPoint(options.mountpoint);

  // The storage is opened before the fork into the background, so that a
  // wrong root, plug-in or option is reported on the terminal; nothing here
  // has started a thread yet.
  std::unique_ptr<StderrLog> log;
  if (options.verbose) log = std::make_unique<StderrLog>("plughost mount: ");
  SessionOptions session_options;
  session_options.plugin = AbsolutePath(options.plugin);
  session_options.root = options.root;
  session_options.plugin_options = options.plugin_options;
  session_options.logger = log.get();
  std::unique_ptr<Session> session = Session::Open(session_options);
  Client& client = session->client();
  const std::string root_id = session->root_id();
  _FS_FILE_V2 top = client.Info(root_id, Context{"mount", root_id});
  if (top.type != 2) throw UsageError("storage root " + root_id + " is not a directory");
  std::string type = client.Type();
  if (type.empty()) type = "plughost";

  std::string cache_dir = MakeCacheDirectory(options.cache_dir);
  struct CacheCleanup {
    std::string path;
    ~CacheCleanup() { rmdir(path.c_str()); }
  } cleanup{cache_dir};

  MountSettings mount_settings;
  mount_settings.owner = OwnershipOf(options);
  mount_settings.strict_modes = options.strict_modes;
  mount_settings.sync_on_close = options.sync_on_close;
  // Not --root itself: another plug-in may take it without serving it, and
  // fsync would then sync (and fail on) local paths that are not the files.
  mount_settings.local_root = session->served_root();
  mount_settings.dir_cache_time = options.dir_cache_time;
  mount_settings.kernel_checks_modes =
      KernelChecksModes(mount_settings.owner, options.allow_other, getuid());
  MountFs fs(client, root_id, cache_dir, mount_settings);
  KernelContext context;
  context.fs = &fs;
  context.tuning.attr_timeout = options.attr_timeout;
  context.tuning.writeback_cache = options.writeback_cache;

  std::string mount_options = "fsname=" + EscapeOption("plughost:" + root_id) +
                              ",subtype=" + EscapeOption(type) +
                              (mount_settings.kernel_checks_modes ? ",default_permissions" : "") +
                              ",max_read=" + std::to_string(context.tuning.transfer_size);
  if (options.allow_other) mount_options += ",allow_other";
  std::vector<std::string> words = {"plughost", "-o", mount_options};
  if (options.debug) words.push_back("-d");
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());

  fuse* kernel = fuse_new(&args, Operations(), sizeof(fuse_operations), &context);
  fuse_opt_free_args(&args);
  if (kernel == nullptr) {
    Complain("mount", "cannot set up the file system (see the message above)");
    return kMountExitFailed;
  }
  if (fuse_mount(kernel, mountpoint.c_str()) != 0) {
    fuse_destroy(kernel);
    Complain("mount", "cannot mount on " + mountpoint + " (see the message above)");
    return kMountExitFailed;
  }
  bool foreground = options.foreground || options.debug;
  if (fuse_daemonize(foreground ? 1 : 0) != 0) {
    fuse_unmount(kernel);
    fuse_destroy(kernel);
    return kMountExitFailed;
  }
  fuse_session* lowlevel = fuse_get_session(kernel);
  // From here on the process reaches only the root and its cache directory.
  UnmountHelper helper(mountpoint, cache_dir, fuse_session_fd(lowlevel));
  session->Confine({}, {cache_dir});
  // libfuse only takes over signals left at their default; a shell starts
  // background jobs with SIGINT ignored, and an unmount on SIGINT is wanted
  // there too. (SIGHUP stays as it is, so that nohup keeps working.)
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  int status = kMountExitOk;
  bool still_mounted = true;
  if (fuse_set_signal_handlers(lowlevel) != 0) {
    status = kMountExitFailed;
  } else {
    fuse_loop_config loop{};
    loop.clone_fd = 0;
    loop.max_idle_threads = 16;
    // A signal ends the loop with the signal's number: a clean end as well.
    int result = fuse_loop_mt(kernel, &loop);
    // 0: the kernel ended the session (an unmount); a signal's number: the
    // mount is still there.
    still_mounted = result != 0;
    if (result != 0 && result != SIGINT && result != SIGTERM && result != SIGHUP) {
      status = kMountExitFailed;
    }
    fuse_remove_signal_handlers(lowlevel);
  }
  // A signal ends the loop with the file system still mounted: whatever is
  // open with changes goes to the storage before the mount goes away.
  ShutdownReport report = fs.Shutdown();
  for (const auto& [path, kept] : report.failed) {
    if (kept.empty()) {
      Complain("mount", "could not upload " + path + " at shutdown; its changes are lost");
    } else {
      Complain("mount",
               "could not upload " + path + " at shutdown; its content is kept in " + kept);
    }
    status = kMountExitFailed;
  }
  // The helper unmounts; libfuse only closes its descriptor then.
  helper.Unmount(still_mounted);
  fuse_unmount(kernel);
  fuse_destroy(kernel);
  return status;
}

}  // namespace plughost
