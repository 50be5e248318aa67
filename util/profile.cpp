#include "util/profile.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <regex>
#include <vector>

#include "util/text.h"

namespace {

constexpr int kLineBuffer = 2048;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::string Lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The next line, trimmed; nothing at the end of the file. A line longer than
// the buffer arrives in several pieces.
std::optional<std::string> NextLine(std::FILE* f) {
  char buffer[kLineBuffer] = {0};
  if (std::fgets(buffer, kLineBuffer, f) == nullptr) return std::nullopt;
  std::string line(buffer);
  trim(line);
  return line;
}

// The value of `key` in the first section named `section` (both already
// normalised), or nothing.
std::optional<std::string> Find(std::FILE* f, std::string const& section, std::string const& key) {
  for (;;) {
    auto line = NextLine(f);
    if (!line) return std::nullopt;
    if (line->size() < 3 || line->front() != '[' || line->back() != ']') continue;
    std::string name = line->substr(1, line->size() - 2);
    if (Lower(trim(name)) == section) break;
  }
  std::regex const equals("=");
  for (;;) {
    auto line = NextLine(f);
    if (!line) return std::nullopt;
    if (line->empty()) continue;
    if (line->front() == '[') return std::nullopt;
    std::vector<std::string> pieces = split(*line, equals);
    if (pieces.size() < 2) continue;
    if (Lower(pieces[0]) == key) return pieces[1];
  }
}

// The file is opened afresh on every request and closed before returning.
std::optional<std::string> Lookup(std::string& section, std::string const& key,
                                  std::string const& file) {
  File f(std::fopen(file.c_str(), "r"));
  if (f == nullptr) return std::nullopt;
  return Find(f.get(), Lower(trim(section)), Lower(key));
}

}  // namespace

int GetPrivateProfileString(std::string section, std::string key, std::string default_value,
                            char* buffer, int size, std::string file) {
  if (buffer == nullptr || size <= 0) return 0;
  auto const limit = static_cast<std::size_t>(size);
  std::optional<std::string> value = Lookup(section, key, file);
  if (value && !value->empty() && value->size() < limit) {
    std::memcpy(buffer, value->c_str(), value->size() + 1);
    return static_cast<int>(value->size());
  }
  if (default_value.size() < limit) {
    std::memcpy(buffer, default_value.c_str(), default_value.size() + 1);
    return static_cast<int>(default_value.size());
  }
  return 0;
}

unsigned int GetPrivateProfileInt(std::string section, std::string key, unsigned int default_value,
                                  std::string file) {
  std::optional<std::string> value = Lookup(section, key, file);
  if (!value) return default_value;
  // atoi without its undefined behaviour on overflow: strtol, then the
  // narrowing that atoi performs.
  long const parsed = std::strtol(value->c_str(), nullptr, 10);
  return static_cast<unsigned int>(static_cast<int>(parsed));
}
