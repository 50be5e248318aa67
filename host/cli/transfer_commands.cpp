// get, put and cleanup: whole files between the storage and local files.
//
// Both directions replace atomically (host/core/transfer.h): the target name
// holds the complete old or the complete new file whatever interrupts the
// transfer, and a failure says whether the existing file was kept. A file
// copied onto itself is refused, as cp does. `cleanup` finds and removes the
// temporary files that a killed transfer leaves.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
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
#include "host/core/transfer.h"

namespace plughost {

namespace {

std::shared_ptr<_FS_HANDLE> HandleFor(ProgressBar& bar) {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->progress = ProgressBar::Callback;
  handle->progress_context = bar.context();
  return handle;
}

// The local path of a relative storage path, "" when the storage is not local.
std::string LocalPathOf(const std::string& local_root, const std::string& relative) {
  if (local_root.empty()) return {};
  return relative.empty() ? local_root : local_root + "/" + relative;
}

struct GetArgs {
  std::string path;
  std::string local;
  int device_fd = -1;  // a destination that is not a regular file, opened before confining
};

// get to standard output: a stream, written as it comes.
void GetToStdout(Invocation& run, const std::string& relative, long long size, ProgressBar& bar,
                 const Context& context) {
  std::cout.flush();
  try {
    auto handle = HandleFor(bar);
    TransferScope scope(handle.get());
    CopyRangeOut(
        run.client(), run.paths(), relative, {0, size}, handle,
        [&](const char* data, long long n) {
          WriteBytes(STDOUT_FILENO, data, n, "standard output");
        },
        context);
  } catch (...) {
    bar.Finish();
    throw;
  }
  bar.Finish();
}

int Get(Invocation& run, GetArgs& args) {
  Context context{"get", args.path};
  std::string relative = run.Relative(args.path, "get");
  _FS_FILE_V2 file = run.client().Info(run.paths().Protocol(relative), context);
  if (file.type == 2) throw Failure(context, "is a directory", EISDIR);
  std::string name = relative.empty() ? file.name : BaseName(relative);
  ProgressBar bar(STDERR_FILENO, ShouldShowProgress(STDERR_FILENO, run.options.ProgressChoice()),
                  name);
  if (args.local == "-") {
    GetToStdout(run, relative, file.size, bar, context);
    return kExitOk;
  }
  std::string local = args.local.empty() ? name : args.local;
  struct stat st {};
  if (stat(local.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    local = (std::filesystem::path(local) / name).string();
  }
  std::string display = DisplayPath(relative);
  if (SameLocalFile(LocalPathOf(run.session.served_root(), relative), local)) {
    throw Failure(
        "get: '" + run.name(display) + "' and '" + run.name(local) + "' are the same file", EINVAL);
  }

  DownloadRequest request;
  request.path = run.paths().Protocol(relative);
  request.size = file.size;
  request.local_path = local;
  request.device_fd = std::exchange(args.device_fd, -1);
  DownloadResult result;
  {
    request.handle = HandleFor(bar);
    TransferScope scope(request.handle.get());
    result = DownloadFile(run.client(), request);
  }
  bar.Finish();
  if (result.status == TransferStatus::kCancelled) {
    throw Cancelled("get " + args.path + ": " + result.Describe());
  }
  if (!result.ok()) {
    throw Failure(context, result.Describe(), result.error != 0 ? result.error : EIO);
  }
  if (run.json()) {
    std::cout << JsonFields()
                     .Text("path", display)
                     .Text("local", local)
                     .Value("bytes", Json::Value(static_cast<Json::Int64>(result.bytes)))
                     .str()
              << "\n";
  } else {
    std::cout << run.name(display) << " -> " << run.name(local) << " (" << result.bytes
              << " bytes)\n";
  }
  return kExitOk;
}

// A get writes in its destination directory: the one local place it needs
// besides the root once confined. A device or pipe named as the destination
// (/dev/null, /dev/stdout) is opened before instead.
LocalFiles PrepareGet(GetArgs& args) {
  if (args.local == "-") return {};
  std::string local = args.local.empty() ? std::string(".") : args.local;
  struct stat st {};
  bool exists = stat(local.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) return {{}, {local}};
  if (exists && !S_ISREG(st.st_mode)) {
    args.device_fd = open(local.c_str(), O_WRONLY | O_CLOEXEC);
    if (args.device_fd < 0) {
      throw Failure("get " + args.path + ": cannot open " + local + ": " + std::strerror(errno));
    }
    return {};
  }
  // The directory the file is (or will be) in, after any link to it.
  std::error_code error;
  std::filesystem::path target =
      exists ? std::filesystem::canonical(local, error) : std::filesystem::path(local);
  if (error) target = local;
  std::string parent = target.parent_path().string();
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
  std::string display = DisplayPath(target);
  Context context{"put", display};
  run.paths().CheckLinks(target, context);
  const std::string& local_root = run.session.served_root();
  if (args.local != "-" && SameLocalFile(args.local, LocalPathOf(local_root, target))) {
    throw Failure(
        "put: '" + run.name(args.local) + "' and '" + run.name(display) + "' are the same file",
        EINVAL);
  }

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
  ReplaceRequest request;
  request.parent = run.paths().Protocol(dir);
  request.name = name;
  request.source = cache.get();
  request.size = cache->size();
  request.local_root = local_root;
  request.sync = true;  // as get does: a crash after the rename keeps a whole file
  ReplaceResult result;
  {
    request.handle = HandleFor(bar);
    TransferScope scope(request.handle.get());
    result = ReplaceFile(run.client(), request);
  }
  bar.Finish();
  if (result.status == TransferStatus::kCancelled) {
    throw Cancelled("put " + display + ": " + result.Describe());
  }
  if (!result.ok()) {
    std::string kept = result.Describe();
    kept = kept.find(';') != std::string::npos ? kept.substr(kept.find(';')) : std::string();
    if (result.source_failed && cache->last_error() != 0) {
      throw Failure("put " + args.local + ": cannot read: " + std::strerror(cache->last_error()) +
                    kept);
    }
    if (result.is_directory) throw Failure(context, "is a directory", EISDIR);
    throw Failure(context, result.Describe(), result.out_of_space ? ENOSPC : EIO);
  }
  if (run.json()) {
    std::cout << RecordJson(result.file, display) << "\n";
  } else {
    std::cout << run.name(args.local) << " -> " << run.name(display) << " (" << result.file.size
              << " bytes)\n";
  }
  return kExitOk;
}

struct CleanupArgs {
  std::string dir;
  bool dry_run = false;
  long long min_age = 60;
};

const char* ActionName(CleanupAction action, bool dry_run) {
  switch (action) {
    case CleanupAction::kRemoved:
      return dry_run ? "would remove" : "removed";
    case CleanupAction::kRestored:
      return dry_run ? "would restore" : "restored";
    case CleanupAction::kSkippedRecent:
      return "skipped";
    case CleanupAction::kFailed:
      return "failed";
  }
  return "?";
}

int Cleanup(Invocation& run, const CleanupArgs& args) {
  std::string relative = run.Relative(args.dir, "cleanup");
  std::vector<TemporaryFile> found =
      FindTemporaryFiles(run.client(), run.paths().Protocol(relative), relative);
  CleanupOptions options;
  options.dry_run = args.dry_run;
  options.min_age_seconds = args.min_age;
  std::vector<CleanupEntry> done = CleanupTemporaryFiles(run.client(), found, options);
  int failed = 0;
  Json::Value list(Json::arrayValue);
  for (const CleanupEntry& entry : done) {
    if (entry.action == CleanupAction::kFailed) ++failed;
    const std::string display = DisplayPath(entry.file.relative);
    const char* action = ActionName(entry.action, args.dry_run);
    if (run.json()) {
      Json::Value item(Json::objectValue);
      item["path"] = display;
      item["kind"] = entry.file.kind == TemporaryKind::kBackup ? "old" : "partial";
      item["size"] = static_cast<Json::Int64>(entry.file.size);
      item["action"] = action;
      if (!entry.detail.empty()) item["detail"] = entry.detail;
      list.append(item);
      continue;
    }
    std::cout << action << " " << run.name(display);
    switch (entry.action) {
      case CleanupAction::kRestored:
        std::cout << " -> "
                  << run.name(DisplayPath(ChildPath(DirName(entry.file.relative), entry.detail)));
        break;
      case CleanupAction::kSkippedRecent:
        std::cout << ": modified less than " << args.min_age << " s ago (--min-age)";
        break;
      case CleanupAction::kFailed:
        std::cout << ": " << entry.detail;
        break;
      case CleanupAction::kRemoved:
        std::cout << " (" << entry.file.size << " bytes)";
        break;
    }
    std::cout << "\n";
  }
  if (run.json()) {
    std::cout << JsonText(list) << "\n";
  } else if (done.empty()) {
    std::cout << "no temporary files below " << run.name(DisplayPath(relative)) << "\n";
  }
  if (failed > 0) {
    throw Failure("cleanup " + Shown(args.dir) + ": " + std::to_string(failed) +
                  " temporary file(s) could not be removed");
  }
  return kExitOk;
}

}  // namespace

void RegisterTransferCommands(CommandSet& commands) {
  auto get = std::make_shared<GetArgs>();
  CLI::App* get_cmd = commands.Add(
      "get", "Copy a file from the storage to a local file",
      [get](Invocation& run) { return Get(run, *get); }, [get] { return PrepareGet(*get); });
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

  auto cleanup = std::make_shared<CleanupArgs>();
  CLI::App* cleanup_cmd =
      commands.Add("cleanup", "Find and remove the temporary files that interrupted transfers left",
                   [cleanup](Invocation& run) { return Cleanup(run, *cleanup); });
  cleanup_cmd
      ->add_option("dir", cleanup->dir,
                   "Directory to search, with its subdirectories "
                   "(default: the root)")
      ->type_name("DIR");
  cleanup_cmd->add_flag("--dry-run", cleanup->dry_run, "Only show what would be done");
  cleanup_cmd
      ->add_option("--min-age", cleanup->min_age,
                   "Leave files modified less than this many seconds ago: they may belong to "
                   "a transfer in progress (default: 60)")
      ->check(CLI::NonNegativeNumber)
      ->type_name("SECONDS");
}

}  // namespace plughost
