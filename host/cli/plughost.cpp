// plughost: drives a protocol plug-in from the shell.
//
// Every path a user types is relative to the storage root (--root) and is
// confined to it here; the plug-in receives the root's identifier joined with
// the normalised path. Exit codes: 0 success, 1 operation failed, 2 usage
// error, 130 cancelled with Ctrl-C.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/cli/progress.h"
#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/file_time.h"
#include "host/core/paths.h"
#include "host/core/plugin.h"
#include "host/mount/mount.h"
#include "time/approxidate.h"
#include "time/rfc3339.h"

#ifndef PLUGHOST_VERSION
#define PLUGHOST_VERSION "0"
#endif
#ifndef PLUGHOST_LIBDIR_FROM_BINDIR
#define PLUGHOST_LIBDIR_FROM_BINDIR "../lib"
#endif

namespace {

using plughost::Client;
using plughost::Context;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCancelled = 130;

// A mistake in the command line or in a path the user typed.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// An operation failed for a reason the host itself found (message complete).
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// Ctrl-C ended the operation.
struct Cancelled : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// --- Ctrl-C -----------------------------------------------------------------

// The handler only stores to lock-free atomics: the transfer's handle state
// (which the plug-in polls between chunks) and the interrupt count. A second
// Ctrl-C ends the process at once, for a plug-in that does not poll.
std::atomic<int> g_interrupts{0};
std::atomic<_FS_HANDLE*> g_transfer{nullptr};
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<_FS_HANDLE*>::is_always_lock_free);

extern "C" void OnInterrupt(int) {
  if (g_interrupts.fetch_add(1) > 0) _exit(kExitCancelled);
  if (_FS_HANDLE* handle = g_transfer.load()) handle->state.store(FS_HANDLE_STOP);
}

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}

bool Interrupted() {
  return g_interrupts.load() > 0;
}

// Publishes a transfer's handle to the Ctrl-C handler while it runs.
class TransferScope {
 public:
  explicit TransferScope(_FS_HANDLE* handle) {
    g_transfer.store(handle);
    if (Interrupted()) handle->state.store(FS_HANDLE_STOP);
  }
  ~TransferScope() { g_transfer.store(nullptr); }
  TransferScope(const TransferScope&) = delete;
  TransferScope& operator=(const TransferScope&) = delete;
};

// --- JSON output --------------------------------------------------------------

// Length of the valid UTF-8 sequence at s[i], 0 if there is none.
size_t Utf8Length(const std::string& s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = byte(i);
  size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  return n;
}

// A JSON string. Bytes that are not UTF-8 are written as \u00XX.
std::string Json(const std::string& s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n = Utf8Length(s, i);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || n == 0) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
      n = 1;
    } else {
      out.append(s, i, n);
      i += n;
      continue;
    }
    i += 1;
  }
  return out + "\"";
}

std::string Base64(const std::string& data) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < data.size(); i += 3) {
    unsigned v = static_cast<unsigned char>(data[i]) << 16 |
                 static_cast<unsigned char>(data[i + 1]) << 8 |
                 static_cast<unsigned char>(data[i + 2]);
    out += kAlphabet[v >> 18 & 63];
    out += kAlphabet[v >> 12 & 63];
    out += kAlphabet[v >> 6 & 63];
    out += kAlphabet[v & 63];
  }
  if (i < data.size()) {
    unsigned v = static_cast<unsigned char>(data[i]) << 16;
    if (i + 1 < data.size()) v |= static_cast<unsigned char>(data[i + 1]) << 8;
    out += kAlphabet[v >> 18 & 63];
    out += kAlphabet[v >> 12 & 63];
    out += i + 1 < data.size() ? kAlphabet[v >> 6 & 63] : '=';
    out += '=';
  }
  return out;
}

std::string TypeName(int type) {
  if (type == 1) return "file";
  if (type == 2) return "directory";
  return "unknown(" + std::to_string(type) + ")";
}

std::string RecordJson(const _FS_FILE_V2& file, const std::string& display_path) {
  return "{\"path\":" + Json(display_path) + ",\"name\":" + Json(file.name) +
         ",\"type\":" + Json(TypeName(file.type)) + ",\"size\":" + std::to_string(file.size) +
         ",\"id\":" + Json(file.id) + ",\"create_time\":" + Json(file.create_time) +
         ",\"access_time\":" + Json(file.access_time) +
         ",\"modify_time\":" + Json(file.modify_time) + "}";
}

