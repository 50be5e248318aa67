// mv, mkdir, rm, rmdir and touch: changes to the storage's namespace.
#include <CLI/CLI.hpp>
#include <ctime>
#include <iostream>
#include <optional>

#include "host/cli/commands.h"
#include "host/core/errors.h"
#include "host/core/operations.h"
#include "time/approxidate.h"

namespace plughost {

namespace {

// The record of a changed entry as JSON, or a line for people.
void Report(Invocation& run, const _FS_FILE_V2& file, const std::string& relative,
            const std::string& text) {
  if (run.json()) {
    std::cout << RecordJson(file, DisplayPath(relative)) << "\n";
  } else {
    std::cout << text << "\n";
  }
}

struct MvArgs {
  std::string source;
  std::string dir;
  std::string name;
};

int Mv(Invocation& run, const MvArgs& args) {
  std::string source = run.Relative(args.source, "mv");
  std::string dir = run.Relative(args.dir, "mv");
  if (source.empty()) throw UsageError("mv " + args.source + ": cannot move the storage root");
  std::string name = args.name.empty() ? BaseName(source) : args.name;
  if (!IsPlainName(name)) throw UsageError("mv: invalid name '" + name + "'");
  std::string target = ChildPath(dir, name);
  run.paths().CheckLinks(target, {"mv", DisplayPath(target)});
  _FS_FILE_V2 file = run.client().Move(run.paths().Protocol(source), run.paths().Protocol(dir),
                                       name, {"mv", args.source});
  Report(run, file, target, run.name(DisplayPath(source)) + " -> " + run.name(DisplayPath(target)));
  return kExitOk;
}

int Mkdir(Invocation& run, const std::string& typed) {
  std::string relative = run.Relative(typed, "mkdir");
  if (relative.empty()) throw UsageError("mkdir " + typed + ": the storage root always exists");
  _FS_FILE_V2 file = MakeDirectory(run.client(), run.paths(), relative, {"mkdir", typed});
  Report(run, file, relative, "created " + run.name(DisplayPath(relative)));
  return kExitOk;
}

int Remove(Invocation& run, const std::string& typed, bool directory) {
  const std::string operation = directory ? "rmdir" : "rm";
  Context context{operation, typed};
  std::string relative = run.Relative(typed, operation);
  if (relative.empty()) {
    throw UsageError(operation + " " + typed + ": refusing to remove the storage root");
  }
  if (directory) {
    RemoveEmptyDirectory(run.client(), run.paths(), relative, context);
  } else {
    try {
      RemoveFile(run.client(), run.paths(), relative, context);
    } catch (const Failure& error) {
      if (error.error() != EISDIR) throw;
      throw Failure(std::string(error.what()) + " (use rmdir)", EISDIR);
    }
  }
  std::string display = DisplayPath(relative);
  if (run.json()) {
    std::cout << JsonFields().Text("removed", display).str() << "\n";
  } else {
    std::cout << "removed " << run.name(display) << "\n";
  }
  return kExitOk;
}

struct TouchArgs {
  std::string path;
  std::string date;
  CLI::Option* date_option = nullptr;
};

int Touch(Invocation& run, const TouchArgs& args) {
  time_t when = std::time(nullptr);
  if (args.date_option->count() > 0) {
    struct tm parsed {};
    if (approxidate(args.date.c_str(), &parsed) != 0) {
      throw UsageError("touch: cannot read the date '" + args.date + "'");
    }
    when = timegm(&parsed);
  }
  std::string relative = run.Relative(args.path, "touch");
  _FS_FILE_V2 file = TouchOrCreate(run.client(), run.paths(), relative, when, {"touch", args.path});
  Report(run, file, relative,
         "touched " + run.name(DisplayPath(relative)) + ": " + ShortTime(file.modify_time));
  return kExitOk;
}

// A subcommand whose only argument is one required path.
void AddPathCommand(CommandSet& commands, const std::string& name, const std::string& description,
                    const std::string& what,
                    std::function<int(Invocation&, const std::string&)> command) {
  auto path = std::make_shared<std::string>();
  commands
      .Add(name, description,
           [path, command = std::move(command)](Invocation& run) { return command(run, *path); })
      ->add_option("path", *path, what)
      ->required()
      ->type_name("PATH");
}

}  // namespace

void RegisterNamespaceCommands(CommandSet& commands) {
  auto mv = std::make_shared<MvArgs>();
  CLI::App* mv_cmd = commands.Add("mv", "Move an entry into a directory (optionally renaming it)",
                                  [mv](Invocation& run) { return Mv(run, *mv); });
  mv_cmd->add_option("src", mv->source, "Entry to move")->required()->type_name("SRC");
  mv_cmd->add_option("destdir", mv->dir, "Directory to move it into")
      ->required()
      ->type_name("DESTDIR");
  mv_cmd->add_option("--name", mv->name, "New name (default: the current name)")->type_name("NAME");

  AddPathCommand(commands, "mkdir",
                 "Create a directory (its parent must exist; an existing directory is accepted)",
                 "Directory to create", Mkdir);
  AddPathCommand(commands, "rm", "Remove a file", "File to remove",
                 [](Invocation& run, const std::string& path) { return Remove(run, path, false); });
  AddPathCommand(commands, "rmdir", "Remove an empty directory", "Directory to remove",
                 [](Invocation& run, const std::string& path) { return Remove(run, path, true); });

  auto touch = std::make_shared<TouchArgs>();
  CLI::App* touch_cmd =
      commands.Add("touch", "Set an entry's access and modification times (creates a missing file)",
                   [touch](Invocation& run) { return Touch(run, *touch); });
  touch_cmd->add_option("path", touch->path, "Entry to touch")->required()->type_name("PATH");
  touch->date_option = touch_cmd
                           ->add_option("-d,--date", touch->date,
                                        "When, in free form: \"2024-03-01 12:00\", \"yesterday "
                                        "noon\", \"3 days ago\", \"last friday\" (default: now)")
                           ->type_name("TEXT");
}

}  // namespace plughost
