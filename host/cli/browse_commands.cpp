// ls, stat and cat: reading the storage's namespace and content.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <iostream>
#include <limits>
#include <optional>
#include <system_error>

#include "host/cli/commands.h"
#include "host/cli/interrupt.h"
#include "host/core/errors.h"
#include "host/core/listing.h"
#include "host/core/operations.h"

namespace plughost {

namespace {

struct LsArgs {
  std::string path;
  bool long_form = false;
  bool unsorted = false;
  bool stream = false;
};

// Prints the entries of one listing as they are handed over.
class LsPrinter {
 public:
  LsPrinter(Invocation& run, const LsArgs& args, std::string relative, std::string directory_id)
      : run_(run), args_(args), relative_(std::move(relative)), id_(std::move(directory_id)) {}

  // Directory sizes are a file-system detail; the column shows "-" for them.
  static std::string SizeText(const Entry& e) {
    return e.directory() ? std::string("-") : std::to_string(e.size);
  }

  void Begin() {
    if (run_.json() && !args_.stream) std::cout << '[';
  }
  // `width`: of the size column (long form).
  void Print(const Entry& entry, const std::string& display, size_t width) {
    if (run_.json()) {
      if (!args_.stream && printed_ > 0) std::cout << ',';
      std::cout << EntryJson(entry, display, id_);
      if (args_.stream) std::cout << '\n';
    } else if (args_.long_form) {
      std::string size = SizeText(entry);
      std::cout << (entry.directory() ? 'd' : '-') << ' '
                << std::string(width > size.size() ? width - size.size() : 0, ' ') << size << "  "
                << ShortTime(UnpackFileTimeFields(entry.modify)) << "  " << run_.name(entry.name)
                << '\n';
    } else {
      std::cout << run_.name(entry.name) << '\n';
    }
    ++printed_;
  }
  void PrintListed(const Entry& entry, size_t width) {
    Print(entry, DisplayPath(ChildPath(relative_, entry.name)), width);
  }
  void End() {
    if (run_.json() && !args_.stream) std::cout << "]\n";
  }

 private:
  Invocation& run_;
  const LsArgs& args_;
  std::string relative_;
  std::string id_;
  size_t printed_ = 0;
};

int Ls(Invocation& run, const LsArgs& args) {
  Context context{"ls", Shown(args.path)};
  std::string relative = run.Relative(args.path, "ls");
  std::string id = run.paths().Protocol(relative);
  _FS_FILE_V2 self = run.client().Info(id, context);
  LsPrinter printer(run, args, relative, id);
  printer.Begin();
  if (self.type != 2) {
    // A file lists itself.
    Entry entry = EntryOf(self, "");
    printer.Print(entry, DisplayPath(relative), 1);
  } else if (args.unsorted || args.stream) {
    // Printed as listed: nothing is kept, and the size column is not aligned.
    StreamEntries(run.client(), id, context, [&](Entry&& entry) { printer.PrintListed(entry, 1); });
  } else {
    std::vector<Entry> entries = SortedEntries(run.client(), id, context);
    size_t width = 1;
    if (args.long_form) {
      for (const Entry& entry : entries)
        width = std::max(width, LsPrinter::SizeText(entry).size());
    }
    for (const Entry& entry : entries)
      printer.PrintListed(entry, width);
  }
  printer.End();
  return kExitOk;
}

int Stat(Invocation& run, const std::string& typed) {
  std::string relative = run.Relative(typed, "stat");
  _FS_FILE_V2 file = run.client().Info(run.paths().Protocol(relative), {"stat", typed});
  std::string display = DisplayPath(relative);
  if (run.json()) {
    std::cout << RecordJson(file, display) << "\n";
    return kExitOk;
  }
  std::cout << "path:   " << run.name(display) << "\n"
            << "name:   " << run.name(file.name) << "\n"
            << "type:   " << TypeName(file.type) << "\n"
            << "size:   " << file.size << "\n"
            << "id:     " << run.name(file.id) << "\n"
            << "create: " << file.create_time << "\n"
            << "access: " << file.access_time << "\n"
            << "modify: " << file.modify_time << "\n";
  return kExitOk;
}

struct CatArgs {
  std::string path;
  long long offset = 0;
  long long length = -1;
  CLI::Option* length_option = nullptr;
};

int Cat(Invocation& run, const CatArgs& args) {
  Context context{"cat", args.path};
  std::string relative = run.Relative(args.path, "cat");
  _FS_FILE_V2 file = run.client().Info(run.paths().Protocol(relative), context);
  if (file.type == 2) throw Failure(context, "is a directory", EISDIR);
  std::optional<long long> length;
  if (args.length_option->count() > 0) length = args.length;
  Range range = ClampRange(file.size, args.offset, length);
  std::string collected;
  std::cout.flush();
  auto handle = std::make_shared<_FS_HANDLE>();
  TransferScope scope(handle.get());
  CopyRangeOut(
      run.client(), run.paths(), relative, range, handle,
      [&](const char* data, long long n) {
        if (run.json()) {
          collected.append(data, static_cast<size_t>(n));
        } else {
          WriteBytes(STDOUT_FILENO, data, n, "standard output");
        }
      },
      context);
  if (run.json()) {
    std::cout << JsonFields()
                     .Text("path", DisplayPath(relative))
                     .Value("offset", Json::Value(static_cast<Json::Int64>(range.offset)))
                     .Value("length", Json::Value(static_cast<Json::Int64>(range.length)))
                     .Text("base64", Base64(collected))
                     .str()
              << "\n";
  }
  return kExitOk;
}

}  // namespace

void RegisterBrowseCommands(CommandSet& commands) {
  auto ls = std::make_shared<LsArgs>();
  CLI::App* ls_cmd = commands.Add("ls", "List a directory, sorted by name (a file lists itself)",
                                  [ls](Invocation& run) { return Ls(run, *ls); });
  ls_cmd->add_flag("-l,--long", ls->long_form, "Long form: type, size, modification time and name");
  ls_cmd->add_flag("-U,--unsorted", ls->unsorted,
                   "Print entries as the plug-in lists them, keeping none in memory");
  ls_cmd->add_flag("--stream", ls->stream,
                   "With --json: one JSON object per line as listed (implies --unsorted)");
  ls_cmd->add_option("path", ls->path, "Directory to list (default: the root)")->type_name("PATH");

  auto stat_path = std::make_shared<std::string>();
  commands
      .Add("stat", "Show every field of an entry's record",
           [stat_path](Invocation& run) { return Stat(run, *stat_path); })
      ->add_option("path", *stat_path, "Entry to describe")
      ->required()
      ->type_name("PATH");

  auto cat = std::make_shared<CatArgs>();
  CLI::App* cat_cmd = commands.Add("cat", "Write a file (or a byte range of it) to stdout",
                                   [cat](Invocation& run) { return Cat(run, *cat); });
  cat_cmd->add_option("path", cat->path, "File to read")->required()->type_name("PATH");
  const CLI::Range non_negative(0LL, std::numeric_limits<long long>::max());
  cat_cmd->add_option("--offset", cat->offset, "First byte to write (default 0)")
      ->check(non_negative)
      ->type_name("N");
  cat->length_option =
      cat_cmd->add_option("--length", cat->length, "Number of bytes (default: to the end)")
          ->check(non_negative)
          ->type_name("N");
}

}  // namespace plughost
