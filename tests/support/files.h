// Real temporary directories and small file helpers shared by the test suites.
#pragma once

#include <stdlib.h>

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
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (!content.empty()) std::fwrite(content.data(), 1, content.size(), f);
  std::fclose(f);
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

}  // namespace test_support
