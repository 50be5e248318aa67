#include "host/core/paths.h"

#include <vector>

#include "host/core/confine.h"
#include "host/core/errors.h"

namespace plughost {

std::optional<std::string> NormalizeUserPath(std::string_view path) {
  std::vector<std::string_view> segments;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t end = path.find('/', pos);
    if (end == std::string_view::npos) end = path.size();
    std::string_view segment = path.substr(pos, end - pos);
    pos = end + 1;
    if (segment.empty() || segment == ".") continue;
    if (segment == "..") {
      if (segments.empty()) return std::nullopt;
      segments.pop_back();
      continue;
    }
    segments.push_back(segment);
  }
  std::string out;
  for (std::string_view segment : segments) {
    if (!out.empty()) out += '/';
    out += segment;
  }
  return out;
}

std::string JoinProtocolPath(const std::string& root_id, const std::string& relative) {
  if (relative.empty()) return root_id;
  std::string out = root_id;
  if (out.empty() || out.back() != '/') out += '/';
  out += relative;
  return out;
}

std::string DisplayPath(const std::string& relative) {
  return "/" + relative;
}

std::string BaseName(const std::string& relative) {
  size_t slash = relative.rfind('/');
  return slash == std::string::npos ? relative : relative.substr(slash + 1);
}

std::string DirName(const std::string& relative) {
  size_t slash = relative.rfind('/');
  return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

std::string ChildPath(const std::string& relative, const std::string& name) {
  return relative.empty() ? name : relative + "/" + name;
}

std::pair<std::string, std::string> SplitPath(const std::string& relative) {
  return {DirName(relative), BaseName(relative)};
}

bool IsPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

std::string PathMapper::Relative(std::string_view path, const std::string& operation) const {
  std::optional<std::string> relative = NormalizeUserPath(path);
  if (!relative) {
    throw UsageError(operation + " " + std::string(path) + ": path escapes the storage root");
  }
  CheckLinks(*relative, {operation, std::string(path)});
  return *relative;
}

void PathMapper::CheckLinks(const std::string& relative, const Context& context) const {
  if (local_root_.empty()) return;
  int error = CheckBeneath(local_root_, relative, no_follow_links_);
  if (error == 0) return;
  // A front end reports a link out of the root as "permission denied".
  throw Failure(context, BeneathErrorText(error, no_follow_links_),
                error == EXDEV ? EACCES : error);
}

std::optional<std::string> PathMapper::ProtocolOf(std::string_view path) const {
  std::optional<std::string> relative = NormalizeUserPath(path);
  if (!relative) return std::nullopt;
  if (!local_root_.empty() && CheckBeneath(local_root_, *relative, no_follow_links_) != 0) {
    return std::nullopt;
  }
  return Protocol(*relative);
}

}  // namespace plughost
