// MountFs: creating, removing and renaming entries.
#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include "host/core/paths.h"
#include "host/core/transfer.h"
#include "host/mount/mount_fs.h"

namespace plughost {

int MountFs::Mkdir(const char* path) {
  std::string relative;
  if (int error = RelativeOf(path, &relative); error != 0) return error;
  if (relative.empty() || open_.Find(relative)) return -EEXIST;
  try {
    _FS_FILE_V2 file = client_.CreateDirectory(Protocol(DirName(relative)), BaseName(relative),
                                               {"mkdir", relative});
    // The plug-in accepts an existing entry of that name, whatever its kind.
    Changed();
    if (file.type != 2) return -EEXIST;
  } catch (const ProtocolError& error) {
    return ErrnoOf(error.code());
  }
  return 0;
}

int MountFs::HideOpen(const std::string& relative) {
  const std::string directory = DirName(relative);
  const std::string aside_name = TemporaryNameFor(BaseName(relative));
  const std::string aside = directory.empty() ? aside_name : directory + "/" + aside_name;
  try {
    client_.Move(Protocol(relative), Protocol(directory), aside_name, {"move", relative});
  } catch (const ProtocolError& error) {
    return ErrnoOf(error.code());
  }
  Changed();
  if (!open_.Hide(relative, aside)) {
    // Closed meanwhile: nobody needs the aside entry.
    try {
      client_.Delete(Protocol(aside), {"remove", aside});
    } catch (const ProtocolError&) {
    }
  }
  return 0;
}

int MountFs::Unlink(const char* path) {
  std::string relative;
  if (int error = RelativeOf(path, &relative); error != 0) return error;
  std::shared_ptr<OpenNode> node = open_.Find(relative);
  if (node && !node->staged.load() && !node->pending.load()) {
    // Readers of the open file read it through its name: keep it aside
    // until the last of them closes, like a local file system does.
    int error = HideOpen(relative);
    stamps_.Forget(relative);
    return error;
  }
  try {
    client_.Delete(Protocol(relative), {"remove", relative});
  } catch (const ProtocolError& error) {
    // A file created here may not have reached the storage yet.
    if (!(node && node->pending.load() && error.code() == FILE_NOT_FOUND)) {
      return ErrnoOf(error.code());
    }
  }
  open_.Forget(relative);
  stamps_.Forget(relative);
  Changed();
  return 0;
}

int MountFs::Rmdir(const char* path) {
  std::string relative;
  if (int error = RelativeOf(path, &relative); error != 0) return error;
  if (relative.empty()) return -EBUSY;
  try {
    // The plug-in refuses a non-empty directory with a vague error; the
    // host can tell.
    if (!open_.PendingIn(relative).empty() ||
        !client_.List(Protocol(relative), {"list", relative}).empty()) {
      return -ENOTEMPTY;
    }
    client_.DeleteDirectory(Protocol(relative), {"rmdir", relative});
    Changed();
  } catch (const ProtocolError& error) {
    return ErrnoOf(error.code());
  }
  return 0;
}

int MountFs::Rename(const char* from, const char* to, unsigned int flags) {
  if ((flags & RENAME_EXCHANGE) != 0) return -EINVAL;
  if ((flags & ~static_cast<unsigned int>(RENAME_NOREPLACE)) != 0) return -EINVAL;
  std::string source, target;
  if (int error = RelativeOf(from, &source); error != 0) return error;
  if (int error = RelativeOf(to, &target); error != 0) return error;
  if (source.empty() || target.empty()) return -EBUSY;
  if (source == target) return 0;
  // An upload of an open file computes its name when it starts and moves
  // the new content over that name when it ends: a rename in between would
  // bring the old name back. Every open file the rename touches is held
  // still until the table knows the new names (in address order, so two
  // renames never wait for each other).
  auto touching = [&] {
    std::vector<std::shared_ptr<OpenNode>> nodes = open_.Tree(source);
    if (std::shared_ptr<OpenNode> replaced = open_.Find(target)) nodes.push_back(replaced);
    std::sort(nodes.begin(), nodes.end());
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
    return nodes;
  };
  std::vector<std::shared_ptr<OpenNode>> touched = touching();
  std::vector<std::unique_lock<std::mutex>> held;
  for (;;) {
    held.clear();
    for (const std::shared_ptr<OpenNode>& node : touched)
      held.emplace_back(node->lock);
    // Opened meanwhile: start again with those too.
    std::vector<std::shared_ptr<OpenNode>> now = touching();
    if (now == touched) break;
    held.clear();
    touched = std::move(now);
  }
  if (std::shared_ptr<OpenNode> node = open_.Find(source);
      node && node->pending.load() && std::binary_search(touched.begin(), touched.end(), node)) {
    // Still being created: it must exist on the storage to be moved.
    if (int error = UploadLocked(*node, false); error != 0) return error;
  }
  _FS_FILE_V2 existing;
  std::shared_ptr<OpenNode> replaced = open_.Find(target);
  bool exists = Info(target, &existing) == 0;
  if (exists || (replaced && replaced->pending.load())) {
    if ((flags & RENAME_NOREPLACE) != 0) return -EEXIST;
  }
  if (exists) {
    _FS_FILE_V2 moving;
    if (int error = Info(source, &moving); error != 0) return error;
    if (existing.type == 2) {
      if (moving.type != 2) return -EISDIR;
      try {
        if (!client_.List(Protocol(target), {"list", target}).empty()) return -ENOTEMPTY;
      } catch (const ProtocolError& error) {
        return ErrnoOf(error.code());
      }
    } else if (moving.type == 2) {
      return -ENOTDIR;
    } else if (replaced && !replaced->staged.load() && !replaced->pending.load()) {
      // Readers of the replaced file keep reading the old content.
      if (int error = HideOpen(target); error != 0) return error;
    }
  }
  try {
    client_.Move(Protocol(source), Protocol(DirName(target)), BaseName(target), {"move", source});
  } catch (const ProtocolError& error) {
    return ErrnoOf(error.code());
  }
  // Open files follow their entry: a replaced target is gone, and the
  // source (with everything below it) lives under the new name.
  Changed();
  open_.MoveTree(source, target);
  stamps_.Forget(source);
  stamps_.Forget(target);
  if (IsKernelHiddenName(BaseName(target)) && !open_.Find(target)) {
    // The bridge hides a file it believes open, but the last release came
    // first: nobody will delete it later. (These names are the bridge's
    // own: never listed, and reserved.)
    try {
      client_.Delete(Protocol(target), {"remove", target});
    } catch (const ProtocolError&) {
    }
  }
  return 0;
}

}  // namespace plughost
