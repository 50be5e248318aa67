// Helpers of the fault-injection tests: temporary directories, a private
// tmpfs of a chosen size, host callbacks, and running code as an
// unprivileged user in a child process.
#pragma once

#include <fcntl.h>
#include <grp.h>
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
#include "tests/support/cache_content.h"
#include "tests/support/files.h"
#include "tests/support/tmpfs.h"

namespace hardening {

constexpr long long kChunk = 524288;

using test_support::Exists;
using test_support::FillUp;
using test_support::Pattern;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::WriteFile;

using test_support::Tmpfs;

// A host cache that hands out `content` chunk by chunk.
class MemoryCache : public ICacheIO {
 public:
  explicit MemoryCache(std::string content) : content_(std::move(content)) {}
  int requests = 0;
  AERROR ReadCache(_FS_CACHE_READ* request) override {
    ++requests;
    const long long n = test_support::CopyWindow(content_, request);
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
  std::string text = test_support::ReadFd(pipe_fds[0]);
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