// "2024-01-02T03:04:05.000Z" -> "2024-01-02 03:04:05". The plug-in's times
// are local wall-clock fields; the "Z" is only a suffix.
std::string ShortTime(const std::string& rfc3339) {
  if (rfc3339.size() < 19 || rfc3339[10] != 'T') return rfc3339;
  std::string out = rfc3339.substr(0, 19);
  out[10] = ' ';
  return out;
}

// --- the session ----------------------------------------------------------------

struct Options {
  std::string plugin;
  std::string root = ".";
  std::vector<std::string> opts;
  bool json = false;
  bool verbose = false;
};

std::string ExecutableDir() {
  char buffer[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return ".";
  buffer[n] = '\0';
  return std::filesystem::path(buffer).parent_path().string();
}

// The localdisk plug-in built or installed alongside the tool: the build tree
// puts both in the top build directory, an install puts the plug-in in lib/.
std::string DefaultPlugin() {
  std::string dir = ExecutableDir();
  const std::vector<std::string> candidates = {
      dir + "/liblocaldisk.so",
      dir + "/../liblocaldisk.so",
      dir + "/" PLUGHOST_LIBDIR_FROM_BINDIR "/liblocaldisk.so",
      dir + "/" PLUGHOST_LIBDIR_FROM_BINDIR "/liblocaldisk.so.1",
      dir + "/../lib/liblocaldisk.so",
      dir + "/../lib/liblocaldisk.so.1",
  };
  for (const std::string& candidate : candidates) {
    std::error_code error;
    if (std::filesystem::is_regular_file(candidate, error)) {
      return std::filesystem::absolute(candidate, error).lexically_normal().string();
    }
  }
  throw Failure("no localdisk plug-in found next to " + dir + "; name one with --plugin PATH");
}

class Session {
 public:
  explicit Session(const Options& options) : options_(options) {}

  void Open() {
    std::string plugin_path = options_.plugin.empty() ? DefaultPlugin() : options_.plugin;
    // Resolve the root before loading anything: a wrong --root is a usage error.
    char* real = realpath(options_.root.c_str(), nullptr);
    if (real == nullptr) {
      throw UsageError("--root " + options_.root + ": " + std::strerror(errno));
    }
    std::string root = real;
    std::free(real);
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      throw UsageError("--root " + options_.root + ": not a directory");
    }
    std::vector<std::pair<std::string, std::string>> settings;
    for (const std::string& option : options_.opts) {
      size_t equals = option.find('=');
      if (equals == std::string::npos || equals == 0) {
        throw UsageError("-o " + option + ": expected KEY=VALUE");
      }
      settings.emplace_back(option.substr(0, equals), option.substr(equals + 1));
    }

    plugin_ = std::make_unique<plughost::Plugin>(plughost::Plugin::Load(plugin_path));
    if (options_.verbose) {
      log_ = std::make_unique<plughost::StderrLog>("plughost: ");
      plugin_->BindLogger(log_.get());
    }
    client_ = std::make_unique<Client>(*plugin_, plugin_->CreateProtocol(&config_));
    client_->SetOpt("root_path", root);
    for (const auto& [key, value] : settings)
      client_->SetOpt(key, value);
    root_id_ = client_->RootId();
  }

  ~Session() {
    // The object goes before the logger it may still log to.
    client_.reset();
    if (plugin_ && log_) plugin_->UnbindLogger();
  }

  Client& client() { return *client_; }
  const plughost::Plugin& plugin() const { return *plugin_; }
  const std::string& root_id() const { return root_id_; }
  bool json() const { return options_.json; }

  // The user's path, confined to the root; a usage error when it escapes.
  std::string Resolve(const std::string& user_path, const std::string& operation) const {
    std::optional<std::string> relative = plughost::NormalizeUserPath(user_path);
    if (!relative) {
      throw UsageError(operation + " " + user_path + ": path escapes the storage root");
    }
    return *relative;
  }

  std::string Protocol(const std::string& relative) const {
    return plughost::JoinProtocolPath(root_id_, relative);
  }

 private:
  const Options& options_;
  std::unique_ptr<plughost::Plugin> plugin_;
  std::unique_ptr<plughost::StderrLog> log_;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<Client> client_;
  std::string root_id_;
};

