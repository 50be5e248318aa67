// plughost: drives a protocol plug-in from the shell.
//
// Every path a user types is relative to the storage root (--root) and is
// confined to it; the plug-in receives the root's identifier joined with the
// normalised path. Exit codes: 0 success, 1 operation failed, 2 usage error,
// 130 cancelled with Ctrl-C, 143 cancelled with SIGTERM. Each family of subcommands registers
// itself from its own file (commands.h).
#include <CLI/CLI.hpp>
#include <iostream>

#include "host/cli/commands.h"
#include "host/cli/options.h"
#include "host/core/file_time.h"

#ifndef PLUGHOST_VERSION
#define PLUGHOST_VERSION "0"
#endif

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  // One read of the zone file instead of a check per converted time.
  plughost::PinTimeZone();
  plughost::GlobalOptions options;
  CLI::App app{
      "plughost: use a storage-protocol plug-in from the shell.\n"
      "Paths are relative to the storage root (--root); a leading \"/\" means the root,\n"
      "and a path that leads outside the root is refused.",
      "plughost"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "plughost " PLUGHOST_VERSION);
  app.footer(
      "Exit codes: 0 success, 1 operation failed, 2 usage error, 130 cancelled (Ctrl-C),\n"
      "143 cancelled (SIGTERM).\n"
      "Run 'plughost SUBCOMMAND --help' for the options of a subcommand.");
  plughost::AddGlobalOptions(app, options);

  plughost::CommandSet commands(app, options);
  plughost::RegisterBrowseCommands(commands);
  plughost::RegisterTransferCommands(commands);
  plughost::RegisterNamespaceCommands(commands);
  plughost::RegisterAccountCommands(commands);
  plughost::RegisterMountCommands(commands);
  plughost::RegisterCheckCommands(commands);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    int code = app.exit(error);
    return code == 0 ? plughost::kExitOk : plughost::kExitUsage;
  }
  return commands.RunChosen();
}
