// The subcommands of plughost, one registration function per family; main
// calls each once. A family adds its subcommands to a CommandSet with the
// function to run when one is chosen.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/cli/options.h"
#include "host/cli/output.h"
#include "host/core/session.h"

namespace CLI {
class App;
}

namespace plughost {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitCancelled = 130;

// What a subcommand runs with: the opened storage and the shared options.
struct Invocation {
  Session& session;
  const GlobalOptions& options;
  NameStyle name;  // how names and paths are shown in text output

  Client& client() { return session.client(); }
  const PathMapper& paths() const { return session.paths(); }
  bool json() const { return options.json; }
  // The user's path relative to the root; a usage error when it escapes.
  std::string Relative(const std::string& typed, const std::string& operation) const {
    return paths().Relative(typed, operation);
  }
};

using SessionCommand = std::function<int(Invocation&)>;
using Command = std::function<int(const GlobalOptions&)>;

// The local files a subcommand uses besides the storage: the process keeps
// access to these, and otherwise only to the root, once it confines itself.
struct LocalFiles {
  std::vector<std::string> read_only;
  std::vector<std::string> read_write;
};
// Called after parsing, before the storage is opened and the process
// confined: opens what must be opened unconfined, and names the rest.
using LocalFilesOf = std::function<LocalFiles()>;

class CommandSet {
 public:
  CommandSet(CLI::App& app, const GlobalOptions& options) : app_(app), options_(options) {}

  CLI::App& app() { return app_; }
  const GlobalOptions& options() const { return options_; }

  // A subcommand that runs on a storage opened from the shared options.
  CLI::App* Add(const std::string& name, const std::string& description, SessionCommand command,
                LocalFilesOf local_files = nullptr);
  // Makes `command` the one to run (for subcommands that open what they
  // need themselves, such as mount).
  void Choose(Command command) { chosen_ = std::move(command); }

  // Runs what the parsed command line chose; the exit status.
  int RunChosen();

 private:
  CLI::App& app_;
  const GlobalOptions& options_;
  Command chosen_;
};

// The path as the user typed it, "/" for the root.
inline std::string Shown(const std::string& typed) {
  return typed.empty() ? "/" : typed;
}

void RegisterBrowseCommands(CommandSet& commands);     // ls, stat, cat
void RegisterTransferCommands(CommandSet& commands);   // get, put
void RegisterNamespaceCommands(CommandSet& commands);  // mv, mkdir, rm, rmdir, touch
void RegisterAccountCommands(CommandSet& commands);    // df, whoami, info
void RegisterMountCommands(CommandSet& commands);      // mount, unmount
void RegisterCheckCommands(CommandSet& commands);      // check

}  // namespace plughost
