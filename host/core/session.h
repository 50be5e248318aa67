// One storage opened through a plug-in: the set-up both front ends share.
//
//   plughost::SessionOptions options;
//   options.root = "/srv/data";
//   options.plugin_options = {"pid=demo"};
//   std::unique_ptr<plughost::Session> session = plughost::Session::Open(options);
//   session->client().Info(session->paths().Protocol("docs"), {"stat", "docs"});
//
// Open checks what the user typed before it loads anything (a wrong root or
// option is a UsageError), loads the plug-in (LoadError), creates the
// protocol object, binds the logger, sets "root_path" and then every option
// in order (ProtocolError), and reads the root's identifier.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/confine.h"
#include "host/core/paths.h"
#include "host/core/plugin.h"

namespace plughost {

struct SessionOptions {
  std::string plugin;                       // path of the plug-in; empty: DefaultPluginPath()
  std::string root;                         // the "root_path" option; empty: not set
  std::vector<std::string> plugin_options;  // "KEY=VALUE", each handed to SetOpt
  // Bound to the plug-in while the session lives; not owned, must outlive it.
  ILog* logger = nullptr;
  // Refuse every path that goes through a symbolic link, inside the root or
  // not (paths are always refused when a link on them leads outside).
  bool no_follow_links = false;
};

class Session {
 public:
  static std::unique_ptr<Session> Open(const SessionOptions& options);
  // Releases the protocol object before the logger is unbound.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Client& client() noexcept { return *client_; }
  const Plugin& plugin() const noexcept { return plugin_; }
  const PathMapper& paths() const noexcept { return paths_; }
  const std::string& root_id() const noexcept { return paths_.root_id(); }
  // The local directory the plug-in serves: the root's identifier when it is
  // the directory given as "root_path" (LocalRootFor, transfer.h); "" when
  // the plug-in's paths are not local files. Unlike the root that paths and
  // confinement use, never a guess: another plug-in may take a root_path
  // without serving it.
  const std::string& served_root() const noexcept { return served_root_; }

  // Restricts the process to the storage root plus the local paths given
  // (Confine, confine.h) and remembers how. Call once, single-threaded, after
  // whatever must happen unconfined (opening or mounting local files) and
  // before the plug-in touches the storage. Throws std::runtime_error when
  // the restriction cannot be set up.
  const ConfineResult& Confine(std::vector<std::string> read_only = {},
                               std::vector<std::string> read_write = {});
  // How the process was confined; nothing before Confine.
  const std::optional<ConfineResult>& confinement() const noexcept { return confinement_; }

 private:
  explicit Session(Plugin plugin) : plugin_(std::move(plugin)), paths_("") {}

  Plugin plugin_;
  MemoryConfiguration config_;
  std::unique_ptr<Client> client_;
  PathMapper paths_;
  std::string local_root_;  // the root's directory here; the root's identifier when not set
  std::string served_root_;
  std::optional<ConfineResult> confinement_;
  bool logger_bound_ = false;
};

// The localdisk plug-in installed or built alongside the running program: the
// build tree puts both in one directory, an install puts the plug-in in the
// library directory. Throws Failure when there is none.
std::string DefaultPluginPath();

// The canonical path of an existing directory. Throws UsageError
// "--root <root>: <reason>".
std::string ResolveRoot(const std::string& root);

// "KEY=VALUE" texts as pairs. Throws UsageError "-o <text>: expected KEY=VALUE".
std::vector<std::pair<std::string, std::string>> ParsePluginOptions(
    const std::vector<std::string>& options);

}  // namespace plughost