std::string Child(const std::string& relative, const std::string& name) {
  return relative.empty() ? name : relative + "/" + name;
}

std::string Shown(const std::string& typed) {
  return typed.empty() ? "/" : typed;
}

// Runs a Read and hands the chunks to `write`; translates cancellation, a
// file that ended early and failures of `write`.
void ReadRange(Session& session, const std::string& relative, const Context& context,
               long long offset, long long length, plughost::ProgressBar* bar,
               const std::function<void(const char*, long long)>& write) {
  auto handle = std::make_shared<_FS_HANDLE>();
  if (bar != nullptr) {
    handle->progress = plughost::ProgressBar::Callback;
    handle->progress_context = bar->context();
  }
  bool ended_early = false;
  plughost::FetchAdapter sink(
      [&](long long, const char* data, long long n) {
        if (n == 0) {
          // The file is shorter than it was: the plug-in would keep handing
          // out empty chunks until cancelled.
          ended_early = true;
          handle->state.store(FS_HANDLE_STOP);
          return;
        }
        write(data, n);
      },
      handle);
  AERROR code;
  std::string message;
  {
    TransferScope scope(handle.get());
    code =
        session.client().Read(session.Protocol(relative), offset, length, handle, &sink, &message);
  }
  if (bar != nullptr) bar->Finish();
  if (Interrupted()) throw Cancelled(context.operation + " " + context.path + ": cancelled");
  try {
    sink.RethrowIfFailed();
  } catch (const std::system_error& error) {
    throw Failure(context.operation + " " + context.path + ": " + error.what());
  }
  if (ended_early) {
    throw Failure(context.operation + " " + context.path + ": the file ended early");
  }
  session.client().Check(code, context, message);
}

void WriteFd(int fd, const char* data, long long length, const std::string& what) {
  while (length > 0) {
    ssize_t n = write(fd, data, static_cast<size_t>(std::min<long long>(length, 1 << 20)));
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "cannot write " + what);
    }
    data += n;
    length -= n;
  }
}

// --- subcommands ------------------------------------------------------------------

int CmdLs(Session& s, const std::string& typed, bool long_form) {
  Context context{"ls", Shown(typed)};
  std::string relative = s.Resolve(typed, "ls");
  _FS_FILE_V2 self = s.client().Info(s.Protocol(relative), context);
  std::vector<std::pair<std::string, _FS_FILE_V2>> entries;
  if (self.type == 2) {
    for (_FS_FILE_V2& file : s.client().List(s.Protocol(relative), context)) {
      std::string path = plughost::DisplayPath(Child(relative, file.name));
      entries.emplace_back(std::move(path), std::move(file));
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.second.name < b.second.name; });
  } else {
    entries.emplace_back(plughost::DisplayPath(relative), std::move(self));
  }
  if (s.json()) {
    std::string out = "[";
    for (size_t i = 0; i < entries.size(); ++i) {
      if (i > 0) out += ",";
      out += RecordJson(entries[i].second, entries[i].first);
    }
    std::cout << out << "]\n";
    return kExitOk;
  }
  if (!long_form) {
    for (const auto& entry : entries)
      std::cout << entry.second.name << "\n";
    return kExitOk;
  }
  // Directory sizes are a file-system detail; the column shows "-" for them.
  auto size_text = [](const _FS_FILE_V2& f) {
    return f.type == 2 ? std::string("-") : std::to_string(f.size);
  };
  size_t width = 1;
  for (const auto& entry : entries)
    width = std::max(width, size_text(entry.second).size());
  for (const auto& [path, file] : entries) {
    std::string size = size_text(file);
    std::cout << (file.type == 2 ? 'd' : '-') << ' ' << std::string(width - size.size(), ' ')
              << size << "  " << ShortTime(file.modify_time) << "  " << file.name << "\n";
  }
  return kExitOk;
}

