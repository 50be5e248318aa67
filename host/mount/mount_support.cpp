#include "host/mount/mount_support.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "time/rfc3339.h"

namespace plughost {

int ErrnoOf(AERROR code) {
  return ConvertAERROR(code);
}

namespace {

// "YYYY-MM-DDThh:mm:ss": the part of a file time that carries the fields.
constexpr size_t kFieldsLength = 19;

std::string LocalFields(time_t t) {
  struct tm fields {};
  localtime_r(&t, &fields);
  return TMToRFC3339(&fields);
}

bool SameFields(const std::string& a, const std::string& b) {
  return a.size() >= kFieldsLength && b.size() >= kFieldsLength &&
         a.compare(0, kFieldsLength, b, 0, kFieldsLength) == 0;
}

// Summer-time shifts in use somewhere; one hour almost everywhere.
constexpr time_t kShifts[] = {3600, -3600, 1800, -1800, 7200, -7200};

}  // namespace

time_t InstantOfFileTime(const std::string& text) {
  time_t t = RFC3339ToTM(text.c_str());
  if (SameFields(LocalFields(t), text)) return t;
  for (time_t shift : kShifts) {
    if (SameFields(LocalFields(t - shift), text)) return t - shift;
  }
  return t;
}

std::string FileTimeOf(time_t t) {
  std::string text = LocalFields(t);
  if (RFC3339ToTM(text.c_str()) == t) return text;
  for (time_t shift : kShifts) {
    std::string shifted = LocalFields(t - shift);
    if (RFC3339ToTM(shifted.c_str()) == t) return shifted;
  }
  return text;
}

std::string RelativeOf(std::string_view mount_path) {
  while (!mount_path.empty() && mount_path.front() == '/')
    mount_path.remove_prefix(1);
  while (!mount_path.empty() && mount_path.back() == '/')
    mount_path.remove_suffix(1);
  return std::string(mount_path);
}

std::string ProtocolPathOf(const std::string& root_id, std::string_view mount_path) {
  std::string relative = RelativeOf(mount_path);
  if (relative.empty()) return root_id;
  std::string out = root_id;
  if (out.empty() || out.back() != '/') out += '/';
  out += relative;
  return out;
}

void SplitRelative(const std::string& relative, std::string* parent, std::string* name) {
  size_t slash = relative.rfind('/');
  if (slash == std::string::npos) {
    parent->clear();
    *name = relative;
  } else {
    *parent = relative.substr(0, slash);
    *name = relative.substr(slash + 1);
  }
}

void FillStat(const _FS_FILE_V2& file, uid_t uid, gid_t gid, struct stat* st) {
  *st = {};
  bool directory = file.type == 2;
  st->st_mode = directory ? (S_IFDIR | 0755) : (S_IFREG | 0644);
  // Two links for a directory, as a fresh one has; nothing counts subdirectories.
  st->st_nlink = directory ? 2 : 1;
  st->st_uid = uid;
  st->st_gid = gid;
  st->st_size = file.size < 0 ? 0 : file.size;
  st->st_blocks = (st->st_size + 511) / 512;
  // Large blocks make copying tools use large buffers (one request each).
  st->st_blksize = 1 << 20;
  st->st_atim.tv_sec = InstantOfFileTime(file.access_time);
  st->st_mtim.tv_sec = InstantOfFileTime(file.modify_time);
  st->st_ctim.tv_sec = InstantOfFileTime(file.create_time);
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
    found =
        MountEntry{point, UnescapeMountField(words[dash + 1]), UnescapeMountField(words[dash + 2])};
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
