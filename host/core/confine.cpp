#include "host/core/confine.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/landlock.h>
#include <linux/openat2.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Rights newer than the oldest kernel headers we build against.
#ifndef LANDLOCK_ACCESS_FS_REFER
#define LANDLOCK_ACCESS_FS_REFER (1ULL << 13)
#endif
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif
#ifndef LANDLOCK_ACCESS_FS_IOCTL_DEV
#define LANDLOCK_ACCESS_FS_IOCTL_DEV (1ULL << 15)
#endif

#if defined(__SANITIZE_THREAD__)
#define PLUGHOST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PLUGHOST_TSAN 1
#endif
#endif

namespace plughost {
namespace {

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      if (fd_ >= 0) close(fd_);
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// --- Landlock ------------------------------------------------------------------

// The handled_access_fs field is the first member of every version of the
// ruleset attribute; the kernel accepts the short form.
struct RulesetAttr {
  uint64_t handled_access_fs;
};

int CreateRuleset(const RulesetAttr* attr, size_t size, uint32_t flags) {
  return static_cast<int>(syscall(SYS_landlock_create_ruleset, attr, size, flags));
}

int AddPathRule(int ruleset, uint64_t allowed, int parent_fd) {
  landlock_path_beneath_attr rule{};
  rule.allowed_access = allowed;
  rule.parent_fd = parent_fd;
  return static_cast<int>(
      syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0));
}

int RestrictSelf(int ruleset) {
  return static_cast<int>(syscall(SYS_landlock_restrict_self, ruleset, 0));
}

constexpr uint64_t kExecute = LANDLOCK_ACCESS_FS_EXECUTE;
constexpr uint64_t kReadFile = LANDLOCK_ACCESS_FS_READ_FILE;
constexpr uint64_t kReadDir = LANDLOCK_ACCESS_FS_READ_DIR;

// The rights of ABI 1: everything about files and directories.
constexpr uint64_t kAbi1Rights =
    LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_READ_FILE |
    LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
    LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM;

// The rights that make sense on a file (as opposed to a directory) rule.
constexpr uint64_t kFileRights = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                 LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_TRUNCATE |
                                 LANDLOCK_ACCESS_FS_IOCTL_DEV;

// Every file-system right the given ABI knows; handling all of them leaves
// nothing unrestricted that the kernel could restrict.
uint64_t HandledRights(int abi) {
  uint64_t rights = kAbi1Rights;
  if (abi >= 2) rights |= LANDLOCK_ACCESS_FS_REFER;
  if (abi >= 3) rights |= LANDLOCK_ACCESS_FS_TRUNCATE;
  if (abi >= 5) rights |= LANDLOCK_ACCESS_FS_IOCTL_DEV;
  return rights;
}

std::string ErrnoText(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

// The calling thread is the only one: the kernel confines only the thread
// that asks (and what it starts afterwards).
bool SingleThreaded() {
#ifdef PLUGHOST_TSAN
  return true;  // the sanitizer's own background thread is no escape route
#else
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return true;  // no /proc: nothing to tell; trust the caller
  int threads = 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++threads;
  }
  closedir(dir);
  return threads <= 1;
#endif
}

struct Entry {
  std::string path;
  uint64_t rights;
  bool required;
};

// Adds one path_beneath rule. A missing optional path is skipped.
void AddRule(int ruleset, const Entry& entry, uint64_t handled) {
  Fd fd(open(entry.path.c_str(), O_PATH | O_CLOEXEC));
  if (!fd.valid()) {
    int error = errno;
    if (!entry.required && (error == ENOENT || error == ENOTDIR || error == EACCES)) return;
    throw std::runtime_error(ErrnoText("cannot confine to " + entry.path, error));
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) {
    throw std::runtime_error(ErrnoText("cannot confine to " + entry.path, errno));
  }
  uint64_t rights = entry.rights & handled;
  if (!S_ISDIR(st.st_mode)) rights &= kFileRights;
  if (rights == 0) return;
  if (AddPathRule(ruleset, rights, fd.get()) != 0) {
    int error = errno;
    // A pipe or socket named through /proc (put /dev/stdin) is not a place in
    // a file system; the kernel lets the process reopen those anyway.
    if (!entry.required && error == EBADFD) return;
    throw std::runtime_error(ErrnoText("cannot confine to " + entry.path, error));
  }
}

// What every host still reads once confined: the time-zone database (local
// times are shown and set), /dev/null, and its own /proc entry (the
// sanitizers and some C library calls read it; its links to other files
// still resolve to, and are checked at, those files).
void AddSystemEntries(std::vector<Entry>& entries) {
  const uint64_t read = kReadFile | kReadDir;
  entries.push_back({"/etc/localtime", read, false});
  entries.push_back({"/usr/share/zoneinfo", read, false});
  if (const char* dir = std::getenv("TZDIR"); dir != nullptr && *dir == '/') {
    entries.push_back({dir, read, false});
  }
  if (const char* tz = std::getenv("TZ"); tz != nullptr) {
    const char* file = *tz == ':' ? tz + 1 : tz;
    if (*file == '/') entries.push_back({file, read, false});
  }
  entries.push_back({"/dev/null", kReadFile | LANDLOCK_ACCESS_FS_WRITE_FILE, false});
  entries.push_back({"/proc/" + std::to_string(getpid()), read, false});
}

std::atomic<bool> g_warned{false};

void WarnFallback(const std::string& reason) {
  if (g_warned.exchange(true)) return;
  std::string text =
      "plughost: warning: confinement falls back to checking each path before use (" + reason +
      "); this is not race-free: a link swapped in between a check and its use "
      "can still lead outside the root\n";
  // One write, so that the line is not interleaved with other output.
  ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
  (void)ignored;
}

ConfineResult Fallback(const std::string& reason) {
  WarnFallback(reason);
  ConfineResult result;
  result.mode = ConfineMode::kFallback;
  result.reason = reason;
  return result;
}

std::string LandlockMissingReason() {
  long abi = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (abi >= 1) return {};
  if (errno == ENOSYS) return "this kernel has no Landlock";
  if (errno == EOPNOTSUPP) return "Landlock is disabled in this kernel";
  return ErrnoText("Landlock is unavailable", errno);
}

// --- path walking ----------------------------------------------------------------

// Splits at '/', dropping empty and "." segments; ".." is kept for the walk.
void PushFront(std::deque<std::string>& pending, const std::string& path) {
  std::vector<std::string> parts;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t end = path.find('/', pos);
    if (end == std::string::npos) end = path.size();
    std::string part = path.substr(pos, end - pos);
    pos = end + 1;
    if (!part.empty() && part != ".") parts.push_back(std::move(part));
  }
  pending.insert(pending.begin(), parts.begin(), parts.end());
}