void PrintRecord(Session& s, const _FS_FILE_V2& file, const std::string& display) {
  if (s.json()) {
    std::cout << RecordJson(file, display) << "\n";
    return;
  }
  std::cout << "path:   " << display << "\n"
            << "name:   " << file.name << "\n"
            << "type:   " << TypeName(file.type) << "\n"
            << "size:   " << file.size << "\n"
            << "id:     " << file.id << "\n"
            << "create: " << file.create_time << "\n"
            << "access: " << file.access_time << "\n"
            << "modify: " << file.modify_time << "\n";
}

int CmdStat(Session& s, const std::string& typed) {
  std::string relative = s.Resolve(typed, "stat");
  _FS_FILE_V2 file = s.client().Info(s.Protocol(relative), {"stat", typed});
  PrintRecord(s, file, plughost::DisplayPath(relative));
  return kExitOk;
}

int CmdCat(Session& s, const std::string& typed, long long offset,
           std::optional<long long> length) {
  Context context{"cat", typed};
  std::string relative = s.Resolve(typed, "cat");
  _FS_FILE_V2 file = s.client().Info(s.Protocol(relative), context);
  if (file.type == 2) throw Failure("cat " + typed + ": is a directory");
  // Never ask past the end: the plug-in would wait for a cancel there.
  long long start = std::min<long long>(offset, file.size);
  long long count = file.size - start;
  if (length && *length < count) count = *length;
  std::string collected;
  if (count > 0) {
    std::fflush(stdout);
    ReadRange(s, relative, context, start, count, nullptr, [&](const char* data, long long n) {
      if (s.json()) {
        collected.append(data, static_cast<size_t>(n));
      } else {
        WriteFd(STDOUT_FILENO, data, n, "standard output");
      }
    });
  }
  if (s.json()) {
    std::cout << "{\"path\":" << Json(plughost::DisplayPath(relative)) << ",\"offset\":" << start
              << ",\"length\":" << count << ",\"base64\":" << Json(Base64(collected)) << "}\n";
  }
  return kExitOk;
}

int CmdGet(Session& s, const std::string& typed, std::string local, std::optional<bool> progress) {
  Context context{"get", typed};
  std::string relative = s.Resolve(typed, "get");
  _FS_FILE_V2 file = s.client().Info(s.Protocol(relative), context);
  if (file.type == 2) throw Failure("get " + typed + ": is a directory");
  std::string name = relative.empty() ? file.name : plughost::BaseName(relative);
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
    if (fd < 0)
      throw Failure("get " + typed + ": cannot open " + local + ": " + std::strerror(errno));
  }
  plughost::ProgressBar bar(STDERR_FILENO, plughost::ShouldShowProgress(STDERR_FILENO, progress),
                            name);
  try {
    if (file.size > 0) {
      ReadRange(s, relative, context, 0, file.size, &bar, [&](const char* data, long long n) {
        WriteFd(fd, data, n, to_stdout ? std::string("standard output") : local);
      });
    }
    if (!to_stdout && close(std::exchange(fd, -1)) != 0) {
      throw Failure("get " + typed + ": cannot write " + local + ": " + std::strerror(errno));
    }
  } catch (...) {
    // Leave nothing half-written behind that was not there before.
    if (!to_stdout) {
      if (fd >= 0) close(fd);
      if (!existed) unlink(local.c_str());
    }
    throw;
  }
  bar.Finish();
  if (to_stdout) return kExitOk;
  if (s.json()) {
    std::cout << "{\"path\":" << Json(plughost::DisplayPath(relative))
              << ",\"local\":" << Json(local) << ",\"bytes\":" << file.size << "}\n";
  } else {
    std::cout << plughost::DisplayPath(relative) << " -> " << local << " (" << file.size
              << " bytes)\n";
  }
  return kExitOk;
}

