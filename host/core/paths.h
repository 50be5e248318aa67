// The one mapping of paths for both front ends: a path a user types or the
// kernel hands over ("docs/a", "/docs/a") becomes a normalised path relative
// to the storage root ("docs/a"), which becomes a protocol path (the root's
// identifier joined with it). The plug-in does not confine protocol paths to
// its root, so the lexical step refuses a path that would climb above it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/core/errors.h"

namespace plughost {

// Normalises a user path relative to the root: "." and empty segments are
// dropped, ".." removes the previous segment, a leading "/" means the root.
// Returns the segments joined with "/" and without a leading separator (""
// for the root itself), or nothing when the path climbs above the root
// ("../x", "a/../../x"). Purely lexical: symbolic links are not resolved.
std::optional<std::string> NormalizeUserPath(std::string_view path);

// The protocol path of a normalised relative path: the root's identifier
// joined with it, with exactly one separator in between.
std::string JoinProtocolPath(const std::string& root_id, const std::string& relative);

// The path as shown to the user: "/" followed by the relative path.
std::string DisplayPath(const std::string& relative);

// Last segment of a normalised relative path ("" for the root).
std::string BaseName(const std::string& relative);
// Everything before the last segment ("" for a top-level entry and the root).
std::string DirName(const std::string& relative);

// The relative path of `name` inside the directory `relative`.
std::string ChildPath(const std::string& relative, const std::string& name);
// The parent ("" for a top-level entry and the root) and the last segment.
std::pair<std::string, std::string> SplitPath(const std::string& relative);

// True when `name` can name a single entry: not empty, not "." or "..", and
// without a separator or a NUL byte.
bool IsPlainName(std::string_view name);

// The mapping for one storage root.
class PathMapper {
 public:
  // With `local_root` (the root's directory on this machine), every relative
  // path is also resolved beneath it (CheckBeneath, confine.h): a symbolic
  // link that leads outside, or with `no_follow_links` any link, is refused.
  explicit PathMapper(std::string root_id, std::string local_root = {},
                      bool no_follow_links = false)
      : root_id_(std::move(root_id)),
        local_root_(std::move(local_root)),
        no_follow_links_(no_follow_links) {}

  const std::string& root_id() const noexcept { return root_id_; }

  // The relative path of a user's or the kernel's path. Throws UsageError
  // "<operation> <path>: path escapes the storage root" when it leaves the root
  // by its text, and Failure "<operation> <path>: <reason>" (EACCES, or ELOOP
  // for a refused link) when a link on it does.
  std::string Relative(std::string_view path, const std::string& operation) const;
  // The same check for a relative path the host made (a directory joined with
  // a new name); throws Failure naming `context`.
  void CheckLinks(const std::string& relative, const Context& context) const;
  // The protocol path of a normalised relative path.
  std::string Protocol(const std::string& relative) const {
    return JoinProtocolPath(root_id_, relative);
  }
  // The protocol path of a user's or the kernel's path; nothing when it
  // leaves the root (by its text, or through a link when checked).
  std::optional<std::string> ProtocolOf(std::string_view path) const;

 private:
  std::string root_id_;
  std::string local_root_;
  bool no_follow_links_ = false;
};

}  // namespace plughost