// The part of an absolute link target below the root, or false when the
// target is not beneath it. Repeated separators are collapsed first.
bool StripRoot(const std::string& root, const std::string& target, std::string* rest) {
  std::string collapsed;
  for (char c : target) {
    if (c == '/' && !collapsed.empty() && collapsed.back() == '/') continue;
    collapsed += c;
  }
  if (root == "/") {
    *rest = collapsed.substr(1);
    return true;
  }
  if (collapsed.compare(0, root.size(), root) != 0) return false;
  if (collapsed.size() == root.size()) {
    rest->clear();
    return true;
  }
  if (collapsed[root.size()] != '/') return false;
  *rest = collapsed.substr(root.size() + 1);
  return true;
}

// A component that cannot be reached stops the path without leading
// anywhere: the kernel would fail there too, and whatever is made there is
// made in a directory already known to be beneath the root.
bool StopsHere(int error) {
  return error == ENOENT || error == ENOTDIR || error == EACCES;
}

}  // namespace

int LandlockAbi() {
  long abi = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  return abi > 0 ? static_cast<int>(abi) : 0;
}

bool LandlockAvailable() {
  return LandlockAbi() > 0;
}

std::string DescribeConfinement(const ConfineResult& result) {
  if (result.mode == ConfineMode::kLandlock) {
    return "landlock (ABI " + std::to_string(result.abi) + ")";
  }
  return "fallback (per-operation checks, not race-free)";
}

ConfineResult Confine(const ConfineRequest& request) {
  const char* choice = std::getenv(kConfineEnvironment);
  std::string wanted = choice != nullptr ? choice : "";
  if (wanted == "fallback") return Fallback(std::string(kConfineEnvironment) + "=fallback");
  if (!wanted.empty() && wanted != "landlock") {
    throw std::runtime_error(std::string(kConfineEnvironment) + "=" + wanted +
                             ": expected \"landlock\" or \"fallback\"");
  }
  if (request.root.empty()) throw std::runtime_error("cannot confine: no root given");

  int abi = LandlockAbi();
  if (abi == 0) {
    std::string reason = LandlockMissingReason();
    if (wanted == "landlock") {
      throw std::runtime_error(std::string(kConfineEnvironment) + "=landlock: " + reason);
    }
    return Fallback(reason);
  }
  if (!SingleThreaded()) {
    throw std::runtime_error("cannot confine: other threads are already running");
  }

  const uint64_t handled = HandledRights(abi);
  const uint64_t full = handled & ~kExecute;
  std::vector<Entry> entries;
  entries.push_back({request.root, full, true});
  for (const std::string& path : request.read_only)
    entries.push_back({path, kReadFile | kReadDir, false});
  for (const std::string& path : request.read_write)
    entries.push_back({path, full, false});
  AddSystemEntries(entries);

  RulesetAttr attr{};
  attr.handled_access_fs = handled;
  Fd ruleset(CreateRuleset(&attr, sizeof attr, 0));
  if (!ruleset.valid())
    throw std::runtime_error(ErrnoText("cannot create a Landlock ruleset", errno));
  for (const Entry& entry : entries)
    AddRule(ruleset.get(), entry, handled);
  // Without CAP_SYS_ADMIN the kernel demands this; with it, it still keeps
  // set-user-ID programs from shedding the restriction.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    throw std::runtime_error(ErrnoText("cannot set no_new_privs", errno));
  }
  if (RestrictSelf(ruleset.get()) != 0) {
    throw std::runtime_error(ErrnoText("cannot enforce the Landlock ruleset", errno));
  }
  ConfineResult result;
  result.mode = ConfineMode::kLandlock;
  result.abi = abi;
  return result;
}

