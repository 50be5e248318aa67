// What the kernel's page cache holds of a file (cachestat, Linux 6.5+).
#pragma once

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

namespace test_support {

// Pages, not bytes.
struct PageCacheState {
  unsigned long long cached = 0, dirty = 0, writeback = 0;
};

// The state of [offset, offset + length) of `fd` (length 0: to the end);
// false, with errno set, when the kernel cannot tell.
inline bool PageCacheOf(int fd, PageCacheState* state, unsigned long long offset = 0,
                        unsigned long long length = 0) {
  struct {
    unsigned long long offset, length;
  } range{offset, length};
  struct {
    unsigned long long cache, dirty, writeback, evicted, recently_evicted;
  } stat{};
  constexpr long kCachestat = 451;  // the same number on every architecture
  if (syscall(kCachestat, fd, &range, &stat, 0) != 0) return false;
  state->cached = stat.cache;
  state->dirty = stat.dirty;
  state->writeback = stat.writeback;
  return true;
}

// Whether `dir` is in memory (tmpfs): its pages are never clean, so none
// can be dropped.
inline bool InMemory(const std::string& dir) {
  struct statfs where {};
  return statfs(dir.c_str(), &where) == 0 && where.f_type == TMPFS_MAGIC;
}

// The same for the file at `path`.
inline bool PageCacheOf(const std::string& path, PageCacheState* state) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = PageCacheOf(fd, state);
  close(fd);
  return ok;
}

}  // namespace test_support
