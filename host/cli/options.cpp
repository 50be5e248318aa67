#include "host/cli/options.h"

#include <CLI/CLI.hpp>

namespace plughost {

std::optional<bool> GlobalOptions::ProgressChoice() const {
  if (progress) return true;
  if (no_progress) return false;
  return std::nullopt;
}

void AddGlobalOptions(CLI::App& app, GlobalOptions& options) {
  // Options of the main command are also taken after a subcommand's name.
  app.fallthrough();
  app.add_option("--plugin", options.plugin,
                 "Protocol plug-in to load (default: the localdisk plug-in next to plughost, "
                 "or in ../lib when installed)")
      ->type_name("PATH");
  app.add_option("--root", options.root, "Directory serving as the storage root (default: .)")
      ->type_name("DIR");
  app.add_option("-o,--option", options.plugin_options,
                 "Pass an option to the plug-in with SetOpt (repeatable), e.g. -o pid=demo")
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--json", options.json, "Machine-readable output: one JSON value on stdout");
  app.add_flag("-v,--verbose", options.verbose, "Bind a logger: the plug-in's log on stderr");
  app.add_flag("--literal", options.literal,
               "Print names as raw bytes (default: control characters and bytes that are not "
               "UTF-8 escaped, as ls --quoting-style=escape)");
  auto* on = app.add_flag("--progress", options.progress,
                          "Show the transfer progress bar even when stderr is not a terminal");
  auto* off = app.add_flag("--no-progress", options.no_progress, "Never show the progress bar");
  on->excludes(off);
  app.add_flag("--no-follow-links", options.no_follow_links,
               "Refuse every path that goes through a symbolic link, inside the root or not "
               "(a link that leads outside the root is always refused)");
}

}  // namespace plughost
