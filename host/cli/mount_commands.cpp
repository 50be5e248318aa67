// mount and unmount: the FUSE front end, which opens its own storage.
#include <CLI/CLI.hpp>
#include <memory>

#include "host/cli/commands.h"
#include "host/mount/mount.h"

namespace plughost {

void RegisterMountCommands(CommandSet& commands) {
  auto mount = std::make_shared<MountCommands>();
  mount->Register(commands.app());
  for (const char* name : {"mount", "unmount"}) {
    commands.app().get_subcommand(name)->parse_complete_callback([&commands, mount] {
      commands.Choose([mount](const GlobalOptions& options) {
        return mount->Run(
            [&] { return options.plugin.empty() ? DefaultPluginPath() : options.plugin; },
            options.root, options.plugin_options, options.verbose);
      });
    });
  }
}

}  // namespace plughost
