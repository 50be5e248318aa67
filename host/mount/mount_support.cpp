#include "host/mount/mount_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "host/core/file_time.h"

namespace plughost {

int ErrnoOf(AERROR code) {
  return ConvertAERROR(code);
}

void FillStatShape(bool directory, long long size, const Ownership& owner, struct stat* st) {
  *st = {};
  st->st_mode =
      directory ? (S_IFDIR | (owner.dir_mode & 07777)) : (S_IFREG | (owner.file_mode & 07777));
  // Two links for a directory, as a fresh one has; nothing counts subdirectories.
  st->st_nlink = directory ? 2 : 1;
  st->st_uid = owner.uid;
  st->st_gid = owner.gid;
  st->st_size = size < 0 ? 0 : size;
  st->st_blocks = (st->st_size + 511) / 512;
  st->st_blksize = kReportedBlockSize;
}

void FillStat(const _FS_FILE_V2& file, const Ownership& owner, struct stat* st) {
  FillStatShape(file.type == 2, file.size, owner, st);
  st->st_atim.tv_sec = FileTimeInstant(file.access_time);
  st->st_mtim.tv_sec = FileTimeInstant(file.modify_time);
  st->st_ctim.tv_sec = FileTimeInstant(file.create_time);
}

bool KernelChecksModes(const Ownership& owner, bool allow_other, uid_t mounter) {
  if (allow_other) return true;
  if (mounter == 0) return false;
  if (owner.uid != mounter) return true;
  // The owner's bits decide for the owner; the kernel alone would let it run
  // a file that only its group or others may execute.
  const bool full = (owner.file_mode & 0600) == 0600 && (owner.dir_mode & 0700) == 0700;
  const bool exec_agrees = (owner.file_mode & 0111) == 0 || (owner.file_mode & 0100) != 0;
  return !(full && exec_agrees);
}

bool BypassesPageCache(int flags, bool writeback_cache) {
  return (flags & O_ACCMODE) == O_WRONLY && !writeback_cache;
}

bool KernelDropsPagesOnDirectWrites(unsigned proto_minor) {
  return proto_minor >= 39;
}

namespace {

bool InGroup(gid_t gid, const Caller& caller) {
  if (gid == caller.gid) return true;
  for (gid_t group : caller.groups) {
    if (group == gid) return true;
  }
  return false;
}

}  // namespace

int AccessFor(const struct stat& st, int mask, const Caller& caller) {
  mask &= R_OK | W_OK | X_OK;
  if (mask == 0) return 0;
  if (caller.uid == 0) {
    if ((mask & X_OK) != 0 && !S_ISDIR(st.st_mode) && (st.st_mode & 0111) == 0) return -EACCES;
    return 0;
  }
  mode_t bits = st.st_mode;
  if (caller.uid == st.st_uid) {
    bits >>= 6;
  } else if (InGroup(st.st_gid, caller)) {
    bits >>= 3;
  }
  return (static_cast<int>(bits) & mask) == mask ? 0 : -EACCES;
}

int ChownAllowed(const struct stat& st, uid_t uid, gid_t gid, const Caller& caller) {
  if (caller.uid == 0) return 0;
  const bool owner = caller.uid == st.st_uid;
  if (uid != static_cast<uid_t>(-1) && (!owner || uid != st.st_uid)) return -EPERM;
  const bool member = !caller.groups_known || InGroup(gid, caller);
  if (gid != static_cast<gid_t>(-1) && (!owner || (gid != st.st_gid && !member))) {
    return -EPERM;
  }
  return 0;
}

std::string UnescapeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      bool octal = true;
      int value = 0;
      for (size_t k = 1; k <= 3; ++k) {
        char c = field[i + k];
        if (c < '0' || c > '7') {
          octal = false;
          break;
        }
        value = value * 8 + (c - '0');
      }
      if (octal) {
        out += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    out += field[i];
  }
  return out;
}

std::optional<MountEntry> FindMount(const std::string& absolute_path,
                                    const std::string& mountinfo) {
  std::ifstream in(mountinfo);
  std::string line;
  std::optional<MountEntry> found;
  while (std::getline(in, line)) {
    // id parent major:minor root mount-point options [optional...] - type source super
    std::istringstream fields(line);
    std::vector<std::string> words;
    std::string word;
    while (fields >> word)
      words.push_back(word);
    if (words.size() < 7) continue;
    size_t dash = 6;
    while (dash < words.size() && words[dash] != "-")
      ++dash;
    if (dash + 2 >= words.size()) continue;
    std::string point = UnescapeMountField(words[4]);
    if (point != absolute_path) continue;
    // The last entry wins: it is the one on top.
    found = MountEntry{std::strtol(words[0].c_str(), nullptr, 10), point,
                       UnescapeMountField(words[dash + 1]), UnescapeMountField(words[dash + 2])};
  }
  return found;
}

std::string AbsolutePath(const std::string& path) {
  if (char* real = realpath(path.c_str(), nullptr)) {
    std::string out = real;
    std::free(real);
    return out;
  }
  std::string out;
  if (path.empty() || path.front() != '/') {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) != nullptr) out = cwd;
    out += '/';
  }
  out += path;
  // Drop trailing separators (but keep "/").
  while (out.size() > 1 && out.back() == '/')
    out.pop_back();
  return out;
}

}  // namespace plughost
