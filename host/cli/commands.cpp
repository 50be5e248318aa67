#include "host/cli/commands.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "host/cli/interrupt.h"
#include "host/core/errors.h"

namespace plughost {

namespace {

void Complain(const std::string& text) {
  std::cerr << "plughost: " << text << std::endl;
}

int RunOnSession(const GlobalOptions& options, const SessionCommand& command,
                 const LocalFilesOf& local_files) {
  InstallInterruptHandler();
  try {
    StderrLog log("plughost: ");
    SessionOptions setup;
    setup.plugin = options.plugin;
    if (options.root.empty()) throw UsageError("--root: no directory given");
    setup.root = options.root;
    setup.plugin_options = options.plugin_options;
    if (options.verbose) setup.logger = &log;
    setup.no_follow_links = options.no_follow_links;
    LocalFiles local = local_files ? local_files() : LocalFiles{};
    std::unique_ptr<Session> session = Session::Open(setup);
    // Before the command touches the storage: from here on the kernel keeps
    // the process (and the plug-in in it) inside the root.
    session->Confine(local.read_only, local.read_write);
    Invocation invocation{*session, options, NameStyle(options.literal)};
    int status = command(invocation);
    std::cout.flush();
    if (!std::cout) throw Failure("cannot write standard output");
    if (Interrupted()) throw Cancelled("cancelled");
    return status;
  } catch (const Cancelled& error) {
    Complain(error.what());
    return CancelledStatus();
  } catch (const UsageError& error) {
    Complain(error.what());
    return kExitUsage;
  } catch (const std::exception& error) {
    Complain(error.what());
    return Interrupted() ? CancelledStatus() : kExitFailed;
  }
}

}  // namespace

CLI::App* CommandSet::Add(const std::string& name, const std::string& description,
                          SessionCommand command, LocalFilesOf local_files) {
  CLI::App* sub = app_.add_subcommand(name, description);
  sub->callback([this, command = std::move(command), local_files = std::move(local_files)] {
    chosen_ = [command, local_files](const GlobalOptions& options) {
      return RunOnSession(options, command, local_files);
    };
  });
  return sub;
}

int CommandSet::RunChosen() {
  return chosen_ ? chosen_(options_) : kExitUsage;
}

}  // namespace plughost
