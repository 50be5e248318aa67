#include "host/mount/write_behind.h"

#include <fcntl.h>

#include <algorithm>
#include <system_error>

namespace plughost {

WriteBehind::~WriteBehind() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
    queue_.clear();
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void WriteBehind::Appended(const std::shared_ptr<const void>& owner, int fd,
                           WriteBehindState& state, long long end) {
  if (end < kFrom) return;
  long long to = end / kStep * kStep;
  if (to <= state.queued) return;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (stop_) return;
    if (!thread_.joinable()) {
      try {
        thread_ = std::thread([this] { Run(); });
      } catch (const std::system_error&) {
        // No thread to spare: the staged copy just stays in memory.
        return;
      }
    }
    queue_.push_back(Stretch{owner, fd, &state, state.queued, to});
  }
  state.queued = to;
  wake_.notify_one();
}

void WriteBehind::Cut(WriteBehindState& state, long long size) {
  long long kept = std::max(0LL, size) / kStep * kStep;
  state.queued = std::min(state.queued, kept);
  // A stretch still queued may raise it again; the upload then asks the
  // kernel to drop pages that are dirty, which it does not do.
  long long clean = state.clean.load();
  while (clean > kept && !state.clean.compare_exchange_weak(clean, kept)) {
  }
}

void WriteBehind::Drain() {
  std::unique_lock<std::mutex> guard(lock_);
  idle_.wait(guard, [this] { return queue_.empty() && !busy_; });
}

void WriteBehind::Run() {
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    wake_.wait(guard, [this] { return stop_ || !queue_.empty(); });
    if (stop_) return;
    Stretch stretch = std::move(queue_.front());
    queue_.pop_front();
    busy_ = true;
    guard.unlock();
    // Held for the calls: the owner's fd stays open and is not reused.
    if (std::shared_ptr<const void> owner = stretch.owner.lock()) {
      HandOver(stretch);
    }
    guard.lock();
    busy_ = false;
    if (queue_.empty()) idle_.notify_all();
  }
}

namespace {

void RaiseTo(std::atomic<long long>& value, long long to) {
  long long now = value.load();
  while (now < to && !value.compare_exchange_weak(now, to)) {
  }
}

}  // namespace

// These calls may block while the disk's queue is full: that is why they
// are made here and not in the writer's thread.
void WriteBehind::HandOver(const Stretch& stretch) {
  const int fd = stretch.fd;
  std::atomic<long long>& clean = stretch.state->clean;
  if (sync_file_range(fd, stretch.from, stretch.to - stretch.from, SYNC_FILE_RANGE_WRITE) != 0) {
    return;
  }
  // The stretches before this one were started earlier: waiting for them
  // while this one is on its way keeps the disk busy.
  long long before = clean.load();
  if (stretch.from > before &&
      sync_file_range(fd, before, stretch.from - before, SYNC_FILE_RANGE_WAIT_BEFORE) == 0) {
    RaiseTo(clean, stretch.from);
  }
  bool last;
  {
    std::lock_guard<std::mutex> guard(lock_);
    last = queue_.empty();
  }
  // Nothing follows (for now): this one is waited for too.
  if (last && sync_file_range(fd, stretch.from, stretch.to - stretch.from,
                              SYNC_FILE_RANGE_WAIT_BEFORE) == 0) {
    RaiseTo(clean, stretch.to);
  }
}

void DropCleanPages(int fd, long long from, long long to) {
  if (to > from) posix_fadvise(fd, from, to - from, POSIX_FADV_DONTNEED);
}

}  // namespace plughost
