#include "host/mount/mount_support.h"

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

void FillStat(const _FS_FILE_V2& file, const Ownership& owner, struct stat* st) {
  *st = {};
  bool directory = file.type == 2;
  st->st_mode =
      directory ? (S_IFDIR | (owner.dir_mode & 07777)) : (S_IFREG | (owner.file_mode & 07777));
  // Two links for a directory, as a fresh one has; nothing counts subdirectories.
  st->st_nlink = directory ? 2 : 1;
  st->st_uid = owner.uid;
  st->st_gid = owner.gid;
  st->st_size = file.size < 0 ? 0 : file.size;
  st->st_blocks = (st->st_size + 511) / 512;
  st->st_blksize = kReportedBlockSize;
  st->st_atim.tv_sec = FileTimeInstant(file.access_time);
  st->st_mtim.tv_sec = FileTimeInstant(file.modify_time);
  st->st_ctim.tv_sec = FileTimeInstant(file.create_time);
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
