// The "mount" and "unmount" commands: options, the unmount, and errors.
#include "host/mount/mount.h"

#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "host/mount/mount_lifecycle.h"
#include "host/mount/mount_support.h"

namespace plughost {

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
  mount->add_option("--uid", options_.uid, "Owner shown for every entry (default: you)")
      ->type_name("UID");
  mount->add_option("--gid", options_.gid, "Group shown for every entry (default: yours)")
      ->type_name("GID");
  mount
      ->add_option("--umask", options_.umask,
                   "Modes 0666 and 0777 less these bits (default: files 0600, directories 0700)")
      ->type_name("OCTAL");
  mount->add_option("--file-mode", options_.file_mode, "Mode of every file")->type_name("OCTAL");
  mount->add_option("--dir-mode", options_.dir_mode, "Mode of every directory")->type_name("OCTAL");
  mount->add_flag("--strict-modes", options_.strict_modes,
                  "Refuse chmod and chown (default: accepted without effect)");
  mount->add_flag("--sync-on-close", options_.sync_on_close,
                  "Make each file durable when it is closed, not only at fsync");
  mount
      ->add_option("--attr-timeout", options_.attr_timeout,
                   "Seconds the kernel may trust attributes and names")
      ->capture_default_str()
      ->type_name("SECONDS");
  mount
      ->add_option("--dir-cache-time", options_.dir_cache_time,
                   "Seconds a directory listing is kept (changes made through the mount "
                   "show at once)")
      ->capture_default_str()
      ->type_name("SECONDS");
  mount->add_flag("--writeback-cache", options_.writeback_cache,
                  "Let the kernel gather writes (faster small writes; changes not yet "
                  "handed over are lost on SIGTERM)");
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
