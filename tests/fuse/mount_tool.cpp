// A minimal front end with plughost's global options and its mount/unmount
// subcommands, for testing the mount while plughost itself does not offer
// them yet.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "host/mount.h"

int main(int argc, char** argv) {
  std::string plugin;
  std::string root = ".";
  std::vector<std::string> options;
  bool verbose = false;
  CLI::App app{"mount_tool: plughost's mount and unmount subcommands", "mount_tool"};
  app.fallthrough();
  app.require_subcommand(1);
  app.add_option("--plugin", plugin, "Protocol plug-in to load");
  app.add_option("--root", root, "Directory serving as the storage root");
  app.add_option("-o,--option", options, "Plug-in option KEY=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("-v,--verbose", verbose, "Bind a logger");
  plughost::MountCommands commands;
  commands.Register(app);
  CLI11_PARSE(app, argc, argv);
  return commands.Run([&] { return plugin; }, root, options, verbose);
}
