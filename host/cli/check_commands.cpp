// check: the conformance suite against the plug-in named by --plugin, in a
// scratch directory of the storage that it creates and removes. The suite
// opens the plug-in itself (it checks the entry points too), so this command
// does not go through a Session; it takes the same global options.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "host/cli/commands.h"
#include "host/conformance/conformance.h"
#include "host/core/errors.h"
#include "host/core/session.h"

namespace plughost {

namespace {

struct CheckArgs {
  std::string dir;
};

// A name of one level below the root: the suite removes it with everything
// in it, so it must not be able to name anything else.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\\') == std::string::npos;
}

int Check(const GlobalOptions& global, const CheckArgs& args) {
  conformance::Options options;
  try {
    if (!args.dir.empty() && !IsPlainName(args.dir))
      throw UsageError("--dir " + args.dir + ": expected a plain name (no \"/\", not . or ..)");
    if (global.root.empty()) throw UsageError("--root: no directory given");
    options.root = ResolveRoot(global.root);
    options.opts = ParsePluginOptions(global.plugin_options);
    if (global.plugin.empty()) {
      options.plugin = DefaultPluginPath();
    } else {
      // dlopen() would search the library path for a bare name.
      std::error_code error;
      std::filesystem::path absolute = std::filesystem::absolute(global.plugin, error);
      options.plugin = error ? global.plugin : absolute.lexically_normal().string();
    }
  } catch (const UsageError& error) {
    std::cerr << "plughost: " << error.what() << std::endl;
    return kExitUsage;
  } catch (const std::exception& error) {
    std::cerr << "plughost: " << error.what() << std::endl;
    return kExitFailed;
  }
  options.dir = args.dir;
  options.json = global.json;
  options.verbose = global.verbose;
  int status = conformance::RunAndReport(options, std::cout);
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "plughost: cannot write standard output" << std::endl;
    return kExitFailed;
  }
  return status == 0 ? kExitOk : kExitFailed;
}

}  // namespace

void RegisterCheckCommands(CommandSet& commands) {
  auto args = std::make_shared<CheckArgs>();
  CLI::App* check = commands.app().add_subcommand(
      "check",
      "Run the conformance suite on the plug-in, in a scratch directory of the storage that it "
      "creates and removes");
  check
      ->add_option("--dir", args->dir,
                   "Name of the scratch directory under the root (default: a fresh name); "
                   "it must not exist")
      ->type_name("NAME");
  check->callback([&commands, args] {
    commands.Choose([args](const GlobalOptions& options) { return Check(options, *args); });
  });
}

}  // namespace plughost
