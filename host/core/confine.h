// Keeping a host process inside its storage root.
//
// The plug-in maps any path it is given, so a symbolic link inside the root
// that points elsewhere would take every operation outside. Two layers stop
// that:
//
// - Confine() asks the kernel (Landlock, Linux 5.13 and later) to restrict the
//   process's own file-system access to the root and the few other paths it
//   names. The kernel checks every open, create, rename and remove after the
//   path is resolved, so no race with a link swapped in meanwhile can escape.
// - CheckBeneath() resolves a root-relative path one component at a time and
//   refuses it when a link leads outside the root (or, with no_follow_links,
//   when it meets any link). Hosts call it before every operation: it gives a
//   clear error in place of the kernel's EACCES, covers what Landlock does not
//   govern (stat, utimes), and is the only protection where Landlock is
//   missing; on its own it is not race-free.
#pragma once

#include <string>
#include <vector>

namespace plughost {

enum class ConfineMode {
  kLandlock,  // the kernel enforces the root
  kFallback,  // per-operation checks only (not race-free)
};

struct ConfineRequest {
  // The storage root: every file-system right beneath it except executing.
  std::string root;
  // Files or directories the process still reads after confining (a put's
  // source, for one). Entries that do not exist are skipped.
  std::vector<std::string> read_only;
  // Files or directories the process still reads, writes, creates in and
  // removes from (a get's destination directory, the mount's staging
  // directory). Entries that do not exist are skipped.
  std::vector<std::string> read_write;
};

struct ConfineResult {
  ConfineMode mode = ConfineMode::kFallback;
  int abi = 0;         // the Landlock ABI in use; 0 in the fallback
  std::string reason;  // why the fallback was taken; empty with Landlock
};

// The environment switch that chooses the mechanism: unset or empty for
// Landlock where the kernel has it, "fallback" to force the per-operation
// checks (for tests), "landlock" to fail rather than fall back.
inline constexpr const char* kConfineEnvironment = "PLUGHOST_CONFINE";

// Restricts this process's file-system access to request.root, request's
// other paths, and what every host needs besides: the time-zone database
// (/etc/localtime, /usr/share/zoneinfo, $TZDIR, a TZ file), /dev/null and
// the process's own /proc entry. The rights of the running ABI are all
// handled (refer from ABI 2, truncate from ABI 3, device ioctl from ABI 5);
// network and signals are left alone.
//
// Call it once, single-threaded (the kernel confines the calling thread and
// what it starts later), after the plug-in is loaded and the local files a
// command names are opened, before the plug-in touches the storage. Files
// opened before stay usable. A confined process can no longer mount or
// unmount anything, nor execute programs.
//
// Where Landlock is unavailable, or forced off by PLUGHOST_CONFINE=fallback,
// nothing is restricted, one warning goes to stderr (once per process) and
// the result says kFallback. Throws std::runtime_error when confinement was
// wanted but could not be set up (the root cannot be opened, other threads
// run, the kernel refuses a rule, PLUGHOST_CONFINE=landlock without Landlock,
// an unknown PLUGHOST_CONFINE value); callers must then stop.
ConfineResult Confine(const ConfineRequest& request);

// The highest Landlock ABI the kernel offers, 0 when it has none (not built
// in, or disabled at boot).
int LandlockAbi();
bool LandlockAvailable();

// "landlock (ABI 7)" or "fallback (per-operation checks, not race-free)".
std::string DescribeConfinement(const ConfineResult& result);

// Resolves `relative` (a normalised root-relative path as NormalizeUserPath
// gives: no leading "/", no "." or ".." segments; "" is the root) beneath
// `root` one component at a time, following links the way the kernel would
// ("..", relative and absolute targets, chains), but never letting the kernel
// follow one. Returns:
//   0       nothing on the path leads outside the root: every link met ends
//           beneath it, and a missing component (or a file in the middle)
//           stops the path where anything made would land beneath the root;
//           a dangling link is judged by where its target would be;
//   EXDEV   a link (absolute, relative or dangling) leads outside the root;
//   ELOOP   no_follow_links and a link is met anywhere on the path, or more
//           than 40 links are met;
//   other   the root or a component cannot be examined (errno).
// An absolute target counts as beneath the root only when it starts with the
// root's canonical path.
// The kernel answers most paths in one openat2(RESOLVE_BENEATH); the rest
// (absolute links back into the root, kernels before 5.6) take a walk one
// component at a time.
int CheckBeneath(const std::string& root, const std::string& relative, bool no_follow_links);

// The same walk without the kernel's shortcut, for kernels that lack it and
// for tests that hold both answers side by side.
int CheckBeneathByWalk(const std::string& root, const std::string& relative, bool no_follow_links);

// CheckBeneath for a process that checks often (a mount checks at every
// create): the root stays open, so a check costs one system call more than
// the path's own lookup. It judges the directory that was the root when it
// was made, as the kernel's Landlock rule does.
class BeneathChecker {
 public:
  explicit BeneathChecker(std::string root);
  ~BeneathChecker();
  BeneathChecker(const BeneathChecker&) = delete;
  BeneathChecker& operator=(const BeneathChecker&) = delete;

  int Check(const std::string& relative, bool no_follow_links) const;

 private:
  std::string root_;
  int fd_ = -1;  // -1: the root could not be opened; checks go by path
};

// Text for a CheckBeneath result, for "<operation> <path>: <text>".
std::string BeneathErrorText(int error, bool no_follow_links);

}  // namespace plughost
