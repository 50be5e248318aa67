// get and put: whole files between the storage and local files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include "host/cli/commands.h"
#include "host/cli/interrupt.h"
#include "host/cli/progress.h"
#include "host/core/errors.h"
#include "host/core/operations.h"

namespace plughost {

namespace {

std::shared_ptr<_FS_HANDLE> HandleFor(ProgressBar& bar) {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->progress = ProgressBar::Callback;
  handle->progress_context = bar.context();
  return handle;
}

struct GetArgs {
  std::string path;
  std::string local;
};

int Get(Invocation& run, const GetArgs& args) {
  Context context{"get", args.path};
  std::string relative = run.Relative(args.path, "get");
  _FS_FILE_V2 file = run.client().Info(run.paths().Protocol(relative), context);
  if (file.type == 2) throw Failure(context, "is a directory", EISDIR);
  std::string name = relative.empty() ? file.name : BaseName(relative);
  std::string local = args.local;
  bool to_stdout = local == "-";
  if (local.empty()) local = name;
  struct stat st {};
  bool existed = !to_stdout && stat(local.c_str(), &st) == 0;
  if (existed && S_ISDIR(st.st_mode)) {
    local = (std::filesystem::path(local) / name).string();
    existed = stat(local.c_str(), &st) == 0;
  }
  int fd = STDOUT_FILENO;
  if (!to_stdout) {
    fd = open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) throw Failure(context, "cannot open " + local + ": " + std::strerror(errno));
  } else {
    std::cout.flush();
  }
  ProgressBar bar(STDERR_FILENO, ShouldShowProgress(STDERR_FILENO, run.options.ProgressChoice()),
                  name);
  try {
    auto handle = HandleFor(bar);
    TransferScope scope(handle.get());
    CopyRangeOut(
        run.client(), run.paths(), relative, {0, file.size}, handle,
        [&](const char* data, long long n) {
          WriteBytes(fd, data, n, to_stdout ? std::string("standard output") : local);
        },
        context);
    if (!to_stdout && close(std::exchange(fd, -1)) != 0) {
      throw Failure(context, "cannot write " + local + ": " + std::strerror(errno));
    }
  } catch (...) {
    bar.Finish();
    // Leave nothing half-written behind that was not there before.
    if (!to_stdout) {
      if (fd >= 0) close(fd);
      if (!existed) unlink(local.c_str());
    }
    throw;
  }
  bar.Finish();
  if (to_stdout) return kExitOk;
  std::string display = DisplayPath(relative);
  if (run.json()) {
    std::cout << JsonFields()
                     .Text("path", display)
                     .Text("local", local)
                     .Value("bytes", Json::Value(static_cast<Json::Int64>(file.size)))
                     .str()
              << "\n";
  } else {
    std::cout << run.name(display) << " -> " << run.name(local) << " (" << file.size << " bytes)\n";
  }
  return kExitOk;
}

// A get writes in its destination directory (or to a device or pipe named
// as the destination): the one local place it needs besides the root.
LocalFiles GetLocalFiles(const GetArgs& args) {
  if (args.local == "-") return {};
  std::string local = args.local.empty() ? std::string(".") : args.local;
  struct stat st {};
  if (stat(local.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return {{}, {local}};
  std::string parent = std::filesystem::path(local).parent_path().string();
  return {{}, {parent.empty() ? std::string(".") : parent}};
}

struct PutArgs {
  std::string local;
  std::string dir;
  std::string name;
  std::shared_ptr<FileCache> spooled;  // standard input, read before confining
};

// Standard input is spooled to a temporary file, which must be made before
// the process is confined to the root; a local file is opened later, by name.
LocalFiles PreparePut(PutArgs& args) {
  if (args.local != "-") return {{args.local}, {}};
  if (args.name.empty()) throw UsageError("put -: --name is required when reading standard input");
  try {
    args.spooled = FileCache::FromStream(std::cin);
  } catch (const std::system_error& error) {
    throw Failure("put -: cannot read: " + error.code().message());
  }
  return {};
}

int Put(Invocation& run, const PutArgs& args) {
  std::string name = args.name;
  if (name.empty()) {
    if (args.local == "-") {
      throw UsageError("put -: --name is required when reading standard input");
    }
    name = std::filesystem::path(args.local).filename().string();
  }
  if (!IsPlainName(name)) throw UsageError("put: invalid name '" + name + "'");
  std::string dir = run.Relative(args.dir, "put");
  std::string target = ChildPath(dir, name);
  Context context{"put", DisplayPath(target)};
  run.paths().CheckLinks(target, context);

  std::shared_ptr<FileCache> cache;
  try {
    cache = args.local == "-" ? args.spooled : std::make_unique<FileCache>(args.local);
  } catch (const std::system_error& error) {
    throw Failure("put " + args.local + ": cannot read: " + error.code().message());
  }
  _FS_FILE_V2 parent = run.client().Info(run.paths().Protocol(dir), {"put", Shown(args.dir)});
  if (parent.type != 2) throw Failure("put " + args.dir + ": not a directory", ENOTDIR);

  ProgressBar bar(STDERR_FILENO, ShouldShowProgress(STDERR_FILENO, run.options.ProgressChoice()),
                  name);
  _FS_FILE_V2 file;
  try {
    auto handle = HandleFor(bar);
    TransferScope scope(handle.get());
    file = UploadFrom(run.client(), run.paths(), dir, name, *cache, cache->size(), handle,
                      UPLOAD_FLAG_OVERWRITE, context);
    if (Interrupted()) throw Cancelled(context);
  } catch (const Cancelled&) {
    bar.Finish();
    // The plug-in keeps what it wrote so far; a cancelled put leaves nothing.
    try {
      run.client().Delete(run.paths().Protocol(target), context);
    } catch (const std::exception&) {
    }
    throw;
  } catch (const ProtocolError&) {
    bar.Finish();
    if (cache->last_error() != 0) {
      throw Failure("put " + args.local + ": cannot read: " + std::strerror(cache->last_error()));
    }
    throw;
  }
  bar.Finish();
  std::string display = DisplayPath(target);
  if (run.json()) {
    std::cout << RecordJson(file, display) << "\n";
  } else {
    std::cout << run.name(args.local) << " -> " << run.name(display) << " (" << file.size
              << " bytes)\n";
  }
  return kExitOk;
}

}  // namespace

void RegisterTransferCommands(CommandSet& commands) {
  auto get = std::make_shared<GetArgs>();
  CLI::App* get_cmd = commands.Add(
      "get", "Copy a file from the storage to a local file",
      [get](Invocation& run) { return Get(run, *get); }, [get] { return GetLocalFiles(*get); });
  get_cmd->add_option("path", get->path, "File to copy")->required()->type_name("PATH");
  get_cmd
      ->add_option("local", get->local,
                   "Local destination: a file, a directory, or - for stdout "
                   "(default: the file's name in the current directory)")
      ->type_name("LOCAL");

  auto put = std::make_shared<PutArgs>();
  CLI::App* put_cmd = commands.Add(
      "put", "Copy a local file into a storage directory",
      [put](Invocation& run) { return Put(run, *put); }, [put] { return PreparePut(*put); });
  put_cmd->add_option("local", put->local, "Local file to copy, or - for stdin (needs --name)")
      ->required()
      ->type_name("LOCAL");
  put_cmd->add_option("dir", put->dir, "Destination directory (default: the root)")
      ->type_name("DIR");
  put_cmd->add_option("--name", put->name, "Name of the new file (default: the local file's name)")
      ->type_name("NAME");
}

}  // namespace plughost
