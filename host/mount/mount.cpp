#define FUSE_USE_VERSION 35

#include "host/mount/mount.h"

#include <fuse3/fuse.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/mount/mount_fs.h"
#include "host/mount/mount_support.h"
#include "host/core/plugin.h"

namespace plughost {

namespace {

constexpr unsigned kTransferSize = 1u << 20;  // max_read, max_write and readahead
constexpr double kCacheSeconds = 1.0;         // attribute and entry timeouts

void Complain(const std::string& command, const std::string& text) {
  std::cerr << "plughost " << command << ": " << text << std::endl;
}

MountFs* Fs() {
  return static_cast<MountFs*>(fuse_get_context()->private_data);
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

// --- operations ---------------------------------------------------------------

void* OpInit(fuse_conn_info* conn, fuse_config* cfg) {
  conn->max_read = kTransferSize;
  conn->max_write = kTransferSize;
  conn->max_readahead = kTransferSize;
  conn->max_background = 64;
  conn->congestion_threshold = 48;
  if ((conn->capable & FUSE_CAP_READDIRPLUS) != 0) {
    // Always hand the attributes along with a listing: ls -l and find then
    // need no lookup per entry.
    conn->want |= FUSE_CAP_READDIRPLUS;
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
  }
  // Data reaches the storage only as whole files, staged here: the kernel
  // must not hold back writes.
  conn->want &= ~FUSE_CAP_WRITEBACK_CACHE;

  cfg->entry_timeout = kCacheSeconds;
  cfg->attr_timeout = kCacheSeconds;
  cfg->negative_timeout = 0;
  // Open files are tracked here by handle, so a removed file needs no
  // hidden stand-in, and handle operations need no path.
  cfg->hard_remove = 1;
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

int OpChown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
  return Guard([&] { return Fs()->Chown(path, FhOf(fi), uid, gid); });
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
    return 0;
  });
}

int OpCreate(const char* path, mode_t, fuse_file_info* fi) {
  return Guard([&] {
    std::uint64_t fh = 0;
    int error = Fs()->Create(path, fi->flags, &fh);
    if (error != 0) return error;
    fi->fh = fh;
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
  std::vector<DirEntry> entries;
};

// Directory handles pass between the kernel's threads; the lock makes that
// hand-over visible to thread checkers (and costs nothing measurable).
std::mutex dir_handles_lock;

int OpOpendir(const char* path, fuse_file_info* fi) {
  return Guard([&] {
    auto handle = std::make_unique<DirHandle>();
    int error = Fs()->ListDir(path, &handle->entries);
    if (error != 0) return error;
    std::lock_guard<std::mutex> guard(dir_handles_lock);
    fi->fh = reinterpret_cast<std::uint64_t>(handle.release());
    // The kernel keeps the listing until the directory's time changes.
    fi->cache_readdir = 1;
    fi->keep_cache = 1;
    return 0;
  });
}

int OpReaddir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* fi,
              fuse_readdir_flags flags) {
  return Guard([&] {
    std::lock_guard<std::mutex> guard(dir_handles_lock);
    auto* handle = reinterpret_cast<DirHandle*>(fi->fh);
    struct stat dir {};
    dir.st_mode = S_IFDIR;
    fill(buffer, ".", &dir, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buffer, "..", &dir, 0, static_cast<fuse_fill_dir_flags>(0));
    auto plus =
        (flags & FUSE_READDIR_PLUS) != 0 ? FUSE_FILL_DIR_PLUS : static_cast<fuse_fill_dir_flags>(0);
    for (const DirEntry& entry : handle->entries) {
      if (fill(buffer, entry.name.c_str(), &entry.st, 0, plus) != 0) break;
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
  return ops;
}

// --- mounting -------------------------------------------------------------------

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

int Serve(const MountOptions& options) {
  std::string mountpoint = CheckMountPoint(options.mountpoint);

  std::string root;
  if (!options.root.empty()) {
    char* real = realpath(options.root.c_str(), nullptr);
    if (real == nullptr) throw UsageError("--root " + options.root + ": " + std::strerror(errno));
    root = real;
    std::free(real);
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      throw UsageError("--root " + options.root + ": not a directory");
    }
  }
  std::vector<std::pair<std::string, std::string>> settings;
  for (const std::string& option : options.plugin_options) {
    size_t equals = option.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw UsageError("-o " + option + ": expected KEY=VALUE");
    }
    settings.emplace_back(option.substr(0, equals), option.substr(equals + 1));
  }

  // Loaded before the fork into the background, so that a wrong plug-in is
  // reported on the terminal; nothing here has started a thread yet.
  Plugin plugin = Plugin::Load(AbsolutePath(options.plugin));
  std::unique_ptr<StderrLog> log;
  if (options.verbose) {
    log = std::make_unique<StderrLog>("plughost mount: ");
    plugin.BindLogger(log.get());
  }
  MemoryConfiguration config;
  Client client(plugin, plugin.CreateProtocol(&config));
  if (!root.empty()) client.SetOpt("root_path", root);
  for (const auto& [key, value] : settings)
    client.SetOpt(key, value);
  std::string root_id = client.RootId();
  _FS_FILE_V2 top = client.Info(root_id, Context{"mount", root_id});
  if (top.type != 2) throw UsageError("storage root " + root_id + " is not a directory");
  std::string type = client.Type();
  if (type.empty()) type = "plughost";

  std::string cache_dir = MakeCacheDirectory(options.cache_dir);
  struct CacheCleanup {
    std::string path;
    ~CacheCleanup() { rmdir(path.c_str()); }
  } cleanup{cache_dir};

  MountFs fs(client.get(), root_id, cache_dir, getuid(), getgid());

  std::string mount_options = "fsname=" + EscapeOption("plughost:" + root_id) +
                              ",subtype=" + EscapeOption(type) + ",default_permissions" +
                              ",max_read=" + std::to_string(kTransferSize);
  if (options.allow_other) mount_options += ",allow_other";
  std::vector<std::string> words = {"plughost", "-o", mount_options};
  if (options.debug) words.push_back("-d");
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());

  fuse_operations ops = MakeOperations();
  fuse* session = fuse_new(&args, &ops, sizeof ops, &fs);
  fuse_opt_free_args(&args);
  if (session == nullptr) {
    Complain("mount", "cannot set up the file system (see the message above)");
    return kMountExitFailed;
  }
  if (fuse_mount(session, mountpoint.c_str()) != 0) {
    fuse_destroy(session);
    Complain("mount", "cannot mount on " + mountpoint + " (see the message above)");
    return kMountExitFailed;
  }
  bool foreground = options.foreground || options.debug;
  if (fuse_daemonize(foreground ? 1 : 0) != 0) {
    fuse_unmount(session);
    fuse_destroy(session);
    return kMountExitFailed;
  }
  fuse_session* lowlevel = fuse_get_session(session);
  // libfuse only takes over signals left at their default; a shell starts
  // background jobs with SIGINT ignored, and an unmount on SIGINT is wanted
  // there too. (SIGHUP stays as it is, so that nohup keeps working.)
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  int status = kMountExitOk;
  if (fuse_set_signal_handlers(lowlevel) != 0) {
    status = kMountExitFailed;
  } else {
    fuse_loop_config loop{};
    loop.clone_fd = 0;
    loop.max_idle_threads = 16;
    // A signal ends the loop with the signal's number: a clean end as well.
    int result = fuse_loop_mt(session, &loop);
    if (result != 0 && result != SIGINT && result != SIGTERM && result != SIGHUP) {
      status = kMountExitFailed;
    }
    fuse_remove_signal_handlers(lowlevel);
  }
  // A signal ends the loop with the file system still mounted.
  fuse_unmount(session);
  fuse_destroy(session);
  if (log) plugin.UnbindLogger();
  return status;
}

}  // namespace

int RunMount(const MountOptions& options) {
  try {
    if (options.mountpoint.empty()) throw UsageError("no mount point given");
    if (options.plugin.empty()) throw UsageError("no plug-in given (--plugin PATH)");
    return Serve(options);
  } catch (const UsageError& error) {
    Complain("mount", error.what());
    return kMountExitUsage;
  } catch (const std::exception& error) {
    Complain("mount", error.what());
    return kMountExitFailed;
  }
}

int RunUnmount(const std::string& mountpoint) {
  try {
    std::string absolute = AbsolutePath(mountpoint);
    std::optional<MountEntry> mounted = FindMount(absolute);
    if (!mounted) {
      Complain("unmount", mountpoint + ": not mounted");
      return kMountExitFailed;
    }
    if (mounted->fs_type.compare(0, 4, "fuse") != 0) {
      Complain("unmount", mountpoint + ": not a FUSE mount (" + mounted->fs_type + ")");
      return kMountExitFailed;
    }
    if (geteuid() == 0) {
      if (umount2(absolute.c_str(), 0) == 0) return kMountExitOk;
      int error = errno;
      if (error == EBUSY) {
        Complain("unmount", mountpoint + " is busy: files are open or a process works in it");
      } else {
        Complain("unmount", mountpoint + ": " + std::strerror(error));
      }
      return kMountExitFailed;
    }
    // Unprivileged: the set-uid helper of libfuse does it.
    pid_t child = fork();
    if (child < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
      execlp("fusermount3", "fusermount3", "-u", "--", absolute.c_str(),
             static_cast<char*>(nullptr));
      std::perror("plughost unmount: fusermount3");
      _exit(127);
    }
    int wstatus = 0;
    while (waitpid(child, &wstatus, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0 ? kMountExitOk : kMountExitFailed;
  } catch (const std::exception& error) {
    Complain("unmount", error.what());
    return kMountExitFailed;
  }
}

// --- command line -----------------------------------------------------------------

void MountCommands::Register(CLI::App& app) {
  CLI::App* mount = app.add_subcommand(
      "mount",
      "Present the storage as a file system at MOUNTPOINT (in the background unless "
      "--foreground; ends with 'plughost unmount', SIGINT or SIGTERM)");
  mount->add_option("mountpoint", options_.mountpoint, "Empty directory to mount on")
      ->required()
      ->type_name("MOUNTPOINT");
  mount->add_flag("-f,--foreground", options_.foreground, "Stay in the foreground");
  mount
      ->add_option("--cache-dir", options_.cache_dir,
                   "Where files open for writing are staged (default: $TMPDIR or /tmp)")
      ->type_name("DIR");
  mount->add_flag("--allow-other", options_.allow_other,
                  "Let other users use the mount (modes are still checked)");
  mount->add_flag("--debug", options_.debug, "Trace every kernel request (implies --foreground)");
  mount->callback([this] { chosen_ = Chosen::kMount; });

  CLI::App* unmount = app.add_subcommand("unmount", "Unmount a file system mounted with mount");
  unmount->add_option("mountpoint", unmount_point_, "Where it is mounted")
      ->required()
      ->type_name("MOUNTPOINT");
  unmount->callback([this] { chosen_ = Chosen::kUnmount; });
}

int MountCommands::Run(const std::function<std::string()>& plugin_path, const std::string& root,
                       const std::vector<std::string>& plugin_options, bool verbose) {
  if (chosen_ == Chosen::kUnmount) return RunUnmount(unmount_point_);
  if (chosen_ != Chosen::kMount) return kMountExitUsage;
  MountOptions options = options_;
  try {
    options.plugin = plugin_path();
  } catch (const std::exception& error) {
    Complain("mount", error.what());
    return kMountExitUsage;
  }
  options.root = root;
  options.plugin_options = plugin_options;
  options.verbose = verbose;
  return RunMount(options);
}

}  // namespace plughost