int CmdPut(Session& s, const std::string& local, const std::string& typed_dir, std::string name,
           std::optional<bool> progress) {
  if (name.empty()) {
    if (local == "-") throw UsageError("put -: --name is required when reading standard input");
    name = std::filesystem::path(local).filename().string();
  }
  if (!plughost::IsPlainName(name)) throw UsageError("put: invalid name '" + name + "'");
  std::string dir = s.Resolve(typed_dir, "put");
  std::string target = Child(dir, name);
  Context context{"put", plughost::DisplayPath(target)};

  std::unique_ptr<plughost::FileCache> cache;
  try {
    cache = local == "-" ? plughost::FileCache::FromStream(std::cin)
                         : std::make_unique<plughost::FileCache>(local);
  } catch (const std::system_error& error) {
    throw Failure("put " + local + ": cannot read: " + error.code().message());
  }
  _FS_FILE_V2 parent = s.client().Info(s.Protocol(dir), {"put", Shown(typed_dir)});
  if (parent.type != 2) throw Failure("put " + typed_dir + ": not a directory");

  plughost::ProgressBar bar(STDERR_FILENO, plughost::ShouldShowProgress(STDERR_FILENO, progress),
                            name);
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->progress = plughost::ProgressBar::Callback;
  handle->progress_context = bar.context();
  _FS_FILE_V2 file;
  file.name = name;
  file.size = cache->size();
  AERROR code;
  std::string message;
  {
    TransferScope scope(handle.get());
    code = s.client().Upload(s.Protocol(dir), handle, cache.get(), &file, UPLOAD_FLAG_OVERWRITE,
                             &message);
  }
  bar.Finish();
  if (Interrupted() || code == UPLOAD_CANCELED) {
    // The plug-in keeps what it wrote so far; a cancelled put leaves nothing.
    try {
      s.client().Delete(s.Protocol(target), context);
    } catch (const std::exception&) {
    }
    throw Cancelled("put " + plughost::DisplayPath(target) + ": cancelled");
  }
  if (cache->last_error() != 0) {
    throw Failure("put " + local + ": cannot read: " + std::strerror(cache->last_error()));
  }
  s.client().Check(code, context, message);
  if (s.json()) {
    std::cout << RecordJson(file, plughost::DisplayPath(target)) << "\n";
  } else {
    std::cout << local << " -> " << plughost::DisplayPath(target) << " (" << file.size
              << " bytes)\n";
  }
  return kExitOk;
}

int CmdMv(Session& s, const std::string& typed_src, const std::string& typed_dir,
          std::string name) {
  std::string source = s.Resolve(typed_src, "mv");
  std::string dir = s.Resolve(typed_dir, "mv");
  if (source.empty()) throw UsageError("mv " + typed_src + ": cannot move the storage root");
  if (name.empty()) name = plughost::BaseName(source);
  if (!plughost::IsPlainName(name)) throw UsageError("mv: invalid name '" + name + "'");
  std::string target = Child(dir, name);
  _FS_FILE_V2 file = s.client().Move(s.Protocol(source), s.Protocol(dir), name, {"mv", typed_src});
  if (s.json()) {
    std::cout << RecordJson(file, plughost::DisplayPath(target)) << "\n";
  } else {
    std::cout << plughost::DisplayPath(source) << " -> " << plughost::DisplayPath(target) << "\n";
  }
  return kExitOk;
}

int CmdMkdir(Session& s, const std::string& typed) {
  std::string relative = s.Resolve(typed, "mkdir");
  if (relative.empty()) throw UsageError("mkdir " + typed + ": the storage root always exists");
  _FS_FILE_V2 file = s.client().CreateDirectory(s.Protocol(plughost::DirName(relative)),
                                                plughost::BaseName(relative), {"mkdir", typed});
  // The plug-in accepts an existing entry of that name, whatever its type.
  if (file.type != 2) throw Failure("mkdir " + typed + ": a file of that name exists");
  if (s.json()) {
    std::cout << RecordJson(file, plughost::DisplayPath(relative)) << "\n";
  } else {
    std::cout << "created " << plughost::DisplayPath(relative) << "\n";
  }
  return kExitOk;
}

int CmdRemove(Session& s, const std::string& typed, bool directory) {
  const char* operation = directory ? "rmdir" : "rm";
  Context context{operation, typed};
  std::string relative = s.Resolve(typed, operation);
  if (relative.empty()) {
    throw UsageError(std::string(operation) + " " + typed +
                     ": refusing to remove the storage root");
  }
  _FS_FILE_V2 file = s.client().Info(s.Protocol(relative), context);
  if (directory) {
    if (file.type != 2) throw Failure("rmdir " + typed + ": not a directory");
    if (!s.client().List(s.Protocol(relative), context).empty()) {
      throw Failure("rmdir " + typed + ": directory not empty");
    }
    s.client().DeleteDirectory(s.Protocol(relative), context);
  } else {
    if (file.type == 2) throw Failure("rm " + typed + ": is a directory (use rmdir)");
    s.client().Delete(s.Protocol(relative), context);
  }
  if (s.json()) {
    std::cout << "{\"removed\":" << Json(plughost::DisplayPath(relative)) << "}\n";
  } else {
    std::cout << "removed " << plughost::DisplayPath(relative) << "\n";
  }
  return kExitOk;
}

