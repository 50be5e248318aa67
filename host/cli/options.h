// The options every subcommand shares. They are accepted before and after
// the subcommand's name: `plughost --json ls` and `plughost ls --json`.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace plughost {

struct GlobalOptions {
  std::string plugin;
  std::string root = ".";
  std::vector<std::string> plugin_options;
  bool json = false;
  bool verbose = false;
  bool literal = false;
  bool progress = false;
  bool no_progress = false;
  bool no_follow_links = false;

  // --progress or --no-progress when given; otherwise whether stderr is a
  // terminal decides.
  std::optional<bool> ProgressChoice() const;
};

void AddGlobalOptions(CLI::App& app, GlobalOptions& options);

}  // namespace plughost
