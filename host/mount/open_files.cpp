#include "host/mount/open_files.h"

#include <unistd.h>

#include "host/core/paths.h"
#include "host/mount/read_ahead.h"

namespace plughost {

OpenNode::~OpenNode() {
  if (fd >= 0) close(fd);
}

OpenFiles::~OpenFiles() {
  // Handles the kernel never released (a forced unmount).
  std::lock_guard<std::mutex> guard(handles_lock_);
  for (OpenHandle* handle : handles_)
    delete handle;
  handles_.clear();
}

std::shared_ptr<OpenNode> OpenFiles::Acquire(const std::string& relative) {
  std::lock_guard<std::mutex> guard(lock_);
  std::shared_ptr<OpenNode>& slot = nodes_[relative];
  if (!slot) {
    slot = std::make_shared<OpenNode>();
    slot->relative = relative;
    count_.fetch_add(1, std::memory_order_relaxed);
  }
  ++slot->opens;
  return slot;
}

bool OpenFiles::Drop(const std::shared_ptr<OpenNode>& node, std::string* aside) {
  aside->clear();
  std::lock_guard<std::mutex> guard(lock_);
  if (--node->opens > 0) return false;
  if (node->hidden) *aside = node->relative;
  auto it = nodes_.find(node->relative);
  if (it != nodes_.end() && it->second == node) {
    nodes_.erase(it);
    count_.fetch_sub(1, std::memory_order_relaxed);
  }
  return true;
}

std::shared_ptr<OpenNode> OpenFiles::Find(const std::string& relative) const {
  if (count_.load(std::memory_order_relaxed) == 0) return nullptr;
  std::lock_guard<std::mutex> guard(lock_);
  auto it = nodes_.find(relative);
  return it == nodes_.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<OpenNode>> OpenFiles::PendingIn(const std::string& directory) const {
  std::vector<std::shared_ptr<OpenNode>> out;
  if (count_.load(std::memory_order_relaxed) == 0) return out;
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto& [relative, node] : nodes_) {
    if (node->pending.load() && DirName(relative) == directory) out.push_back(node);
  }
  return out;
}

std::vector<std::shared_ptr<OpenNode>> OpenFiles::Tree(const std::string& relative) const {
  std::vector<std::shared_ptr<OpenNode>> out;
  if (count_.load(std::memory_order_relaxed) == 0) return out;
  const std::string prefix = relative + "/";
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto& [name, node] : nodes_) {
    if (name == relative || name.compare(0, prefix.size(), prefix) == 0) out.push_back(node);
  }
  return out;
}

std::vector<std::shared_ptr<OpenNode>> OpenFiles::All() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::shared_ptr<OpenNode>> out;
  for (const auto& entry : nodes_)
    out.push_back(entry.second);
  return out;
}

std::size_t OpenFiles::Count() const {
  std::lock_guard<std::mutex> guard(lock_);
  return nodes_.size();
}

std::string OpenFiles::RelativeOf(const OpenNode& node) const {
  std::lock_guard<std::mutex> guard(lock_);
  return node.relative;
}

bool OpenFiles::Unlinked(const OpenNode& node) const {
  std::lock_guard<std::mutex> guard(lock_);
  return node.unlinked;
}

bool OpenFiles::Hidden(const OpenNode& node) const {
  std::lock_guard<std::mutex> guard(lock_);
  return node.hidden;
}

void OpenFiles::ForgetLocked(const std::string& relative) {
  auto it = nodes_.find(relative);
  if (it == nodes_.end()) return;
  it->second->unlinked = true;
  nodes_.erase(it);
  count_.fetch_sub(1, std::memory_order_relaxed);
}

void OpenFiles::Forget(const std::string& relative) {
  std::lock_guard<std::mutex> guard(lock_);
  ForgetLocked(relative);
}

bool OpenFiles::Hide(const std::string& relative, const std::string& aside) {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = nodes_.find(relative);
  if (it == nodes_.end()) return false;
  std::shared_ptr<OpenNode> node = it->second;
  nodes_.erase(it);
  node->relative = aside;
  node->hidden = true;
  // Kept in the table under the aside name, so that it is deleted at the
  // last release and found at shutdown.
  nodes_[aside] = node;
  return true;
}

void OpenFiles::MoveTree(const std::string& source, const std::string& target) {
  std::lock_guard<std::mutex> guard(lock_);
  ForgetLocked(target);
  std::vector<std::shared_ptr<OpenNode>> moved;
  const std::string prefix = source + "/";
  for (auto it = nodes_.begin(); it != nodes_.end();) {
    if (it->first == source || it->first.compare(0, prefix.size(), prefix) == 0) {
      moved.push_back(it->second);
      it = nodes_.erase(it);
    } else {
      ++it;
    }
  }
  for (const std::shared_ptr<OpenNode>& node : moved) {
    node->relative = target + node->relative.substr(source.size());
    auto& slot = nodes_[node->relative];
    if (slot) {
      slot->unlinked = true;
      count_.fetch_sub(1, std::memory_order_relaxed);
    }
    slot = node;
  }
}

std::uint64_t OpenFiles::Register(std::unique_ptr<OpenHandle> handle) {
  std::lock_guard<std::mutex> guard(handles_lock_);
  handles_.insert(handle.get());
  return reinterpret_cast<std::uint64_t>(handle.release());
}

std::shared_ptr<OpenNode> OpenFiles::NodeOf(std::uint64_t fh) const {
  std::lock_guard<std::mutex> guard(handles_lock_);
  auto it = handles_.find(reinterpret_cast<OpenHandle*>(fh));
  return it == handles_.end() ? nullptr : (*it)->node;
}

std::unique_ptr<OpenHandle> OpenFiles::Take(std::uint64_t fh) {
  auto* handle = reinterpret_cast<OpenHandle*>(fh);
  std::lock_guard<std::mutex> guard(handles_lock_);
  if (handles_.erase(handle) == 0) return nullptr;
  return std::unique_ptr<OpenHandle>(handle);
}

}  // namespace plughost
