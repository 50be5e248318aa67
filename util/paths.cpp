#include "util/paths.h"

#include <pwd.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <regex>
#include <stdexcept>
#include <vector>

#include "util/text.h"

namespace {

constexpr char kSlashes[] = "/\\";

struct PipeCloser {
  void operator()(std::FILE* f) const { pclose(f); }
};

}  // namespace

std::string ensure_ends_with_divider(std::string path) {
  if (!path.empty() && path.back() == '/') return path;
  path.push_back('/');
  return path;
}

std::string remove_head_slashes(std::string path) {
  std::size_t const first = path.find_first_not_of(kSlashes);
  if (first == std::string::npos) return path;
  return path.substr(first);
}

std::string remove_tail_slashes(std::string path) {
  std::size_t const last = path.find_last_not_of(kSlashes);
  if (last == std::string::npos) return path;
  return path.substr(0, last + 1);
}

std::string remove_duplicated_slashes(std::string path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  return out;
}

void split_container_name(std::string path, std::string& container, std::string& rest) {
  if (path.empty()) return;
  path = remove_head_slashes(path);
  std::size_t const slash = path.find('/');
  if (slash == std::string::npos) {
    container = path;
    rest.clear();
  } else {
    container = path.substr(0, slash);
    rest = path.substr(slash + 1);
  }
}

std::string get_file_name(std::string path) {
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return path;
  return path.substr(slash + 1);
}

std::string ToExactPath(const char* path) {
  if (path == nullptr) return std::string();
  std::string text(path);
  for (char& c : text) {
    if (c == '\\') c = '/';
  }
  std::vector<std::string> kept;
  for (std::string const& piece : split(text, std::regex("\\/"))) {
    if (piece.empty() || piece == ".") continue;
    if (piece == "..") {
      if (!kept.empty()) kept.pop_back();  // never climbs above the top
      continue;
    }
    kept.push_back(piece);
  }
  std::string out;
  for (std::string const& piece : kept) {
    out.push_back('/');
    out += piece;
  }
  return out;
}

std::string pexec(std::string command) {
  char buffer[128];
  std::string result;
  // Owned so that the stream is closed also when appending throws.
  std::unique_ptr<std::FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
  if (!pipe) throw std::runtime_error("popen() failed!");
  while (std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr)
    result += buffer;
  return result;
}

bool IsRunningPID(long long pid) {
  // A number that pid_t cannot hold names no process; narrowing it could
  // turn it into 0 or -1, which address process groups.
  if (pid < std::numeric_limits<pid_t>::min() || pid > std::numeric_limits<pid_t>::max()) {
    return false;
  }
  return kill(static_cast<pid_t>(pid), 0) == 0;
}

std::string GetCurrentPath() {
  char buffer[1025] = {0};
#if defined(__APPLE__)
  std::uint32_t capacity = sizeof buffer;
  (void)_NSGetExecutablePath(buffer, &capacity);
#else
  // One byte stays zero, so the text is always terminated.
  ssize_t const length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  (void)length;
#endif
  std::string path(buffer);
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return path.substr(0, slash);
}

std::string GetUserName() {
  long const hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<std::size_t>(hint) : 1024);
  passwd entry{};
  passwd* found = nullptr;
  for (;;) {
    int const rc = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (rc == ERANGE && buffer.size() < (std::size_t{1} << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (rc != 0 || found == nullptr || found->pw_name == nullptr) return std::string();
    return std::string(found->pw_name);
  }
}
