// Helpers of the transfer tests: the real localdisk plug-in over a temporary
// root, a private tmpfs of a chosen size (probed: mounting needs root), and
// upload sources that cancel or fail at a chosen chunk.
#pragma once

#include <dirent.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/plugin.h"
#include "host/core/transfer.h"
#include "tests/support/files.h"

namespace transfer_test {

constexpr long long kChunk = 524288;

using test_support::Exists;
using test_support::Pattern;
using test_support::ReadFile;
using test_support::WriteFile;

class TempDir : public test_support::TempDir {
 public:
  TempDir() : test_support::TempDir("plughost-transfer") {}
};

// Names in a local directory, sorted; "." and ".." left out.
inline std::vector<std::string> Names(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* entry = readdir(d)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A tmpfs of `bytes` on `parent`/tmpfs, in a mount namespace of this
// process's own where possible (nothing leaks into the host's mount table
// even if the test dies), unmounted at the end. Mounting needs root;
// `reason()` says why it is not mounted.
class Tmpfs {
 public:
  Tmpfs(const std::string& parent, long long bytes) : path_(parent + "/tmpfs") {
    if (mkdir(path_.c_str(), 0755) != 0) {
      reason_ = std::string("mkdir failed: ") + std::strerror(errno);
      return;
    }
    if (geteuid() != 0) {
      reason_ = "mounting a tmpfs needs root (CAP_SYS_ADMIN); running as uid " +
                std::to_string(geteuid());
      return;
    }
    if (unshare(CLONE_NEWNS) == 0) mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    const std::string options = "size=" + std::to_string(bytes) + ",mode=0777";
    if (mount("tmpfs", path_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
      reason_ = std::string("mount of a tmpfs failed: ") + std::strerror(errno);
      return;
    }
    mounted_ = true;
  }
  ~Tmpfs() {
    if (mounted_) umount2(path_.c_str(), MNT_DETACH);
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
// (roughly: to a block).
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

// The localdisk plug-in over a fresh root directory.
class LocalDiskTest : public ::testing::Test {
 protected:
  void SetUp() override { Open(dir_ / "root"); }
  void TearDown() override {
    client_.reset();
    plugin_.reset();
  }

  void Open(const std::string& root) {
    root_ = root;
    mkdir(root_.c_str(), 0755);
    client_.reset();
    if (!plugin_)
      plugin_ = std::make_unique<plughost::Plugin>(plughost::Plugin::Load(LOCALDISK_PLUGIN));
    client_ = std::make_unique<plughost::Client>(*plugin_, plugin_->CreateProtocol(&config_));
    client_->SetOpt("root_path", root_);
    root_id_ = client_->RootId();
  }

  std::string Local(const std::string& name) const { return root_ + "/" + name; }

  // Names in the root that are temporary files of ours.
  std::vector<std::string> Temporaries(const std::string& dir = {}) const {
    std::vector<std::string> found;
    for (const std::string& name : Names(dir.empty() ? root_ : dir))
      if (plughost::IsTemporaryName(name)) found.push_back(name);
    return found;
  }

  TempDir dir_;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<plughost::Plugin> plugin_;
  std::unique_ptr<plughost::Client> client_;
  std::string root_;
  std::string root_id_;
};

// An upload source serving `content`; it can ask the transfer to stop, or
// fail, when the request at `at_offset` (or later) comes.
class Source : public ICacheIO {
 public:
  enum Mode { kServe, kCancelAt, kFailAt };
  Source(std::string content, std::shared_ptr<_FS_HANDLE> handle = nullptr, Mode mode = kServe,
         long long at_offset = 0)
      : content_(std::move(content)), handle_(std::move(handle)), mode_(mode), at_(at_offset) {}

  AERROR ReadCache(_FS_CACHE_READ* request) override {
    ++requests;
    if (mode_ == kFailAt && request->offset >= at_) return FAILED;
    long long n = 0;
    if (request->offset < static_cast<long long>(content_.size())) {
      n = std::min<long long>(request->capacity,
                              static_cast<long long>(content_.size()) - request->offset);
      std::memcpy(request->buffer, content_.data() + request->offset, static_cast<size_t>(n));
    }
    request->length = n;
    if (mode_ == kCancelAt && request->offset >= at_ && handle_) {
      handle_->state.store(FS_HANDLE_STOP);
    }
    return SUCCESS;
  }
  int requests = 0;

 private:
  std::string content_;
  std::shared_ptr<_FS_HANDLE> handle_;
  Mode mode_;
  long long at_;
};

}  // namespace transfer_test
