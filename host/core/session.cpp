#include "host/core/session.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "host/core/errors.h"
#include "host/core/transfer.h"

#ifndef PLUGHOST_LIBDIR_FROM_BINDIR
#define PLUGHOST_LIBDIR_FROM_BINDIR "../lib"
#endif

namespace plughost {

namespace {

std::string ExecutableDir() {
  char buffer[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return ".";
  buffer[n] = '\0';
  return std::filesystem::path(buffer).parent_path().string();
}

// dlopen() searches the library path for a name without a slash: a path the
// user typed is made absolute so that it means the file it names.
std::string AbsolutePluginPath(const std::string& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

}  // namespace

std::string DefaultPluginPath() {
  std::string dir = ExecutableDir();
  const std::string candidates[] = {
      dir + "/liblocaldisk.so",
      dir + "/../liblocaldisk.so",
      dir + "/" PLUGHOST_LIBDIR_FROM_BINDIR "/liblocaldisk.so",
      dir + "/" PLUGHOST_LIBDIR_FROM_BINDIR "/liblocaldisk.so.1",
      dir + "/../lib/liblocaldisk.so",
      dir + "/../lib/liblocaldisk.so.1",
  };
  for (const std::string& candidate : candidates) {
    std::error_code error;
    if (std::filesystem::is_regular_file(candidate, error)) return AbsolutePluginPath(candidate);
  }
  throw Failure("no localdisk plug-in found next to " + dir + "; name one with --plugin PATH");
}

std::string ResolveRoot(const std::string& root) {
  char* real = realpath(root.c_str(), nullptr);
  if (real == nullptr) throw UsageError("--root " + root + ": " + std::strerror(errno));
  std::string resolved = real;
  std::free(real);
  struct stat st {};
  if (stat(resolved.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    throw UsageError("--root " + root + ": not a directory");
  }
  return resolved;
}

std::vector<std::pair<std::string, std::string>> ParsePluginOptions(
    const std::vector<std::string>& options) {
  std::vector<std::pair<std::string, std::string>> settings;
  for (const std::string& option : options) {
    size_t equals = option.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw UsageError("-o " + option + ": expected KEY=VALUE");
    }
    settings.emplace_back(option.substr(0, equals), option.substr(equals + 1));
  }
  return settings;
}

std::unique_ptr<Session> Session::Open(const SessionOptions& options) {
  std::string plugin_path =
      options.plugin.empty() ? DefaultPluginPath() : AbsolutePluginPath(options.plugin);
  std::string root = options.root.empty() ? std::string() : ResolveRoot(options.root);
  auto settings = ParsePluginOptions(options.plugin_options);

  std::unique_ptr<Session> session(new Session(Plugin::Load(plugin_path)));
  if (options.logger != nullptr) {
    session->logger_bound_ = session->plugin_.BindLogger(options.logger);
  }
  session->client_ = std::make_unique<Client>(session->plugin_,
                                              session->plugin_.CreateProtocol(&session->config_));
  if (!root.empty()) session->client_->SetOpt("root_path", root);
  for (const auto& [key, value] : settings)
    session->client_->SetOpt(key, value);
  std::string root_id = session->client_->RootId();
  // Paths are resolved beneath the root's directory, and the process is
  // confined to it: the one the user named, else what the plug-in reports.
  session->local_root_ = root;
  struct stat st {};
  if (root.empty() && !root_id.empty() && root_id[0] == '/' && stat(root_id.c_str(), &st) == 0 &&
      S_ISDIR(st.st_mode)) {
    session->local_root_ = root_id;
  }
  session->paths_ = PathMapper(root_id, session->local_root_, options.no_follow_links);
  // The "root_path" the plug-in got last: -o root_path=... overrides --root.
  std::string root_path = root;
  for (const auto& [key, value] : settings) {
    if (strcasecmp(key.c_str(), "root_path") == 0) root_path = value;
  }
  session->served_root_ = LocalRootFor(root_id, root_path);
  return session;
}

const ConfineResult& Session::Confine(std::vector<std::string> read_only,
                                      std::vector<std::string> read_write) {
  if (local_root_.empty())
    throw Failure("cannot confine: the storage root is not a local directory");
  ConfineRequest request;
  request.root = local_root_;
  request.read_only = std::move(read_only);
  request.read_write = std::move(read_write);
  confinement_ = plughost::Confine(request);
  return *confinement_;
}

Session::~Session() {
  client_.reset();
  if (logger_bound_) plugin_.UnbindLogger();
}

}  // namespace plughost