namespace {

// The kernel's own answer (openat2 with RESOLVE_BENEATH, Linux 5.6), in two
// system calls where the walk below needs several per component: 0 when the
// path stays beneath the root, an errno the caller returns, or -1 when only
// the walk can tell. RESOLVE_BENEATH refuses every absolute link, also one
// that points back inside the root, and a lookup it restarts after a
// concurrent rename: those cases go to the walk.
int KernelBeneath(int root_fd, const std::string& relative, bool no_follow_links) {
  struct open_how how {};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  if (no_follow_links) how.resolve |= RESOLVE_NO_SYMLINKS;
  long fd = syscall(SYS_openat2, root_fd, relative.c_str(), &how, sizeof how);
  if (fd >= 0) {
    close(static_cast<int>(fd));
    return 0;
  }
  const int error = errno;
  if (StopsHere(error)) return 0;
  if (error == ELOOP && no_follow_links) return ELOOP;
  return -1;
}

// The kernel's answer from the open root `root_fd`, else the walk's.
int CheckFrom(int root_fd, const std::string& root, const std::string& relative,
              bool no_follow_links) {
  const int kernel = KernelBeneath(root_fd, relative, no_follow_links);
  return kernel >= 0 ? kernel : CheckBeneathByWalk(root, relative, no_follow_links);
}

}  // namespace

int CheckBeneath(const std::string& root, const std::string& relative, bool no_follow_links) {
  Fd root_fd(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root_fd.valid()) return errno;
  return CheckFrom(root_fd.get(), root, relative, no_follow_links);
}

BeneathChecker::BeneathChecker(std::string root)
    : root_(std::move(root)), fd_(open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

BeneathChecker::~BeneathChecker() {
  if (fd_ >= 0) close(fd_);
}

int BeneathChecker::Check(const std::string& relative, bool no_follow_links) const {
  if (fd_ < 0) return CheckBeneath(root_, relative, no_follow_links);
  return CheckFrom(fd_, root_, relative, no_follow_links);
}

int CheckBeneathByWalk(const std::string& root, const std::string& relative, bool no_follow_links) {
  char* real = realpath(root.c_str(), nullptr);
  if (real == nullptr) return errno;
  const std::string root_path = real;
  std::free(real);
  Fd root_fd(open(root_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root_fd.valid()) return errno;

  // The directories walked below the root; ".." steps back one.
  std::vector<Fd> walked;
  std::deque<std::string> pending;
  PushFront(pending, relative);
  int links = 0;
  while (!pending.empty()) {
    std::string name = std::move(pending.front());
    pending.pop_front();
    if (name == "..") {
      if (walked.empty()) return EXDEV;
      walked.pop_back();
      continue;
    }
    int dir = walked.empty() ? root_fd.get() : walked.back().get();
    // O_PATH | O_NOFOLLOW opens a link itself, so the type seen is the type
    // of what this walk goes on from.
    Fd fd(openat(dir, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) return StopsHere(errno) ? 0 : errno;
    struct stat st {};
    if (fstat(fd.get(), &st) != 0) return errno;
    if (S_ISLNK(st.st_mode)) {
      if (no_follow_links || ++links > 40) return ELOOP;
      std::string target(PATH_MAX, '\0');
      ssize_t n = readlinkat(fd.get(), "", target.data(), target.size());
      if (n < 0) return StopsHere(errno) ? 0 : errno;
      target.resize(static_cast<size_t>(n));
      if (target.empty()) return 0;  // the kernel fails on an empty target
      if (target[0] == '/') {
        std::string rest;
        if (!StripRoot(root_path, target, &rest)) return EXDEV;
        walked.clear();
        PushFront(pending, rest);
      } else {
        PushFront(pending, target);
      }
      continue;
    }
    if (pending.empty()) break;
    if (!S_ISDIR(st.st_mode)) return 0;  // the kernel stops at a file in the middle
    walked.push_back(std::move(fd));
  }
  return 0;
}

std::string BeneathErrorText(int error, bool no_follow_links) {
  if (error == EXDEV) return "a symbolic link leads outside the storage root";
  if (error == ELOOP && no_follow_links) {
    return "the path goes through a symbolic link (refused with --no-follow-links)";
  }
  if (error == ELOOP) return "too many levels of symbolic links";
  return std::strerror(error);
}

}  // namespace plughost
