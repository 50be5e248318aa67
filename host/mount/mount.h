// plughost mount / unmount: any protocol plug-in presented as a real file
// system through the kernel's FUSE interface (libfuse 3).
//
//   plughost [--plugin PATH] [--root DIR] [-o KEY=VALUE...] mount MOUNTPOINT
//            [--foreground] [--cache-dir DIR] [--allow-other] [--debug]
//            [--uid N] [--gid N] [--umask M] [--file-mode M] [--dir-mode M]
//            [--strict-modes] [--sync-on-close] [--attr-timeout S]
//            [--dir-cache-time S]
//   plughost unmount MOUNTPOINT
//
// The mount runs in the background unless --foreground is given, and ends
// cleanly on SIGINT, SIGTERM or `plughost unmount`, uploading every file
// still open with changes first. Pieces: mount_lifecycle.h (mount, signals,
// unmount), mount_ops.h (kernel glue), mount_fs.h (the file system).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace plughost {

struct MountOptions {
  std::string mountpoint;
  std::string plugin;                       // path of the plug-in to load
  std::string root;                         // the "root_path" option; empty: not set
  std::vector<std::string> plugin_options;  // KEY=VALUE, each handed to SetOpt
  std::string cache_dir;                    // where staging files go; empty: $TMPDIR or /tmp
  bool foreground = false;
  bool allow_other = false;  // let other users in (the kernel still checks modes)
  bool debug = false;        // libfuse's request trace on stderr; implies foreground
  bool verbose = false;      // bind a logger: the plug-in's log on stderr
  // Owner and modes shown for every entry; -1 / empty: the defaults (the
  // mounting user, files 0600, directories 0700).
  long long uid = -1;
  long long gid = -1;
  std::string umask;           // octal; files 0666 & ~umask, directories 0777 & ~umask
  std::string file_mode;       // octal; wins over --umask for files
  std::string dir_mode;        // octal; wins over --umask for directories
  bool strict_modes = false;   // refuse chmod/chown instead of accepting them
  bool sync_on_close = false;  // make every upload at close durable
  // Seconds the kernel trusts attributes and names, and the mount its
  // listings. Changes made through the mount are seen at once; changes made
  // to the storage behind its back may take this long to show.
  double attr_timeout = 10.0;
  double dir_cache_time = 60.0;
  // The kernel gathers writes in its page cache (faster small writes). Off by
  // default: pages not yet handed over at a SIGTERM would be lost, and a
  // file shortened behind the mount's back reads as zeros instead of ending.
  bool writeback_cache = false;
};

// Exit statuses of the two commands.
inline constexpr int kMountExitOk = 0;
inline constexpr int kMountExitFailed = 1;
inline constexpr int kMountExitUsage = 2;

// Mounts and serves until unmounted; in the background unless foreground.
// Errors are reported on stderr, prefixed "plughost mount: ".
int RunMount(const MountOptions& options);
// Unmounts a mount made by RunMount (or any FUSE mount of this user).
int RunUnmount(const std::string& mountpoint);

// The "mount" and "unmount" subcommands of a CLI11 application whose global
// options hold the plug-in path, root, plug-in options and verbosity.
class MountCommands {
 public:
  void Register(CLI::App& app);
  // Whether the parsed command line chose one of the two subcommands.
  bool chosen() const noexcept { return chosen_ != Chosen::kNone; }
  // Runs the chosen subcommand. `plugin_path` is only called for a mount.
  int Run(const std::function<std::string()>& plugin_path, const std::string& root,
          const std::vector<std::string>& plugin_options, bool verbose);

 private:
  enum class Chosen { kNone, kMount, kUnmount };
  Chosen chosen_ = Chosen::kNone;
  MountOptions options_;
  std::string unmount_point_;
};

}  // namespace plughost
