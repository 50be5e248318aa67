// A small tmpfs for tests that need a file system that runs full, and a way
// to fill it. Mounting needs root, so the mount is a probe: `mounted()` says
// whether it worked and `reason()` why not.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace test_support {

// A tmpfs of `bytes` (root directory mode `mode`) mounted on `parent`/tmpfs,
// in a mount namespace of this process's own where the kernel allows one (so
// nothing leaks into the host's mount table even if the test dies), and
// unmounted at the end.
class Tmpfs {
 public:
  Tmpfs(const std::string& parent, long long bytes, const std::string& mode = "0755")
      : path_(parent + "/tmpfs") {
    if (geteuid() != 0) {
      reason_ = "mounting a tmpfs needs root (CAP_SYS_ADMIN); running as uid " +
                std::to_string(geteuid());
      return;
    }
    if (mkdir(path_.c_str(), 0755) != 0) {
      reason_ = std::string("mkdir failed: ") + std::strerror(errno);
      return;
    }
    // Best effort: a private namespace, with propagation to the parent
    // namespace switched off.
    if (unshare(CLONE_NEWNS) == 0) mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    const std::string options = "size=" + std::to_string(bytes) + ",mode=" + mode;
    if (mount("tmpfs", path_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
      reason_ = std::string("mount of a tmpfs failed: ") + std::strerror(errno);
      return;
    }
    mounted_ = true;
  }
  ~Tmpfs() {
    if (mounted_ && umount2(path_.c_str(), MNT_DETACH) != 0)
      std::fprintf(stderr, "umount of %s failed: %s\n", path_.c_str(), std::strerror(errno));
    rmdir(path_.c_str());
  }
  Tmpfs(const Tmpfs&) = delete;
  Tmpfs& operator=(const Tmpfs&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& reason() const { return reason_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string reason_;
  bool mounted_ = false;
};

// Writes `path` until the file system refuses, leaving `keep` bytes free
// (roughly: to a block); with no `keep`, no block is left.
inline void FillUp(const std::string& path, unsigned long long keep = 0) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) std::abort();
  std::string block(65536, 'f');
  for (size_t size = block.size(); size > 0; size /= 2) {
    for (;;) {
      struct statvfs vfs {};
      if (fstatvfs(fd, &vfs) != 0) break;
      unsigned long long free = vfs.f_bfree * vfs.f_frsize;
      if (free < keep + size) break;
      if (write(fd, block.data(), size) != static_cast<ssize_t>(size)) break;
    }
  }
  close(fd);
}

}  // namespace test_support