int CmdTouch(Session& s, const std::string& typed, const std::optional<std::string>& date) {
  Context context{"touch", typed};
  time_t when = std::time(nullptr);
  if (date) {
    struct tm parsed {};
    if (approxidate(date->c_str(), &parsed) != 0) {
      throw UsageError("touch: cannot read the date '" + *date + "'");
    }
    when = timegm(&parsed);
  }
  std::string relative = s.Resolve(typed, "touch");
  std::string path = s.Protocol(relative);
  try {
    s.client().Info(path, context);
  } catch (const plughost::ProtocolError& error) {
    if (error.code() != FILE_NOT_FOUND || relative.empty()) throw;
    // A missing file is created empty, as touch(1) does.
    plughost::CacheAdapter empty([](long long, char*, long long) { return 0LL; });
    _FS_FILE_V2 file;
    file.name = plughost::BaseName(relative);
    std::string message;
    AERROR code =
        s.client().Upload(s.Protocol(plughost::DirName(relative)), std::make_shared<_FS_HANDLE>(),
                          &empty, &file, UPLOAD_FLAG_NONE, &message);
    s.client().Check(code, context, message);
  }
  std::string text = plughost::FileTimeText(when);
  s.client().SetFileTime(path, text, text, text, context);
  _FS_FILE_V2 file = s.client().Info(path, context);
  if (s.json()) {
    std::cout << RecordJson(file, plughost::DisplayPath(relative)) << "\n";
  } else {
    std::cout << "touched " << plughost::DisplayPath(relative) << ": "
              << ShortTime(file.modify_time) << "\n";
  }
  return kExitOk;
}

int CmdDf(Session& s) {
  std::optional<plughost::Quota> quota = s.client().GetQuota();
  if (!quota) {
    if (s.json()) {
      std::cout << "{\"total\":null,\"used\":null,\"free\":null}\n";
    } else {
      std::cout << "quota: not reported by the plug-in\n";
    }
    return kExitOk;
  }
  unsigned long long free = quota->total > quota->used ? quota->total - quota->used : 0;
  if (s.json()) {
    std::cout << "{\"total\":" << quota->total << ",\"used\":" << quota->used
              << ",\"free\":" << free << "}\n";
    return kExitOk;
  }
  int percent =
      quota->total > 0
          ? static_cast<int>(
                100.0 * static_cast<double>(quota->used) / static_cast<double>(quota->total) + 0.5)
          : 0;
  std::cout << "total  " << plughost::HumanBytes(quota->total) << "\n"
            << "used   " << plughost::HumanBytes(quota->used) << " (" << percent << "%)\n"
            << "free   " << plughost::HumanBytes(free) << "\n";
  return kExitOk;
}

int CmdWhoami(Session& s) {
  std::string user = s.client().UserInfo();
  if (s.json()) {
    std::cout << "{\"user\":" << Json(user) << "}\n";
  } else {
    std::cout << user << "\n";
  }
  return kExitOk;
}

int CmdInfo(Session& s) {
  std::string protocol = s.plugin().SupportProtocol();
  std::string type = s.client().Type();
  int features = s.client().Feature();
  std::string pid = s.client().Pid();
  int auth = s.plugin().AuthType();
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(features));
  if (s.json()) {
    std::cout << "{\"plugin\":" << Json(s.plugin().path()) << ",\"protocol\":" << Json(protocol)
              << ",\"type\":" << Json(type) << ",\"features\":" << features
              << ",\"root\":" << Json(s.root_id()) << ",\"pid\":" << Json(pid)
              << ",\"auth_type\":" << auth << "}\n";
  } else {
    std::cout << "plugin:   " << s.plugin().path() << "\n"
              << "protocol: " << protocol << "\n"
              << "type:     " << type << "\n"
              << "features: " << hex << "\n"
              << "root:     " << s.root_id() << "\n"
              << "pid:      " << pid << "\n"
              << "auth:     " << auth << "\n";
  }
  return kExitOk;
}

