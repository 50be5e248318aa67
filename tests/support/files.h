// Real temporary directories and small file helpers shared by the test suites.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace test_support {

// A fresh directory from mkdtemp under $TMPDIR (or /tmp), removed with
// everything in it at the end. The path is canonical (a TMPDIR behind a
// symbolic link is resolved) so that paths compare exactly.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "localdisk-test") {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) std::abort();
    path_ = std::filesystem::canonical(buffer.data()).string();
  }
  ~TempDir() {
    std::error_code ignored;
    // Permission tests lock some directories; open them again so they can go.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
      if (it->is_directory(ignored) && !it->is_symlink(ignored)) chmod(it->path().c_str(), 0700);
    }
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  // Writes `content` to the file `name` inside the directory; its path.
  std::string Write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (!content.empty() && std::fwrite(content.data(), 1, content.size(), f) != content.size())
    std::abort();
  if (std::fclose(f) != 0) std::abort();
}

inline std::string TempDir::Write(const std::string& name, const std::string& content) const {
  const std::string path = *this / name;
  WriteFile(path, content);
  return path;
}

// The whole content, or "<missing>" when the file cannot be opened.
inline std::string ReadFile(const std::string& path) {
  std::string content;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
    content.append(buffer, n);
  std::fclose(f);
  return content;
}

// Everything left to read from `fd`: from a pipe, all that was written until
// its write end closed. A read that a signal interrupts is retried.
inline std::string ReadFd(int fd) {
  std::string out;
  char buffer[65536];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) out.append(buffer, static_cast<size_t>(n));
  }
  return out;
}

// Names in a directory, sorted; "." and ".." left out.
inline std::vector<std::string> Names(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Deterministic content whose bytes depend on their position.
inline std::string Pattern(size_t size, unsigned seed = 1) {
  std::string s(size, '\0');
  unsigned x = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(x >> 16);
  }
  return s;
}

}  // namespace test_support
