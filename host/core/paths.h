// Root confinement for hosts. The plug-in does not confine protocol paths to
// its root, so every path a user types is normalised here, lexically, relative
// to the storage root, and refused when it would climb above it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

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

// True when `name` can name a single entry: not empty, not "." or "..", and
// without a separator or a NUL byte.
bool IsPlainName(std::string_view name);

}  // namespace plughost
