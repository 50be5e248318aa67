// The mount's table of open files: one node per open entry, shared by every
// handle open on it, keyed by the entry's relative path, and the handles the
// kernel holds.
//
// A node follows its entry through renames; when the entry is removed or
// replaced while open, the node either keeps its staged copy (unlinked) or
// follows the entry to an aside name (hidden) that is deleted at the last
// release, so that open files keep their content like on a local disk.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/mount/write_behind.h"

namespace plughost {

struct ReadAhead;

struct OpenNode {
  ~OpenNode();

  std::mutex lock;  // serialises staging, writes and uploads

  // Guarded by OpenFiles' lock.
  std::string relative;
  bool unlinked = false;  // gone from the storage: never uploaded again
  bool hidden = false;    // `relative` is an aside name, deleted at the last release
  int opens = 0;

  // Guarded by `lock`; the atomics are also read without it.
  int fd = -1;  // staging file, -1 while not staged
  std::atomic<bool> staged{false};
  std::atomic<bool> dirty{false};
  // Created here and not uploaded yet: the entry exists only in this table.
  std::atomic<bool> pending{false};
  std::atomic<long long> size{0};
  std::atomic<time_t> written{0};  // time of the last local change
  // Times set while dirty, applied after the upload.
  std::atomic<bool> has_pending_times{false};
  std::atomic<time_t> pending_access{0};
  std::atomic<time_t> pending_modify{0};

  // Write-behind of the staging file (write_behind.h).
  WriteBehindState behind;

  // Sequential reads of an unstaged file (read_ahead.h); guarded by `lock`.
  std::unique_ptr<ReadAhead> read_ahead;
};

struct OpenHandle {
  std::shared_ptr<OpenNode> node;
  bool writable = false;
};

class OpenFiles {
 public:
  OpenFiles() = default;
  ~OpenFiles();
  OpenFiles(const OpenFiles&) = delete;
  OpenFiles& operator=(const OpenFiles&) = delete;

  // The node of `relative`, created when none is open; counts one open.
  std::shared_ptr<OpenNode> Acquire(const std::string& relative);
  // Counts one close; true when it was the last (the node is then out of the
  // table). `aside` receives the aside name to delete, if the node had one.
  bool Drop(const std::shared_ptr<OpenNode>& node, std::string* aside);
  // The open node of `relative`, if any.
  std::shared_ptr<OpenNode> Find(const std::string& relative) const;
  // Nodes created here and not uploaded yet, directly inside `directory`.
  std::vector<std::shared_ptr<OpenNode>> PendingIn(const std::string& directory) const;
  // The open nodes of `relative` and of everything below it.
  std::vector<std::shared_ptr<OpenNode>> Tree(const std::string& relative) const;
  // Every node (for the uploads at shutdown).
  std::vector<std::shared_ptr<OpenNode>> All() const;
  std::size_t Count() const;

  std::string RelativeOf(const OpenNode& node) const;
  bool Unlinked(const OpenNode& node) const;
  bool Hidden(const OpenNode& node) const;

  // The entry of `relative` is gone: its node (if any) is never uploaded again.
  void Forget(const std::string& relative);
  // The entry of `relative` now lives at `aside`, to be deleted at the last
  // release. False when no node is open there any more (delete it now).
  bool Hide(const std::string& relative, const std::string& aside);
  // `source` and everything below it now live under `target`; an open node
  // of `target` itself is forgotten.
  void MoveTree(const std::string& source, const std::string& target);

  // Handles are looked up under a lock: the kernel hands one from the thread
  // that opened it to others, an ordering the thread checkers cannot see.
  std::uint64_t Register(std::unique_ptr<OpenHandle> handle);
  std::shared_ptr<OpenNode> NodeOf(std::uint64_t fh) const;
  // Removes the handle from the table and hands it over; null when unknown.
  std::unique_ptr<OpenHandle> Take(std::uint64_t fh);

 private:
  void ForgetLocked(const std::string& relative);

  mutable std::mutex lock_;
  std::unordered_map<std::string, std::shared_ptr<OpenNode>> nodes_;
  std::atomic<std::size_t> count_{0};  // nodes_.size(), read without the lock

  mutable std::mutex handles_lock_;
  std::unordered_set<OpenHandle*> handles_;
};

}  // namespace plughost