void Complain(const std::string& text) {
  std::cerr << "plughost: " << text << std::endl;
}

std::optional<bool> ProgressChoice(bool on, bool off) {
  if (on) return true;
  if (off) return false;
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "plughost: use a storage-protocol plug-in from the shell.\n"
      "Paths are relative to the storage root (--root); a leading \"/\" means the root,\n"
      "and a path that leads outside the root is refused.",
      "plughost"};
  app.fallthrough();
  app.require_subcommand(1);
  app.set_version_flag("--version", "plughost " PLUGHOST_VERSION);
  app.footer(
      "Exit codes: 0 success, 1 operation failed, 2 usage error, 130 cancelled (Ctrl-C).\n"
      "Run 'plughost SUBCOMMAND --help' for the options of a subcommand.");
  app.add_option("--plugin", options.plugin,
                 "Protocol plug-in to load (default: the localdisk plug-in next to plughost, "
                 "or in ../lib when installed)")
      ->type_name("PATH");
  app.add_option("--root", options.root, "Directory serving as the storage root (default: .)")
      ->type_name("DIR");
  app.add_option("-o,--option", options.opts,
                 "Pass an option to the plug-in with SetOpt (repeatable), e.g. -o pid=demo")
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--json", options.json, "Machine-readable output: one JSON value on stdout");
  app.add_flag("-v,--verbose", options.verbose, "Bind a logger: the plug-in's log on stderr");

  std::function<int(Session&)> run;

  std::string path, local, dir, name, date_text;
  bool long_form = false, progress_on = false, progress_off = false;
  long long offset = 0, length = -1;

  auto* ls = app.add_subcommand("ls", "List a directory, sorted by name (a file lists itself)");
  ls->add_flag("-l,--long", long_form, "Long form: type, size, modification time and name");
  ls->add_option("path", path, "Directory to list (default: the root)")->type_name("PATH");
  ls->callback([&] { run = [&](Session& s) { return CmdLs(s, path, long_form); }; });

  auto* stat_cmd = app.add_subcommand("stat", "Show every field of an entry's record");
  stat_cmd->add_option("path", path, "Entry to describe")->required()->type_name("PATH");
  stat_cmd->callback([&] { run = [&](Session& s) { return CmdStat(s, path); }; });

  auto* cat = app.add_subcommand("cat", "Write a file (or a byte range of it) to stdout");
  cat->add_option("path", path, "File to read")->required()->type_name("PATH");
  const CLI::Range non_negative(0LL, std::numeric_limits<long long>::max());
  cat->add_option("--offset", offset, "First byte to write (default 0)")
      ->check(non_negative)
      ->type_name("N");
  auto* length_opt = cat->add_option("--length", length, "Number of bytes (default: to the end)")
                         ->check(non_negative)
                         ->type_name("N");
  cat->callback([&] {
    run = [&](Session& s) {
      std::optional<long long> count;
      if (length_opt->count() > 0) count = length;
      return CmdCat(s, path, offset, count);
    };
  });

  auto* get = app.add_subcommand("get", "Copy a file from the storage to a local file");
  get->add_option("path", path, "File to copy")->required()->type_name("PATH");
  get->add_option("local", local,
                  "Local destination: a file, a directory, or - for stdout "
                  "(default: the file's name in the current directory)")
      ->type_name("LOCAL");
  auto* get_on = get->add_flag("--progress", progress_on,
                               "Show the progress bar even when stderr is not a terminal");
  auto* get_off = get->add_flag("--no-progress", progress_off, "Never show the progress bar");
  get_on->excludes(get_off);
  get->callback([&] {
    run = [&](Session& s) {
      return CmdGet(s, path, local, ProgressChoice(progress_on, progress_off));
    };
  });

  auto* put = app.add_subcommand("put", "Copy a local file into a storage directory");
  put->add_option("local", local, "Local file to copy, or - for stdin (needs --name)")
      ->required()
      ->type_name("LOCAL");
  put->add_option("dir", dir, "Destination directory (default: the root)")->type_name("DIR");
  put->add_option("--name", name, "Name of the new file (default: the local file's name)")
      ->type_name("NAME");
  auto* put_on = put->add_flag("--progress", progress_on,
                               "Show the progress bar even when stderr is not a terminal");
  auto* put_off = put->add_flag("--no-progress", progress_off, "Never show the progress bar");
  put_on->excludes(put_off);
  put->callback([&] {
    run = [&](Session& s) {
      return CmdPut(s, local, dir, name, ProgressChoice(progress_on, progress_off));
    };
  });

  auto* mv = app.add_subcommand("mv", "Move an entry into a directory (optionally renaming it)");
  mv->add_option("src", path, "Entry to move")->required()->type_name("SRC");
  mv->add_option("destdir", dir, "Directory to move it into")->required()->type_name("DESTDIR");
  mv->add_option("--name", name, "New name (default: the current name)")->type_name("NAME");
  mv->callback([&] { run = [&](Session& s) { return CmdMv(s, path, dir, name); }; });

  auto* mkdir_cmd = app.add_subcommand(
      "mkdir", "Create a directory (its parent must exist; an existing directory is accepted)");
  mkdir_cmd->add_option("path", path, "Directory to create")->required()->type_name("PATH");
  mkdir_cmd->callback([&] { run = [&](Session& s) { return CmdMkdir(s, path); }; });

  auto* rm = app.add_subcommand("rm", "Remove a file");
  rm->add_option("path", path, "File to remove")->required()->type_name("PATH");
  rm->callback([&] { run = [&](Session& s) { return CmdRemove(s, path, false); }; });

  auto* rmdir_cmd = app.add_subcommand("rmdir", "Remove an empty directory");
  rmdir_cmd->add_option("path", path, "Directory to remove")->required()->type_name("PATH");
  rmdir_cmd->callback([&] { run = [&](Session& s) { return CmdRemove(s, path, true); }; });

  auto* touch = app.add_subcommand(
      "touch", "Set an entry's access and modification times (creates a missing file)");
  touch->add_option("path", path, "Entry to touch")->required()->type_name("PATH");
  auto* date_opt = touch
                       ->add_option("-d,--date", date_text,
                                    "When, in free form: \"2024-03-01 12:00\", \"yesterday noon\", "
                                    "\"3 days ago\", \"last friday\" (default: now)")
                       ->type_name("TEXT");
  touch->callback([&] {
    run = [&](Session& s) {
      std::optional<std::string> when;
      if (date_opt->count() > 0) when = date_text;
      return CmdTouch(s, path, when);
    };
  });

  app.add_subcommand("df", "Show the storage's size, used and free space")->callback([&] {
    run = [](Session& s) { return CmdDf(s); };
  });
  app.add_subcommand("whoami", "Show the account the storage is used as")->callback([&] {
    run = [](Session& s) { return CmdWhoami(s); };
  });
  app.add_subcommand("info", "Show the plug-in: type, features, root identifier, pid, auth type")
      ->callback([&] { run = [](Session& s) { return CmdInfo(s); }; });

  plughost::MountCommands mount_commands;
  mount_commands.Register(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    int code = app.exit(error);
    return code == 0 ? kExitOk : kExitUsage;
  }
  if (mount_commands.chosen()) {
    return mount_commands.Run(
        [&] { return options.plugin.empty() ? DefaultPlugin() : options.plugin; }, options.root,
        options.opts, options.verbose);
  }
  if (!run) return kExitUsage;

  InstallInterruptHandler();
  int status = kExitFailed;
  try {
    Session session(options);
    session.Open();
    status = run(session);
    std::cout.flush();
    if (!std::cout) throw Failure("cannot write standard output");
    if (Interrupted()) throw Cancelled("cancelled");
  } catch (const Cancelled& error) {
    Complain(error.what());
    return kExitCancelled;
  } catch (const UsageError& error) {
    Complain(error.what());
    return kExitUsage;
  } catch (const plughost::ProtocolError& error) {
    Complain(error.what());
    return Interrupted() ? kExitCancelled : kExitFailed;
  } catch (const std::exception& error) {
    Complain(error.what());
    return Interrupted() ? kExitCancelled : kExitFailed;
  }
  return status;
}
