// Write-behind of staged data. A writer that keeps appending to a large
// staging file has each completed stretch handed to the disk by a background
// thread, so that by the upload those pages are clean and the upload can drop
// them from memory right behind itself (DropCleanPages). A large write then holds
// about one copy of itself in the page cache (the stored file's) instead of
// two, and the stored file's new pages can take the staged copy's as they go.
// The writer never waits for the disk: on a slow one the thread falls behind
// and fewer pages are dropped. Only clean pages are ever dropped (the kernel
// keeps dirty ones), and a dropped page is read back from the disk when it is
// needed again, so nothing staged can be lost this way.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace plughost {

// How far one staging file's write-behind has come; lives beside its fd.
struct WriteBehindState {
  // Guarded by the owner's lock: [0, queued) has been handed to the thread.
  long long queued = 0;
  // [0, clean) is on the disk, unless written again since. Read by the upload.
  std::atomic<long long> clean{0};
};

class WriteBehind {
 public:
  // Staging files below this size are not handed to the disk early.
  static constexpr long long kFrom = 32LL << 20;
  // The stretch handed to the disk at a time.
  static constexpr long long kStep = 8LL << 20;

  WriteBehind() = default;
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;
  // Stops the thread; what is still queued is dropped (it only saves memory).
  ~WriteBehind();

  // After a write to `fd` that ended at `end` and made the file longer:
  // queues the whole steps before `end` not queued yet, once the file is
  // kFrom long. `owner` owns `fd` and `state`; they are used only while it
  // lives. With the owner's lock held.
  void Appended(const std::shared_ptr<const void>& owner, int fd, WriteBehindState& state,
                long long end);

  // The staging file was cut to `size`: what follows is new data. With the
  // owner's lock held.
  static void Cut(WriteBehindState& state, long long size);

  // Waits until the thread has handed over all that was queued, and waited
  // for the last of it (for tests).
  void Drain();

 private:
  struct Stretch {
    std::weak_ptr<const void> owner;
    int fd = -1;
    WriteBehindState* state = nullptr;
    long long from = 0, to = 0;
  };
  void Run();
  void HandOver(const Stretch& stretch);

  std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<Stretch> queue_;
  bool busy_ = false;
  bool stop_ = false;
  // Started at the first use: the mount forks into the background after
  // its file system is made, and a thread does not survive a fork.
  std::thread thread_;
};

// Lets the kernel drop the clean pages of `fd` in [from, to); dirty ones stay.
void DropCleanPages(int fd, long long from, long long to);

}  // namespace plughost
