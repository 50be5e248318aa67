// Helpers of the fault-injection tests: temporary directories, a private
// tmpfs of a chosen size, host callbacks, and running code as an
// unprivileged user in a child process.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "localdisk/local_disk.h"
#include "protocol/host_interfaces.h"
#include "protocol/records.h"
#include "tests/support/files.h"

namespace hardening {

constexpr long long kChunk = 524288;

using test_support::Exists;
using test_support::Pattern;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::WriteFile;

// A tmpfs of `bytes` mounted on a directory inside `parent`, in a mount
// namespace of this process's own where the kernel allows one (so nothing
// leaks into the host's mount table even if the test dies), and unmounted at
// the end. `reason` says why not when mounting is impossible.
class PrivateTmpfs {
 public:
  PrivateTmpfs(const std::string& parent, long long bytes) : path_(parent + "/tmpfs") {
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
    const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
    if (mount("tmpfs", path_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
      reason_ = std::string("mount of a tmpfs failed: ") + std::strerror(errno);
      return;
    }
    mounted_ = true;
  }
  ~PrivateTmpfs() {
    if (mounted_ && umount2(path_.c_str(), MNT_DETACH) != 0)
      std::fprintf(stderr, "umount of %s failed: %s\n", path_.c_str(), std::strerror(errno));
    rmdir(path_.c_str());
  }
  PrivateTmpfs(const PrivateTmpfs&) = delete;
  PrivateTmpfs& operator=(const PrivateTmpfs&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& reason() const { return reason_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string reason_;
  bool mounted_ = false;
};

// Writes `path` until the file system refuses, so that no block is left.
inline void FillUp(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) std::abort();
  std::string block(4096, 'f');
  for (size_t size = block.size(); size > 0; size /= 2) {
    while (write(fd, block.data(), size) == static_cast<ssize_t>(size)) {
    }
  }
  close(fd);
}

// A host cache that hands out `content` chunk by chunk.
class MemoryCache : public ICacheIO {
 public:
  explicit MemoryCache(std::string content) : content_(std::move(content)) {}
  int requests = 0;
  AERROR ReadCache(_FS_CACHE_READ* request) override {
    ++requests;
    long long n = 0;
    if (request->offset < static_cast<long long>(content_.size())) {
      n = std::min<long long>(request->capacity,
                              static_cast<long long>(content_.size()) - request->offset);
      std::memcpy(request->buffer, content_.data() + request->offset, static_cast<size_t>(n));
    }
    request->length = n;
    return SUCCESS;
  }

 private:
  std::string content_;
};

// Collects what a Read delivers; every chunk is also announced to `on_chunk`
// (which runs on the reading thread).
class CollectingSink : public IFetchCallback {
 public:
  struct Chunk {
    long long offset;
    long long length;
  };
  std::mutex lock;
  std::vector<Chunk> chunks;
  std::string data;
  std::atomic<int> zero_chunks{0};
  std::function<void(const Chunk&)> on_chunk;

  AERROR OnFetch(long long offset, const char* bytes, long long length, long long*) override {
    {
      std::lock_guard<std::mutex> guard(lock);
      chunks.push_back({offset, length});
      if (length > 0) data.append(bytes, static_cast<size_t>(length));
    }
    if (length == 0) zero_chunks.fetch_add(1);
    if (on_chunk) on_chunk({offset, length});
    return SUCCESS;
  }
};

// Runs `body` in a forked child as the unprivileged user 65534 when this
// process is root (as itself otherwise) and returns the text that `body`
// produced; `error` receives a reason when the child could not be run.
inline std::string RunUnprivileged(const std::function<std::string()>& body, std::string* error) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) {
    *error = "pipe failed";
    return "";
  }
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) {
    *error = "fork failed";
    return "";
  }
  if (child == 0) {
    close(pipe_fds[0]);
    if (geteuid() == 0) {
      const gid_t nobody_group = 65534;
      if (setgroups(0, nullptr) != 0 || setgid(nobody_group) != 0 || setuid(65534) != 0) _exit(3);
    }
    std::string text = body();
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
      ssize_t n = write(pipe_fds[1], p, left);
      if (n <= 0) _exit(4);
      p += n;
      left -= static_cast<size_t>(n);
    }
    close(pipe_fds[1]);
    _exit(0);
  }
  close(pipe_fds[1]);
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(n));
  close(pipe_fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    *error = "the unprivileged child failed (status " + std::to_string(status) + ")";
  return text;
}

// Lines "label value" into a map.
inline std::map<std::string, std::string> ParseResults(const std::string& text) {
  std::map<std::string, std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const size_t space = line.find(' ');
    if (space != std::string::npos) out[line.substr(0, space)] = line.substr(space + 1);
    start = end + 1;
  }
  return out;
}

}  // namespace hardening
