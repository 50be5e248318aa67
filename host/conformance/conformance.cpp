#include "host/conformance/conformance.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <thread>

#include <json/json.h>

#include "host/core/adapters.h"
#include "host/core/paths.h"
#include "host/core/plugin.h"
#include "protocol/contract.h"
#include "time/rfc3339.h"

namespace plughost::conformance {
namespace {

constexpr long long kChunk = 524288;  // the transfer chunk of the contract
constexpr long long kSeveralMiB = 3 * 1048576 + 12345;
const char kMissing[] = "plughost-check-missing";

struct CheckFailed {
  std::string detail;
};
struct CheckSkipped {
  std::string detail;
};

[[noreturn]] void Fail(std::string detail) {
  throw CheckFailed{std::move(detail)};
}
[[noreturn]] void Skip(std::string detail) {
  throw CheckSkipped{std::move(detail)};
}
void Expect(bool condition, const std::string& detail) {
  if (!condition) Fail(detail);
}

// Content that tells every byte apart from its neighbours and from other
// files: a corrupted, dropped or shifted byte shows.
std::string Pattern(long long size, std::uint32_t seed) {
  std::string data(static_cast<size_t>(size), '\0');
  std::uint32_t x = seed * 2654435761u + 0x9e3779b9u;
  for (char& c : data) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x >> 24);
  }
  return data;
}

// "expected ... got ..." for two byte strings.
std::string Difference(const std::string& expected, const std::string& got) {
  size_t n = std::min(expected.size(), got.size());
  for (size_t i = 0; i < n; ++i) {
    if (expected[i] != got[i]) {
      char text[128];
      std::snprintf(text, sizeof text, "byte %zu differs: expected 0x%02x, got 0x%02x", i,
                    static_cast<unsigned char>(expected[i]), static_cast<unsigned char>(got[i]));
      return text;
    }
  }
  if (expected.size() != got.size())
    return "expected " + std::to_string(expected.size()) + " bytes, got " +
           std::to_string(got.size());
  return {};
}

// Progress reports of one transfer: (total, done) in call order.
struct ProgressLog {
  std::vector<std::pair<long long, long long>> calls;
};

void OnProgress(long long total, long long done, std::uint64_t context, double) {
  reinterpret_cast<ProgressLog*>(static_cast<uintptr_t>(context))->calls.emplace_back(total, done);
}

std::shared_ptr<_FS_HANDLE> NewHandle(ProgressLog* log = nullptr) {
  auto handle = std::make_shared<_FS_HANDLE>();
  if (log != nullptr) {
    handle->progress = OnProgress;
    handle->progress_context = static_cast<std::uint64_t>(reinterpret_cast<uintptr_t>(log));
  }
  return handle;
}

// Collects what a Read delivers and whether the chunks follow each other.
class Sink final : public IFetchCallback {
 public:
  Sink(long long start, std::shared_ptr<_FS_HANDLE> handle, int cancel_after_chunks = -1)
      : next_(start), handle_(std::move(handle)), cancel_after_(cancel_after_chunks) {}

  AERROR OnFetch(long long offset, const char* data, long long length, long long* out) override {
    if (out != nullptr) *out = 0;
    ++chunks_;
    if (offset != next_ && problem_.empty())
      problem_ = "chunk " + std::to_string(chunks_) + " starts at " + std::to_string(offset) +
                 ", expected " + std::to_string(next_);
    if (length < 0 || (length > 0 && data == nullptr)) {
      if (problem_.empty()) problem_ = "chunk of length " + std::to_string(length);
      return FAILED;
    }
    // A plug-in that cannot see the end of a file keeps sending empty chunks
    // until the host stops it; the suite asks only for existing ranges, so
    // this is a fault, and stopping keeps the suite from spinning.
    if (length == 0 && ++empty_ > 64) {
      if (problem_.empty()) problem_ = "endless empty chunks";
      handle_->state.store(FS_HANDLE_STOP);
    }
    if (length > 0) data_.append(data, static_cast<size_t>(length));
    next_ = offset + length;
    if (cancel_after_ >= 0 && chunks_ >= cancel_after_) handle_->state.store(FS_HANDLE_STOP);
    return SUCCESS;
  }

  const std::string& data() const { return data_; }
  const std::string& problem() const { return problem_; }
  int chunks() const { return chunks_; }

 private:
  long long next_;
  std::shared_ptr<_FS_HANDLE> handle_;
  int cancel_after_;
  int chunks_ = 0;
  int empty_ = 0;
  std::string data_;
  std::string problem_;
};

// An upload source serving `content`, optionally failing or cancelling the
// transfer at a given request, and noting requests that break the rules.
class Source final : public ICacheIO {
 public:
  Source(std::string content, std::shared_ptr<_FS_HANDLE> handle)
      : content_(std::move(content)), handle_(std::move(handle)) {}

  int fail_at = -1;    // index of the request answered with a failure
  int cancel_at = -1;  // index of the request after which the handle says stop

  AERROR ReadCache(_FS_CACHE_READ* request) override {
    const int index = requests_++;
    if (request == nullptr || request->buffer == nullptr) {
      Note("request without a buffer");
      return FAILED;
    }
    const long long size = static_cast<long long>(content_.size());
    if (request->offset != delivered_)
      Note("request " + std::to_string(index) + " asks for offset " +
           std::to_string(request->offset) + ", expected " + std::to_string(delivered_));
    if (request->total != size)
      Note("request total " + std::to_string(request->total) + ", expected " +
           std::to_string(size));
    if (request->capacity <= 0) Note("request capacity " + std::to_string(request->capacity));
    if (index == fail_at) return FAILED;
    // A plug-in that keeps asking after everything was delivered would spin
    // for ever; stop it and say so.
    if (index > size / std::max<long long>(request->capacity, 1) + 64) {
      Note("request " + std::to_string(index) + " after all " + std::to_string(size) +
           " bytes were delivered");
      handle_->state.store(FS_HANDLE_STOP);
      return FAILED;
    }
    if (request->offset < 0 || request->offset > size || request->capacity <= 0) return FAILED;
    const long long n = std::min(request->capacity, size - request->offset);
    std::memcpy(request->buffer, content_.data() + request->offset, static_cast<size_t>(n));
    request->length = n;
    delivered_ = request->offset + n;
    if (index == cancel_at) handle_->state.store(FS_HANDLE_STOP);
    return SUCCESS;
  }

  int requests() const { return requests_; }
  const std::string& problem() const { return problem_; }

 private:
  void Note(const std::string& text) {
    if (problem_.empty()) problem_ = text;
  }
  std::string content_;
  std::shared_ptr<_FS_HANDLE> handle_;
  int requests_ = 0;
  long long delivered_ = 0;
  std::string problem_;
};

// A logger that only counts, for the logger entry points.
class CountingLog final : public ILog {
 public:
  void Write(LOGLEVEL, const char*) override { ++lines; }
  void WriteFormat(LOGLEVEL, const char*, ...) override { ++lines; }
  void WriteLog(LOGLEVEL, const char*, va_list) override { ++lines; }
  std::atomic<int> lines{0};
};

class Suite {
 public:
  explicit Suite(const Options& options) : options_(options) {}
  ~Suite() {
    protocol_.reset();
    if (plugin_ && log_) plugin_->UnbindLogger();
    if (library_ != nullptr) dlclose(library_);
  }

  using Check = void (Suite::*)();
  static const std::vector<std::pair<const char*, Check>>& Table();

  std::vector<Result> RunAll() {
    std::vector<Result> results;
    for (const auto& [name, check] : Table()) {
      Result result{name, Result::kPass, {}};
      note_.clear();
      try {
        (this->*check)();
        result.detail = note_;
      } catch (const CheckFailed& failed) {
        result.status = Result::kFail;
        result.detail = failed.detail;
      } catch (const CheckSkipped& skipped) {
        result.status = Result::kSkip;
        result.detail = skipped.detail;
      } catch (const std::exception& error) {
        result.status = Result::kFail;
        result.detail = std::string("exception: ") + error.what();
      } catch (...) {
        result.status = Result::kFail;
        result.detail = "unknown exception";
      }
      results.push_back(std::move(result));
    }
    return results;
  }

 private:
  // --- preconditions and helpers -------------------------------------------

  void NeedPlugin() {
    if (!plugin_) Skip("the plug-in did not load");
  }
  void NeedLibrary() {
    NeedPlugin();
    if (library_ == nullptr) Skip("the plug-in did not load");
  }
  IProtocol_V2* NeedObject() {
    NeedPlugin();
    if (!protocol_) Skip("no protocol object");
    return protocol_.get();
  }
  void NeedRoot() {
    NeedObject();
    if (!root_ok_) Skip("no root identifier");
  }
  void NeedScratch() {
    NeedRoot();
    if (!scratch_ok_) Skip("no scratch directory");
  }
  void NeedFile(const std::string& name) {
    NeedScratch();
    if (files_.count(name) == 0) Skip(name + " was not uploaded");
  }

  // Codes are named from the shared table, whatever the plug-in exports.
  static std::string Name(AERROR code) {
    const char* name = GetAERRORA(code);
    if (name == nullptr || std::strcmp(name, "Unknown") == 0)
      return "AERROR(" + std::to_string(static_cast<int>(code)) + ")";
    return name;
  }
  void ExpectCode(AERROR got, AERROR want, const std::string& what) {
    if (got != want) Fail(what + ": expected " + Name(want) + ", got " + Name(got));
  }
  void ExpectSuccess(AERROR got, const std::string& what) { ExpectCode(got, SUCCESS, what); }
  void ExpectFailure(AERROR got, const std::string& what) {
    if (got == SUCCESS) Fail(what + ": expected a failure, got " + Name(got));
  }

  // A protocol path below the scratch directory ("" is the scratch itself).
  std::string Path(const std::string& relative) const {
    return JoinProtocolPath(root_id_, relative.empty() ? scratch_ : scratch_ + "/" + relative);
  }
  static std::string Child(const std::string& directory, const std::string& name) {
    return JoinProtocolPath(directory, name);
  }

  // Every message an operation stores goes back through FreeMsg.
  void Take(char* msg) {
    if (msg == nullptr) return;
    if (strnlen(msg, 65536) == 65536) bad_messages_.fetch_add(1);
    messages_.fetch_add(1);
    protocol_->FreeMsg(msg);
  }

  AERROR Info(const std::string& path, _FS_FILE_V2* file) {
    char* msg = nullptr;
    AERROR code = protocol_->GetFileInfo(path.c_str(), file, &msg);
    Take(msg);
    return code;
  }
  bool Exists(const std::string& path) {
    _FS_FILE_V2 file;
    return Info(path, &file) == SUCCESS;
  }
  AERROR List(const std::string& path, std::vector<_FS_FILE_V2>* files) {
    CollectingFileList list;
    char* msg = nullptr;
    AERROR code = protocol_->GetFileList(path.c_str(), &list, &msg);
    Take(msg);
    *files = std::move(list.files());
    return code;
  }
  std::vector<_FS_FILE_V2> ListOrFail(const std::string& path) {
    std::vector<_FS_FILE_V2> files;
    ExpectSuccess(List(path, &files), "GetFileList " + path);
    return files;
  }
  AERROR Mkdir(const std::string& parent, const std::string& name, _FS_FILE_V2* file) {
    file->name = name;
    char* msg = nullptr;
    AERROR code = protocol_->CreateDirectory(parent.c_str(), file, &msg);
    Take(msg);
    return code;
  }
  AERROR MoveCall(AERROR (IProtocol_V2::*operation)(const char*, const char*, _FS_FILE_V2*, char**),
                  const std::string& from, const std::string& to, const std::string& name,
                  _FS_FILE_V2* file) {
    file->name = name;
    char* msg = nullptr;
    AERROR code = (protocol_.get()->*operation)(from.c_str(), to.c_str(), file, &msg);
    Take(msg);
    return code;
  }
  AERROR DeleteCall(AERROR (IProtocol_V2::*operation)(_FS_FILE_V2*, char**),
                    const std::string& path) {
    _FS_FILE_V2 file;
    file.id = path;
    char* msg = nullptr;
    AERROR code = (protocol_.get()->*operation)(&file, &msg);
    Take(msg);
    return code;
  }
  AERROR UploadWith(const std::string& parent, const std::string& name, long long size,
                    Source* source, std::shared_ptr<_FS_HANDLE> handle, _FS_FILE_V2* file,
                    UPLOAD_FLAG flag = UPLOAD_FLAG_NONE) {
    file->name = name;
    file->size = size;
    char* msg = nullptr;
    AERROR code = protocol_->Upload(parent.c_str(), std::move(handle), source, file, flag, &msg);
    Take(msg);
    return code;
  }
  AERROR Upload(const std::string& parent, const std::string& name, const std::string& content,
                _FS_FILE_V2* file, UPLOAD_FLAG flag = UPLOAD_FLAG_NONE) {
    auto handle = NewHandle();
    Source source(content, handle);
    AERROR code = UploadWith(parent, name, static_cast<long long>(content.size()), &source, handle,
                             file, flag);
    if (code == SUCCESS && !source.problem().empty()) Fail("upload source: " + source.problem());
    return code;
  }
  AERROR ReadCall(const std::string& path, long long offset, long long length,
                  std::shared_ptr<_FS_HANDLE> handle, Sink* sink) {
    char* msg = nullptr;
    AERROR code = protocol_->Read(path.c_str(), offset, length, std::move(handle), sink, &msg);
    Take(msg);
    return code;
  }
  // Reads a range that exists and compares it byte for byte.
  void ExpectRange(const std::string& path, const std::string& content, long long offset,
                   long long length) {
    auto handle = NewHandle();
    Sink sink(offset, handle);
    const std::string what =
        "Read " + path + " [" + std::to_string(offset) + ", +" + std::to_string(length) + "]";
    ExpectSuccess(ReadCall(path, offset, length, handle, &sink), what);
    Expect(sink.problem().empty(), what + ": " + sink.problem());
    std::string diff = Difference(
        content.substr(static_cast<size_t>(offset), static_cast<size_t>(length)), sink.data());
    Expect(diff.empty(), what + ": " + diff);
  }
  void Remove(const std::string& path) { DeleteCall(&IProtocol_V2::Delete, path); }
  // Removes a tree depth first through the contract's own operations.
  void RemoveTree(const std::string& path, int depth) {
    std::vector<_FS_FILE_V2> files;
    if (depth < 16 && List(path, &files) == SUCCESS) {
      for (const _FS_FILE_V2& file : files) {
        if (!IsPlainName(file.name)) continue;
        const std::string child = Child(path, file.name);
        if (file.type == 2) {
          RemoveTree(child, depth + 1);
        } else {
          DeleteCall(&IProtocol_V2::Delete, child);
        }
      }
    }
    DeleteCall(&IProtocol_V2::DeleteDirectory, path);
  }
  std::set<std::string> Names(const std::vector<_FS_FILE_V2>& files) {
    std::set<std::string> names;
    for (const _FS_FILE_V2& file : files)
      names.insert(file.name);
    return names;
  }
  static std::string Join(const std::set<std::string>& names) {
    std::string out;
    for (const std::string& name : names)
      out += (out.empty() ? "" : ", ") + name;
    return "{" + out + "}";
  }

  // Buffer-and-length rules of a text output. `strict`: the text always
  // exists (the root identifier); otherwise an operation may have no text.
  void CheckBufferRules(const std::function<AERROR(char*, int*)>& call, const std::string& what,
                        bool strict) {
    int length = 0;
    AERROR code = call(nullptr, &length);
    if (!strict && (code == SUCCESS || code == NOT_SUPPORTED)) {
      Expect(length == 0,
             what + " without a buffer: " + Name(code) + " but length " + std::to_string(length));
      note_ = "no text (" + Name(code) + ")";
      return;
    }
    ExpectCode(code, INSUFFICIENT_BUFFER, what + " with a null buffer");
    Expect(length > 0, what + " with a null buffer: length " + std::to_string(length) +
                           ", expected the needed length");
    const int n = length;
    const char kCanary = '\x5a';
    // Too small by one: refused, the needed length again, nothing written.
    {
      std::string buffer(static_cast<size_t>(n) + 8, kCanary);
      int capacity = n - 1;
      ExpectCode(call(buffer.data(), &capacity), INSUFFICIENT_BUFFER,
                 what + " with capacity " + std::to_string(n - 1));
      Expect(capacity == n, what + " with capacity " + std::to_string(n - 1) + ": length " +
                                std::to_string(capacity) + ", expected " + std::to_string(n));
      Expect(buffer == std::string(buffer.size(), kCanary),
             what + " with capacity " + std::to_string(n - 1) + " wrote into the buffer");
    }
    // Exactly the length: the text, and not one byte past the capacity.
    std::string text;
    {
      std::string buffer(static_cast<size_t>(n) + 8, kCanary);
      int capacity = n;
      ExpectSuccess(call(buffer.data(), &capacity), what + " with capacity " + std::to_string(n));
      Expect(capacity == n,
             what + " with capacity " + std::to_string(n) + ": length " + std::to_string(capacity));
      Expect(buffer.substr(static_cast<size_t>(n)) == std::string(8, kCanary),
             what + " with capacity " + std::to_string(n) + " wrote past the capacity");
      text = buffer.substr(0, static_cast<size_t>(n));
    }
    // Room to spare: the same text, at most a terminator after it.
    {
      std::string buffer(static_cast<size_t>(n) + 16, kCanary);
      int capacity = n + 16;
      ExpectSuccess(call(buffer.data(), &capacity), what + " with a larger buffer");
      Expect(capacity == n, what + " with a larger buffer: length " + std::to_string(capacity) +
                                ", expected " + std::to_string(n));
      Expect(buffer.substr(0, static_cast<size_t>(n)) == text,
             what + " gave different texts for different capacities");
      Expect(buffer.substr(static_cast<size_t>(n) + 1) == std::string(15, kCanary),
             what + " with a larger buffer wrote past the text and its terminator");
    }
    note_ = std::to_string(n) + " bytes";
  }

  // --- the checks ------------------------------------------------------------

  void LoadEntryPoints() {
    Expect(!options_.plugin.empty(), "no plug-in path given");
    try {
      plugin_.emplace(Plugin::Load(options_.plugin));
    } catch (const LoadError& error) {
      Fail(error.what());
    }
    library_ = dlopen(options_.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) {
      const char* error = dlerror();
      Fail(std::string("dlopen: ") + (error != nullptr ? error : "failed"));
    }
    if (options_.verbose) {
      log_ = std::make_unique<StderrLog>("plughost check: ");
      plugin_->BindLogger(log_.get());
    }
  }

  template <typename Function>
  Function Symbol(const char* name) {
    void* symbol = dlsym(library_, name);
    if (symbol == nullptr) Fail(std::string("no entry point ") + name);
    return reinterpret_cast<Function>(symbol);
  }

  void EntryGetProtocolNull() {
    NeedLibrary();
    auto get_protocol = Symbol<GetProtocol_t>("GetProtocol");
    IProtocol_V2* const sentinel = reinterpret_cast<IProtocol_V2*>(uintptr_t{0x1000});
    IProtocol_V2* out = sentinel;
    Expect(!get_protocol(nullptr, &out), "GetProtocol(null manager) returned true");
    Expect(out == sentinel, "GetProtocol(null manager) stored an object");
    MemoryConfiguration manager;
    Expect(!get_protocol(&manager, nullptr), "GetProtocol(manager, null) returned true");
  }

  void EntrySupportProtocol() {
    NeedLibrary();
    auto get_support = Symbol<GetSupportProtocol_t>("GetSupportProtocol");
    auto free_p = Symbol<FreeP_t>("FreeP");
    get_support(nullptr);  // ignored
    free_p(nullptr);       // ignored
    char* first = nullptr;
    char* second = nullptr;
    get_support(&first);
    get_support(&second);
    std::string a = first != nullptr ? first : "";
    std::string b = second != nullptr ? second : "";
    bool distinct = first != second;
    free_p(first);
    if (second != first) free_p(second);
    Expect(!a.empty(), "GetSupportProtocol gave no name");
    Expect(a == b, "GetSupportProtocol gave \"" + a + "\", then \"" + b + "\"");
    Expect(distinct, "GetSupportProtocol returned the same pointer twice, expected fresh copies");
    protocol_name_ = a;
    note_ = "\"" + a + "\"";
  }

  void EntryLogger() {
    NeedLibrary();
    auto bind = Symbol<BindLogger_t>("BindLogger");
    auto unbind = Symbol<UnbindLogger_t>("UnbindLogger");
    Expect(!bind(nullptr), "BindLogger(null) returned true");
    CountingLog counting;
    Expect(bind(&counting), "BindLogger returned false");
    unbind();
    if (log_) plugin_->BindLogger(log_.get());
  }

  void EntryAuth() {
    NeedLibrary();
    auto auth_type = Symbol<GetAuthType_t>("GetAuthType");
    auto auth_fields = Symbol<GetAuthFields_t>("GetAuthFields");
    const int type = auth_type();
    std::string buffer(256, '\0');
    int length = 255;
    AERROR code = auth_fields(buffer.data(), &length);
    if (code == SUCCESS)
      Expect(length >= 0 && length <= 255,
             "GetAuthFields: length " + std::to_string(length) + " for a capacity of 255");
    note_ = "type " + std::to_string(type) + ", fields " + Name(code);
  }

  void ObjectCreate() {
    NeedPlugin();
    try {
      protocol_ = plugin_->CreateProtocol(&config_);
    } catch (const LoadError& error) {
      Fail(error.what());
    }
    Expect(static_cast<bool>(protocol_), "GetProtocol gave no object");
  }

  void ObjectOptions() {
    IProtocol_V2* p = NeedObject();
    if (!options_.root.empty()) {
      std::string root = options_.root;
      if (char* real = realpath(root.c_str(), nullptr)) {
        root = real;
        std::free(real);
      }
      ExpectSuccess(p->SetOpt("root_path", root.c_str()), "SetOpt root_path");
    }
    for (const auto& [key, value] : options_.opts)
      ExpectSuccess(p->SetOpt(key.c_str(), value.c_str()), "SetOpt " + key);
    ExpectSuccess(p->SetOpt("plughost-check-unknown-option", "1"), "SetOpt of an unknown key");
  }

  void ObjectType() {
    IProtocol_V2* p = NeedObject();
    char* type = nullptr;
    char* again = nullptr;
    ExpectSuccess(p->GetType(&type), "GetType");
    ExpectSuccess(p->GetType(&again), "GetType");
    Expect(type != nullptr, "GetType gave a null name");
    Expect(type == again, "GetType gave different pointers, expected one static name");
    if (protocol_name_.empty()) Skip("no name from GetSupportProtocol to compare with");
    Expect(protocol_name_ == type,
           "GetType \"" + std::string(type) + "\", GetSupportProtocol \"" + protocol_name_ + "\"");
  }

  void ObjectPid() {
    IProtocol_V2* p = NeedObject();
    ExpectSuccess(p->SetOpt("pid", "plughost-check"), "SetOpt pid");
    std::string pid = p->GetPID();
    Expect(pid == "plughost-check", "GetPID \"" + pid + "\", expected \"plughost-check\"");
  }

  void ObjectLocalConfiguration() {
    IProtocol_V2* p = NeedObject();
    ExpectCode(p->SetLocalConfiguration(nullptr), ACCESS_DENIED, "SetLocalConfiguration(null)");
    ExpectSuccess(p->SetLocalConfiguration(&local_config_), "SetLocalConfiguration");
  }

  void RootIdNullLength() {
    IProtocol_V2* p = NeedObject();
    char buffer[16];
    ExpectCode(p->GetRootID(buffer, nullptr), INVALID_PARAMETER, "GetRootID with a null length");
  }

  void RootIdBufferRules() {
    IProtocol_V2* p = NeedObject();
    CheckBufferRules([p](char* b, int* l) { return p->GetRootID(b, l); }, "GetRootID", true);
  }

  void RootIdResolve() {
    IProtocol_V2* p = NeedObject();
    int length = 0;
    p->GetRootID(nullptr, &length);
    Expect(length > 0 && length < 1 << 20, "GetRootID length " + std::to_string(length));
    std::string buffer(static_cast<size_t>(length), '\0');
    int capacity = length;
    ExpectSuccess(p->GetRootID(buffer.data(), &capacity), "GetRootID");
    Expect(capacity == length, "GetRootID length changed between calls");
    int again_length = length;
    std::string again(static_cast<size_t>(length), '\0');
    ExpectSuccess(p->GetRootID(again.data(), &again_length), "GetRootID");
    Expect(again == buffer, "GetRootID gave \"" + buffer + "\", then \"" + again + "\"");
    root_id_ = buffer;
    root_ok_ = true;
    note_ = "\"" + root_id_ + "\"";
  }

  void IdentifierNullLength() {
    IProtocol_V2* p = NeedObject();
    char buffer[16];
    AERROR code = p->GetIdentifier(buffer, nullptr);
    Expect(code == INVALID_PARAMETER || code == SUCCESS || code == NOT_SUPPORTED,
           "GetIdentifier with a null length: expected " + Name(INVALID_PARAMETER) + ", got " +
               Name(code));
    note_ = Name(code);
  }

  void IdentifierBufferRules() {
    IProtocol_V2* p = NeedObject();
    CheckBufferRules([p](char* b, int* l) { return p->GetIdentifier(b, l); }, "GetIdentifier",
                     false);
  }

  void UserInfoNullLength() {
    IProtocol_V2* p = NeedObject();
    char buffer[16];
    AERROR code = p->GetUserInfo(buffer, nullptr);
    Expect(code == INVALID_PARAMETER || code == NOT_SUPPORTED,
           "GetUserInfo with a null length: expected " + Name(INVALID_PARAMETER) + ", got " +
               Name(code));
  }

  void UserInfoBufferRules() {
    IProtocol_V2* p = NeedObject();
    CheckBufferRules([p](char* b, int* l) { return p->GetUserInfo(b, l); }, "GetUserInfo", false);
  }

  void QuotaFigures() {
    IProtocol_V2* p = NeedObject();
    constexpr unsigned long long kUnset = ~0ull;
    unsigned long long total = kUnset;
    unsigned long long second = kUnset;
    ExpectSuccess(p->GetQuota(&total, &second), "GetQuota");
    if (total == kUnset && second == kUnset) {
      note_ = "no figures";
      return;
    }
    Expect(total != kUnset && second != kUnset, "GetQuota filled only one of its figures");
    Expect(second <= total, "GetQuota: second figure " + std::to_string(second) +
                                " exceeds the total " + std::to_string(total));
    note_ = std::to_string(second) + " of " + std::to_string(total) + " bytes";
  }

  void QuotaNullPointers() {
    IProtocol_V2* p = NeedObject();
    unsigned long long figure = 0;
    ExpectSuccess(p->GetQuota(nullptr, nullptr), "GetQuota(null, null)");
    ExpectSuccess(p->GetQuota(&figure, nullptr), "GetQuota(total, null)");
    ExpectSuccess(p->GetQuota(nullptr, &figure), "GetQuota(null, free)");
  }

  void FreeMsgNull() {
    IProtocol_V2* p = NeedObject();
    p->FreeMsg(nullptr);
  }

  void InfoRoot() {
    NeedRoot();
    _FS_FILE_V2 file;
    ExpectSuccess(Info(root_id_, &file), "GetFileInfo of the root " + root_id_);
    Expect(file.type == 2, "the root has type " + std::to_string(file.type) + ", expected 2");
  }

  void InfoMissing() {
    NeedRoot();
    _FS_FILE_V2 file;
    file.id = "sentinel-id";
    file.type = 77;
    file.size = 1234;
    file.create_time = file.access_time = file.modify_time = "sentinel-time";
    file.name = "sentinel-name";
    file.aux_text = file.aux_text_v2 = "sentinel-aux";
    file.parents.push_back("sentinel-parent");
    const _FS_FILE_V2 before = file;
    ExpectCode(Info(Child(root_id_, kMissing), &file), FILE_NOT_FOUND,
               "GetFileInfo of a missing path");
    Expect(file.id == before.id && file.type == before.type && file.size == before.size &&
               file.create_time == before.create_time && file.access_time == before.access_time &&
               file.modify_time == before.modify_time && file.name == before.name &&
               file.aux_text == before.aux_text && file.aux_text_v2 == before.aux_text_v2 &&
               file.parents == before.parents,
           "GetFileInfo of a missing path changed the record");
  }

  void ListRoot() {
    NeedRoot();
    std::vector<_FS_FILE_V2> files = ListOrFail(root_id_);
    for (const _FS_FILE_V2& file : files)
      Expect(IsPlainName(file.name), "root listing has the name \"" + file.name + "\"");
    root_names_ = Names(files);
    Expect(root_names_.size() == files.size(), "root listing names an entry twice");
    root_listed_ = true;
    note_ = std::to_string(files.size()) + " entries";
  }

  void ListMissing() {
    NeedRoot();
    std::vector<_FS_FILE_V2> files;
    AERROR code = List(Child(root_id_, kMissing), &files);
    ExpectFailure(code, "GetFileList of a missing path");
    Expect(files.empty(), "GetFileList of a missing path delivered entries");
  }

  void MkdirScratch() {
    NeedRoot();
    scratch_ = options_.dir;
    if (scratch_.empty()) {
      char name[64];
      std::snprintf(name, sizeof name, "plughost-check-%ld-%04lx", static_cast<long>(getpid()),
                    static_cast<unsigned long>(std::time(nullptr) & 0xffff));
      scratch_ = name;
    }
    Expect(IsPlainName(scratch_),
           "scratch directory name \"" + scratch_ + "\" is not a plain name");
    // Never work in something that already exists: it is not ours to remove.
    Expect(!Exists(Path("")), Path("") + " already exists; refusing to use it");
    _FS_FILE_V2 file;
    ExpectSuccess(Mkdir(root_id_, scratch_, &file), "CreateDirectory " + scratch_);
    scratch_ok_ = true;  // created: from here on the suite removes it at the end
    Expect(file.type == 2, "CreateDirectory filled type " + std::to_string(file.type));
    Expect(file.name == scratch_, "CreateDirectory filled the name \"" + file.name + "\"");
    _FS_FILE_V2 info;
    ExpectSuccess(Info(Path(""), &info), "GetFileInfo " + Path(""));
    Expect(info.type == 2, "the new directory has type " + std::to_string(info.type));
    note_ = Path("");
  }

  void ListEmpty() {
    NeedScratch();
    std::vector<_FS_FILE_V2> files = ListOrFail(Path(""));
    Expect(files.empty(), "a new directory lists " + Join(Names(files)));
  }

  void MkdirNested() {
    NeedScratch();
    _FS_FILE_V2 dir;
    ExpectSuccess(Mkdir(Path(""), "dir", &dir), "CreateDirectory dir");
    _FS_FILE_V2 sub;
    ExpectSuccess(Mkdir(Path("dir"), "sub", &sub), "CreateDirectory dir/sub");
    Expect(sub.type == 2 && sub.name == "sub", "CreateDirectory dir/sub filled type " +
                                                   std::to_string(sub.type) + ", name \"" +
                                                   sub.name + "\"");
    _FS_FILE_V2 info;
    ExpectSuccess(Info(Path("dir/sub"), &info), "GetFileInfo dir/sub");
    Expect(info.type == 2, "dir/sub has type " + std::to_string(info.type));
    dirs_.insert("dir");
  }

  void MkdirMissingParent() {
    NeedScratch();
    _FS_FILE_V2 file;
    ExpectFailure(Mkdir(Path(kMissing), "x", &file), "CreateDirectory in a missing directory");
    Expect(!Exists(Path(kMissing)), "CreateDirectory in a missing directory created the parent");
    Expect(!Exists(Path(std::string(kMissing) + "/x")), "CreateDirectory created x");
  }

  void UploadSize(long long size) {
    NeedScratch();
    const std::string name = "size-" + std::to_string(size);
    const std::string content = Pattern(size, static_cast<std::uint32_t>(size) + 1);
    _FS_FILE_V2 file;
    auto handle = NewHandle();
    Source source(content, handle);
    ExpectSuccess(UploadWith(Path(""), name, size, &source, handle, &file), "Upload " + name);
    Expect(source.problem().empty(), "Upload " + name + ": " + source.problem());
    Expect(file.type == 1 && file.name == name && file.size == size,
           "Upload filled type " + std::to_string(file.type) + ", name \"" + file.name +
               "\", size " + std::to_string(file.size) + "; expected 1, \"" + name + "\", " +
               std::to_string(size));
    _FS_FILE_V2 info;
    ExpectSuccess(Info(file.id, &info), "GetFileInfo of the uploaded record's id " + file.id);
    Expect(info.size == size, "GetFileInfo size " + std::to_string(info.size));
    files_[name] = content;
    if (size > 0) ExpectRange(Path(name), content, 0, size);
    note_ = std::to_string(source.requests()) + " cache requests";
  }
  void Upload0() { UploadSize(0); }
  void Upload1() { UploadSize(1); }
  void UploadChunk() { UploadSize(kChunk); }
  void UploadChunkPlus1() { UploadSize(kChunk + 1); }
  void UploadSeveralMiB() { UploadSize(kSeveralMiB); }

  void ReadRanges(long long size) {
    const std::string name = "size-" + std::to_string(size);
    NeedFile(name);
    const std::string& content = files_[name];
    ExpectRange(Path(name), content, 0, 1);
    ExpectRange(Path(name), content, size / 2, std::min<long long>(size - size / 2, 4099));
    ExpectRange(Path(name), content, size - 1, 1);
    if (size > kChunk + 16) ExpectRange(Path(name), content, kChunk - 16, 32);  // across a chunk
    if (size > 2 * kChunk) ExpectRange(Path(name), content, 1, size - 2);
  }
  void ReadRanges1() { ReadRanges(1); }
  void ReadRangesChunk() { ReadRanges(kChunk); }
  void ReadRangesChunkPlus1() { ReadRanges(kChunk + 1); }
  void ReadRangesSeveralMiB() { ReadRanges(kSeveralMiB); }

  void ReadZeroLength() {
    const std::string name = "size-" + std::to_string(kChunk);
    NeedFile(name);
    auto handle = NewHandle();
    Sink sink(0, handle);
    ExpectSuccess(ReadCall(Path(name), 0, 0, handle, &sink), "Read of 0 bytes");
    Expect(sink.data().empty(), "Read of 0 bytes delivered data");
  }

  void ReadMissing() {
    NeedScratch();
    auto handle = NewHandle();
    Sink sink(0, handle);
    ExpectFailure(ReadCall(Path(kMissing), 0, 1, handle, &sink), "Read of a missing file");
    Expect(sink.data().empty(), "Read of a missing file delivered data");
  }

  void ListEntriesOnce() {
    NeedScratch();
    std::vector<_FS_FILE_V2> files = ListOrFail(Path(""));
    std::set<std::string> expected = dirs_;
    for (const auto& entry : files_)
      expected.insert(entry.first);
    std::multiset<std::string> seen;
    for (const _FS_FILE_V2& file : files)
      seen.insert(file.name);
    for (const std::string& name : expected) {
      size_t count = seen.count(name);
      Expect(count == 1, name + " listed " + std::to_string(count) + " times, expected once");
    }
    for (const std::string& name : seen)
      Expect(expected.count(name) == 1, "unexpected entry \"" + name + "\" in the listing");
    note_ = std::to_string(files.size()) + " entries";
  }

  void ListTypesAndSizes() {
    NeedScratch();
    for (const _FS_FILE_V2& file : ListOrFail(Path(""))) {
      auto it = files_.find(file.name);
      if (it != files_.end()) {
        Expect(file.type == 1, file.name + " listed with type " + std::to_string(file.type));
        Expect(file.size == static_cast<long long>(it->second.size()),
               file.name + " listed with size " + std::to_string(file.size) + ", expected " +
                   std::to_string(it->second.size()));
      } else if (dirs_.count(file.name) != 0) {
        Expect(file.type == 2, file.name + " listed with type " + std::to_string(file.type));
      }
    }
  }

  void ListTimes() {
    NeedScratch();
    static const std::regex kShape(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}.*)");
    const time_t now = std::time(nullptr);
    for (const _FS_FILE_V2& file : ListOrFail(Path(""))) {
      for (const std::string* text : {&file.create_time, &file.access_time, &file.modify_time}) {
        Expect(std::regex_match(*text, kShape),
               file.name + ": time \"" + *text + "\" is not RFC 3339 text");
        const time_t t = RFC3339ToTM(text->c_str());
        // Just created: within a day, whatever the zone of the fields.
        Expect(t != static_cast<time_t>(-1) && std::llabs(static_cast<long long>(t - now)) < 90000,
               file.name + ": time \"" + *text + "\" is not close to now");
      }
    }
  }

  void ListParents() {
    NeedScratch();
    const std::string path = Path("");
    for (const _FS_FILE_V2& file : ListOrFail(path)) {
      Expect(
          file.parents.size() == 1 && file.parents.front() == path,
          file.name + ": parents " +
              (file.parents.empty() ? std::string("empty") : "\"" + file.parents.front() + "\"") +
              ", expected exactly \"" + path + "\"");
    }
  }

  void ListIds() {
    NeedScratch();
    for (const _FS_FILE_V2& file : ListOrFail(Path(""))) {
      _FS_FILE_V2 info;
      ExpectSuccess(Info(file.id, &info), "GetFileInfo of the listed id " + file.id);
      Expect(info.name == file.name && info.type == file.type && info.size == file.size,
             "GetFileInfo " + file.id + " disagrees with the listing");
    }
  }

  void ListFile() {
    const std::string name = "size-1";
    NeedFile(name);
    std::vector<_FS_FILE_V2> files;
    ExpectFailure(List(Path(name), &files), "GetFileList of a file");
    Expect(files.empty(), "GetFileList of a file delivered entries");
  }

  void InfoFile() {
    const std::string name = "size-" + std::to_string(kChunk + 1);
    NeedFile(name);
    _FS_FILE_V2 file;
    ExpectSuccess(Info(Path(name), &file), "GetFileInfo " + name);
    Expect(file.type == 1 && file.name == name && file.size == kChunk + 1,
           "GetFileInfo gave type " + std::to_string(file.type) + ", name \"" + file.name +
               "\", size " + std::to_string(file.size));
  }

  void MkdirExisting() {
    NeedScratch();
    if (dirs_.count("dir") == 0) Skip("dir was not created");
    _FS_FILE_V2 file;
    AERROR code = Mkdir(Path(""), "dir", &file);
    if (code == SUCCESS)
      Expect(file.type == 2,
             "CreateDirectory of an existing directory filled type " + std::to_string(file.type));
    Expect(Exists(Path("dir/sub")), "CreateDirectory of an existing directory lost its content");
    note_ = Name(code);
  }

  void ProgressUpload() {
    NeedScratch();
    const long long size = 2 * kChunk + 7;
    ProgressLog log;
    auto handle = NewHandle(&log);
    Source source(Pattern(size, 11), handle);
    _FS_FILE_V2 file;
    ExpectSuccess(UploadWith(Path(""), "progress", size, &source, handle, &file), "Upload");
    files_["progress"] = Pattern(size, 11);
    Expect(!log.calls.empty(), "no progress reported");
    long long last = 0;
    for (const auto& [total, done] : log.calls) {
      Expect(total == size,
             "progress total " + std::to_string(total) + ", expected " + std::to_string(size));
      Expect(done >= last && done <= size,
             "progress went from " + std::to_string(last) + " to " + std::to_string(done));
      last = done;
    }
    Expect(last == size,
           "progress ended at " + std::to_string(last) + " of " + std::to_string(size));
    note_ = std::to_string(log.calls.size()) + " reports";
  }

  void ProgressRead() {
    const std::string name = "size-" + std::to_string(kSeveralMiB);
    NeedFile(name);
    ProgressLog log;
    auto handle = NewHandle(&log);
    Sink sink(0, handle);
    ExpectSuccess(ReadCall(Path(name), 0, kSeveralMiB, handle, &sink), "Read");
    Expect(!log.calls.empty(), "no progress reported");
    long long last = 0;
    for (const auto& [total, done] : log.calls) {
      Expect(total == kSeveralMiB, "progress total " + std::to_string(total));
      Expect(done >= last,
             "progress went back from " + std::to_string(last) + " to " + std::to_string(done));
      last = done;
    }
    Expect(last == kSeveralMiB,
           "progress ended at " + std::to_string(last) + " of " + std::to_string(kSeveralMiB));
    Expect(sink.problem().empty(), sink.problem());
    note_ = std::to_string(log.calls.size()) + " reports";
  }

  void ReadChunksContiguous() {
    const std::string name = "size-" + std::to_string(kSeveralMiB);
    NeedFile(name);
    auto handle = NewHandle();
    Sink sink(100, handle);
    ExpectSuccess(ReadCall(Path(name), 100, kSeveralMiB - 200, handle, &sink), "Read");
    Expect(sink.problem().empty(), sink.problem());
    Expect(sink.chunks() >= 1, "no chunk delivered");
    note_ = std::to_string(sink.chunks()) + " chunks";
  }

  void CancelReadBefore() {
    const std::string name = "size-" + std::to_string(kSeveralMiB);
    NeedFile(name);
    auto handle = NewHandle();
    handle->state.store(FS_HANDLE_STOP);
    Sink sink(0, handle);
    ExpectCode(ReadCall(Path(name), 0, kSeveralMiB, handle, &sink), READ_CANCELED,
               "Read with a stopped handle");
    Expect(sink.data().empty(),
           "Read with a stopped handle delivered " + std::to_string(sink.data().size()) + " bytes");
  }

  void CancelReadDuring() {
    const std::string name = "size-" + std::to_string(kSeveralMiB);
    NeedFile(name);
    auto handle = NewHandle();
    Sink sink(0, handle, 1);  // stop after the first chunk
    ExpectCode(ReadCall(Path(name), 0, kSeveralMiB, handle, &sink), READ_CANCELED,
               "Read stopped after its first chunk");
    Expect(static_cast<long long>(sink.data().size()) < kSeveralMiB,
           "Read stopped after its first chunk delivered the whole range");
    note_ = std::to_string(sink.data().size()) + " bytes before stopping";
  }

  void CancelUploadBefore() {
    NeedScratch();
    auto handle = NewHandle();
    handle->state.store(FS_HANDLE_STOP);
    Source source(Pattern(kChunk * 2, 5), handle);
    _FS_FILE_V2 file;
    AERROR code = UploadWith(Path(""), "cancel-before", kChunk * 2, &source, handle, &file);
    Remove(Path("cancel-before"));
    ExpectCode(code, UPLOAD_CANCELED, "Upload with a stopped handle");
    Expect(source.requests() == 0, "Upload with a stopped handle asked the cache " +
                                       std::to_string(source.requests()) + " times");
  }

  void CancelUploadDuring() {
    NeedScratch();
    auto handle = NewHandle();
    Source source(Pattern(kChunk * 4, 6), handle);
    source.cancel_at = 0;  // stop once the first chunk is delivered
    _FS_FILE_V2 file;
    AERROR code = UploadWith(Path(""), "cancel-during", kChunk * 4, &source, handle, &file);
    Remove(Path("cancel-during"));
    ExpectCode(code, UPLOAD_CANCELED, "Upload stopped after its first chunk");
    Expect(source.requests() == 1, "Upload stopped after its first chunk asked the cache " +
                                       std::to_string(source.requests()) + " times");
  }

  void UploadSourceFails(int at) {
    NeedScratch();
    const std::string name = "fails-at-" + std::to_string(at);
    auto handle = NewHandle();
    Source source(Pattern(kChunk * 3, 7), handle);
    source.fail_at = at;
    _FS_FILE_V2 file;
    AERROR code = UploadWith(Path(""), name, kChunk * 3, &source, handle, &file);
    bool left = Exists(Path(name));
    std::vector<_FS_FILE_V2> files;
    bool listed = List(Path(""), &files) == SUCCESS && Names(files).count(name) != 0;
    if (left || listed) Remove(Path(name));
    ExpectFailure(code, "Upload whose source fails at request " + std::to_string(at));
    Expect(!left && !listed, "Upload whose source failed left " + name + " behind");
  }
  void UploadSourceFailsFirst() { UploadSourceFails(0); }
  void UploadSourceFailsLater() { UploadSourceFails(1); }

  void UploadOverwrite() {
    NeedFile("size-1");
    const std::string content = Pattern(1000, 99);
    _FS_FILE_V2 file;
    ExpectSuccess(Upload(Path(""), "size-1", content, &file, UPLOAD_FLAG_OVERWRITE),
                  "Upload over an existing file");
    Expect(file.size == 1000,
           "Upload over an existing file filled size " + std::to_string(file.size));
    ExpectRange(Path("size-1"), content, 0, 1000);
    files_["size-1"] = content;
  }

  void UploadMissingDirectory() {
    NeedScratch();
    _FS_FILE_V2 file;
    ExpectFailure(Upload(Path(kMissing), "x", "data", &file), "Upload into a missing directory");
    Expect(!Exists(Path(kMissing)), "Upload into a missing directory created it");
  }

  // Uploads a file for the namespace checks.
  std::string Prepare(const std::string& relative, std::uint32_t seed, long long size = 70000) {
    std::string content = Pattern(size, seed);
    std::string directory = DirName(relative);
    _FS_FILE_V2 file;
    ExpectSuccess(Upload(Path(directory), BaseName(relative), content, &file),
                  "Upload " + relative);
    return content;
  }

  void ExpectMoved(const std::string& from, const std::string& to, const std::string& content,
                   const _FS_FILE_V2& record) {
    Expect(!Exists(Path(from)), from + " still exists after the move");
    _FS_FILE_V2 info;
    ExpectSuccess(Info(Path(to), &info), "GetFileInfo " + to + " after the move");
    Expect(info.size == static_cast<long long>(content.size()),
           to + " has size " + std::to_string(info.size) + " after the move");
    ExpectRange(Path(to), content, 0, static_cast<long long>(content.size()));
    Expect(record.name == BaseName(to) && record.type == 1,
           "the move filled name \"" + record.name + "\", type " + std::to_string(record.type));
  }

  void MoveIntoDirectory() {
    NeedScratch();
    if (dirs_.count("dir") == 0) Skip("dir was not created");
    std::string content = Prepare("move-src", 21);
    _FS_FILE_V2 file;
    ExpectSuccess(MoveCall(&IProtocol_V2::Move, Path("move-src"), Path("dir"), "move-src", &file),
                  "Move move-src to dir");
    ExpectMoved("move-src", "dir/move-src", content, file);
  }

  void MoveAndRename() {
    NeedScratch();
    if (dirs_.count("dir") == 0) Skip("dir was not created");
    std::string content = Prepare("move-rename", 22);
    _FS_FILE_V2 file;
    ExpectSuccess(
        MoveCall(&IProtocol_V2::Move, Path("move-rename"), Path("dir/sub"), "renamed", &file),
        "Move move-rename to dir/sub/renamed");
    ExpectMoved("move-rename", "dir/sub/renamed", content, file);
  }

  void RenameSameDirectory() {
    NeedScratch();
    std::string content = Prepare("rename-src", 23);
    _FS_FILE_V2 file;
    ExpectSuccess(
        MoveCall(&IProtocol_V2::Rename, Path("rename-src"), Path(""), "rename-dst", &file),
        "Rename rename-src to rename-dst");
    ExpectMoved("rename-src", "rename-dst", content, file);
    files_["rename-dst"] = content;
  }

  void MoveRecordId() {
    NeedScratch();
    std::string content = Prepare("move-id", 24, 10);
    _FS_FILE_V2 file;
    ExpectSuccess(MoveCall(&IProtocol_V2::Rename, Path("move-id"), Path(""), "move-id-2", &file),
                  "Rename move-id");
    files_["move-id-2"] = content;
    _FS_FILE_V2 info;
    ExpectSuccess(Info(file.id, &info), "GetFileInfo of the moved record's id " + file.id);
    Expect(info.name == "move-id-2", "the moved record's id names \"" + info.name + "\"");
  }

  void MoveDirKeepsTree() {
    NeedScratch();
    if (dirs_.count("dir") == 0) Skip("dir was not created");
    _FS_FILE_V2 tree;
    ExpectSuccess(Mkdir(Path(""), "tree", &tree), "CreateDirectory tree");
    _FS_FILE_V2 inner;
    ExpectSuccess(Mkdir(Path("tree"), "inner", &inner), "CreateDirectory tree/inner");
    std::string a = Prepare("tree/a", 31);
    std::string b = Prepare("tree/inner/b", 32, kChunk + 3);
    _FS_FILE_V2 file;
    ExpectSuccess(MoveCall(&IProtocol_V2::MoveDir, Path("tree"), Path("dir"), "tree2", &file),
                  "MoveDir tree to dir/tree2");
    Expect(!Exists(Path("tree")), "tree still exists after MoveDir");
    Expect(file.type == 2 && file.name == "tree2",
           "MoveDir filled type " + std::to_string(file.type) + ", name \"" + file.name + "\"");
    ExpectRange(Path("dir/tree2/a"), a, 0, static_cast<long long>(a.size()));
    ExpectRange(Path("dir/tree2/inner/b"), b, 0, static_cast<long long>(b.size()));
  }

  void MoveMissing() {
    NeedScratch();
    _FS_FILE_V2 file;
    ExpectFailure(MoveCall(&IProtocol_V2::Move, Path(kMissing), Path(""), "moved-missing", &file),
                  "Move of a missing entry");
    Expect(!Exists(Path("moved-missing")), "Move of a missing entry created the target");
  }

  // A time that reads back the same in this zone: winter or summer,
  // whichever is standard time here.
  static std::string SettableTime(int variant) {
    const char* candidates[][2] = {{"2021-01-15T10:20:30.000Z", "2021-07-15T10:20:30.000Z"},
                                   {"2019-02-03T04:05:06.000Z", "2019-08-03T04:05:06.000Z"}};
    for (const char* text : candidates[variant]) {
      time_t t = RFC3339ToTM(text);
      struct tm fields {};
      localtime_r(&t, &fields);
      if (fields.tm_isdst == 0) return text;
    }
    return candidates[variant][0];
  }

  void SetTime(bool modify) {
    const std::string name = "size-" + std::to_string(kChunk);
    NeedFile(name);
    const std::string access = SettableTime(0);
    const std::string modified = SettableTime(1);
    _FS_FILE_V2 record;
    char* msg = nullptr;
    AERROR code =
        protocol_->SetFileTime(Path(name).c_str(), modified, access, modified, &record, &msg);
    Take(msg);
    ExpectSuccess(code, "SetFileTime " + name);
    _FS_FILE_V2 info;
    ExpectSuccess(Info(Path(name), &info), "GetFileInfo " + name);
    const std::string& want = modify ? modified : access;
    const std::string& got = modify ? info.modify_time : info.access_time;
    Expect(RFC3339ToTM(got.c_str()) == RFC3339ToTM(want.c_str()),
           std::string(modify ? "modify" : "access") + " time set to \"" + want +
               "\" reads back as \"" + got + "\"");
  }
  void SetTimeModify() { SetTime(true); }
  void SetTimeAccess() { SetTime(false); }

  void SetTimeMissing() {
    NeedScratch();
    _FS_FILE_V2 record;
    char* msg = nullptr;
    const std::string t = SettableTime(0);
    AERROR code = protocol_->SetFileTime(Path(kMissing).c_str(), t, t, t, &record, &msg);
    Take(msg);
    ExpectFailure(code, "SetFileTime of a missing path");
    Expect(!Exists(Path(kMissing)), "SetFileTime of a missing path created it");
  }

  void DeleteFile() {
    NeedScratch();
    Prepare("delete-me", 41, 100);
    ExpectSuccess(DeleteCall(&IProtocol_V2::Delete, Path("delete-me")), "Delete delete-me");
    Expect(!Exists(Path("delete-me")), "delete-me still exists after Delete");
    std::vector<_FS_FILE_V2> files = ListOrFail(Path(""));
    Expect(Names(files).count("delete-me") == 0, "delete-me is still listed after Delete");
  }

  // Everything below a directory: relative path -> (type, size).
  std::map<std::string, std::pair<int, long long>> Tree(const std::string& relative,
                                                        int depth = 0) {
    std::map<std::string, std::pair<int, long long>> out;
    if (depth > 8) return out;
    for (const _FS_FILE_V2& file : ListOrFail(Path(relative))) {
      const std::string child = relative.empty() ? file.name : relative + "/" + file.name;
      out[child] = {file.type, file.size};
      if (file.type == 2) {
        for (auto& entry : Tree(child, depth + 1))
          out.insert(entry);
      }
    }
    return out;
  }

  void DeleteNonEmpty() {
    NeedScratch();
    _FS_FILE_V2 dir;
    ExpectSuccess(Mkdir(Path(""), "full", &dir), "CreateDirectory full");
    Prepare("full/one", 51, 10);
    Prepare("full/two", 52, 10);
    auto before = Tree("full");
    AERROR code = DeleteCall(&IProtocol_V2::DeleteDirectory, Path("full"));
    if (code == SUCCESS) {
      // A plug-in may delete recursively, but then all of it.
      Expect(!Exists(Path("full")) && !Exists(Path("full/one")) && !Exists(Path("full/two")),
             "DeleteDirectory of a non-empty directory succeeded and left entries behind");
      note_ = "deleted recursively";
      return;
    }
    Expect(Exists(Path("full")), "refused DeleteDirectory removed the directory");
    auto after = Tree("full");
    Expect(before == after, "refused DeleteDirectory of a non-empty directory changed its content");
    note_ = "refused with " + Name(code);
  }

  void DeleteEmptyDirectory() {
    NeedScratch();
    _FS_FILE_V2 dir;
    ExpectSuccess(Mkdir(Path(""), "empty", &dir), "CreateDirectory empty");
    ExpectSuccess(DeleteCall(&IProtocol_V2::DeleteDirectory, Path("empty")),
                  "DeleteDirectory empty");
    Expect(!Exists(Path("empty")), "empty still exists after DeleteDirectory");
  }

  void DeleteMissing() {
    NeedScratch();
    ExpectFailure(DeleteCall(&IProtocol_V2::Delete, Path(kMissing)), "Delete of a missing entry");
  }

  void ThreadsTransfers() {
    NeedScratch();
    constexpr int kThreads = 4;
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([this, i, &errors] {
        try {
          const std::string name = "thread-" + std::to_string(i);
          const long long size = kChunk * 2 + 4099 * (i + 1);
          const std::string content = Pattern(size, 100 + static_cast<std::uint32_t>(i));
          auto handle = NewHandle();
          Source source(content, handle);
          _FS_FILE_V2 file;
          AERROR code = UploadWith(Path(""), name, size, &source, handle, &file);
          if (code != SUCCESS) throw std::runtime_error("Upload " + name + ": " + Name(code));
          std::vector<_FS_FILE_V2> listing;
          code = List(Path(""), &listing);
          if (code != SUCCESS) throw std::runtime_error("GetFileList: " + Name(code));
          auto read = NewHandle();
          Sink sink(0, read);
          code = ReadCall(Path(name), 0, size, read, &sink);
          if (code != SUCCESS) throw std::runtime_error("Read " + name + ": " + Name(code));
          std::string diff = Difference(content, sink.data());
          if (!diff.empty()) throw std::runtime_error("Read " + name + ": " + diff);
        } catch (const std::exception& error) {
          errors[static_cast<size_t>(i)] = error.what();
        }
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    for (int i = 0; i < kThreads; ++i) {
      Expect(errors[static_cast<size_t>(i)].empty(),
             "thread " + std::to_string(i) + ": " + errors[static_cast<size_t>(i)]);
      files_["thread-" + std::to_string(i)] = "";  // removed with the scratch directory
    }
  }

  void ThreadsReaders() {
    const std::string name = "size-" + std::to_string(kSeveralMiB);
    NeedFile(name);
    const std::string& content = files_[name];
    constexpr int kThreads = 4;
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        const long long offset = 777 * i + kChunk * i / 2;
        const long long length = kSeveralMiB - offset - 1;
        auto handle = NewHandle();
        Sink sink(offset, handle);
        AERROR code = ReadCall(Path(name), offset, length, handle, &sink);
        std::string diff = Difference(
            content.substr(static_cast<size_t>(offset), static_cast<size_t>(length)), sink.data());
        if (code != SUCCESS) diff = "Read: " + Name(code);
        errors[static_cast<size_t>(i)] = diff;
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    for (int i = 0; i < kThreads; ++i)
      Expect(errors[static_cast<size_t>(i)].empty(),
             "reader " + std::to_string(i) + ": " + errors[static_cast<size_t>(i)]);
  }

  void FreeMsgMessages() {
    NeedObject();
    Expect(bad_messages_.load() == 0, "a message was not a terminated text");
    note_ = std::to_string(messages_.load()) + " messages freed with FreeMsg";
  }

  void Cleanup() {
    NeedScratch();
    scratch_ok_ = false;
    RemoveScratchTree();
    Expect(!Exists(Path("")), "the scratch directory " + Path("") + " could not be removed");
    if (!root_listed_) Skip("the root was not listed before");
    std::set<std::string> now = Names(ListOrFail(root_id_));
    Expect(now == root_names_,
           "the root lists " + Join(now) + " after the run, " + Join(root_names_) + " before");
  }

  void ReleaseLast() {
    NeedObject();
    protocol_.reset();  // Release
    // The plug-in still makes and ends objects afterwards.
    ProtocolHandle again = plugin_->CreateProtocol(&config_);
    Expect(static_cast<bool>(again), "no object after Release");
    again.reset();
  }

 public:
  // Runs at the end whatever happened, so that a failing check never leaves
  // the scratch directory behind.
  void RemoveScratch() {
    if (protocol_ && scratch_ok_) RemoveScratchTree();
    scratch_ok_ = false;
  }

 private:
  // A few passes, so that a listing that misses entries still ends empty.
  void RemoveScratchTree() {
    for (int pass = 0; pass < 8 && Exists(Path("")); ++pass)
      RemoveTree(Path(""), 0);
  }

 private:
  const Options& options_;
  std::optional<Plugin> plugin_;
  void* library_ = nullptr;
  std::unique_ptr<StderrLog> log_;
  MemoryConfiguration config_;
  MemoryLocalConfiguration local_config_;
  ProtocolHandle protocol_;  // after the configurations: released first
  std::string protocol_name_;
  std::string root_id_;
  bool root_ok_ = false;
  std::string scratch_;
  bool scratch_ok_ = false;
  std::set<std::string> root_names_;
  bool root_listed_ = false;
  std::map<std::string, std::string> files_;  // top-level files of the scratch directory
  std::set<std::string> dirs_;                // top-level directories of it
  std::atomic<int> messages_{0};
  std::atomic<int> bad_messages_{0};
  std::string note_;  // detail of a passing check
};

const std::vector<std::pair<const char*, Suite::Check>>& Suite::Table() {
  static const std::vector<std::pair<const char*, Check>> table = {
      {"load.entry_points", &Suite::LoadEntryPoints},
      {"entry.get_protocol_null_arguments", &Suite::EntryGetProtocolNull},
      {"entry.support_protocol_fresh_copies", &Suite::EntrySupportProtocol},
      {"entry.bind_logger", &Suite::EntryLogger},
      {"entry.auth", &Suite::EntryAuth},
      {"object.create", &Suite::ObjectCreate},
      {"object.set_opt", &Suite::ObjectOptions},
      {"object.type_matches_support_protocol", &Suite::ObjectType},
      {"object.pid_option", &Suite::ObjectPid},
      {"object.local_configuration", &Suite::ObjectLocalConfiguration},
      {"rootid.null_length", &Suite::RootIdNullLength},
      {"rootid.buffer_rules", &Suite::RootIdBufferRules},
      {"rootid.stable", &Suite::RootIdResolve},
      {"identifier.null_length", &Suite::IdentifierNullLength},
      {"identifier.buffer_rules", &Suite::IdentifierBufferRules},
      {"userinfo.null_length", &Suite::UserInfoNullLength},
      {"userinfo.buffer_rules", &Suite::UserInfoBufferRules},
      {"quota.figures", &Suite::QuotaFigures},
      {"quota.null_pointers", &Suite::QuotaNullPointers},
      {"freemsg.null", &Suite::FreeMsgNull},
      {"info.root", &Suite::InfoRoot},
      {"info.missing_leaves_record", &Suite::InfoMissing},
      {"list.root", &Suite::ListRoot},
      {"list.missing", &Suite::ListMissing},
      {"mkdir.scratch", &Suite::MkdirScratch},
      {"list.empty_directory", &Suite::ListEmpty},
      {"mkdir.nested", &Suite::MkdirNested},
      {"mkdir.missing_parent", &Suite::MkdirMissingParent},
      {"upload.0_bytes", &Suite::Upload0},
      {"upload.1_byte", &Suite::Upload1},
      {"upload.one_chunk", &Suite::UploadChunk},
      {"upload.chunk_plus_1", &Suite::UploadChunkPlus1},
      {"upload.several_mib", &Suite::UploadSeveralMiB},
      {"read.ranges_1_byte", &Suite::ReadRanges1},
      {"read.ranges_one_chunk", &Suite::ReadRangesChunk},
      {"read.ranges_chunk_plus_1", &Suite::ReadRangesChunkPlus1},
      {"read.ranges_several_mib", &Suite::ReadRangesSeveralMiB},
      {"read.zero_length", &Suite::ReadZeroLength},
      {"read.chunks_contiguous", &Suite::ReadChunksContiguous},
      {"read.missing", &Suite::ReadMissing},
      {"list.entries_once", &Suite::ListEntriesOnce},
      {"list.types_and_sizes", &Suite::ListTypesAndSizes},
      {"list.times_parse", &Suite::ListTimes},
      {"list.parents", &Suite::ListParents},
      {"list.ids_address_entries", &Suite::ListIds},
      {"list.file_is_not_a_directory", &Suite::ListFile},
      {"info.file", &Suite::InfoFile},
      {"mkdir.existing_keeps_content", &Suite::MkdirExisting},
      {"progress.upload_reaches_total", &Suite::ProgressUpload},
      {"progress.read_reaches_total", &Suite::ProgressRead},
      {"cancel.read_before_start", &Suite::CancelReadBefore},
      {"cancel.read_during", &Suite::CancelReadDuring},
      {"cancel.upload_before_start", &Suite::CancelUploadBefore},
      {"cancel.upload_during", &Suite::CancelUploadDuring},
      {"upload.source_fails_first_leaves_no_file", &Suite::UploadSourceFailsFirst},
      {"upload.source_fails_later_leaves_no_file", &Suite::UploadSourceFailsLater},
      {"upload.overwrite", &Suite::UploadOverwrite},
      {"upload.missing_directory", &Suite::UploadMissingDirectory},
      {"move.into_directory", &Suite::MoveIntoDirectory},
      {"move.and_rename", &Suite::MoveAndRename},
      {"rename.same_directory", &Suite::RenameSameDirectory},
      {"move.record_id", &Suite::MoveRecordId},
      {"movedir.keeps_tree", &Suite::MoveDirKeepsTree},
      {"move.missing_source", &Suite::MoveMissing},
      {"settime.modify_round_trip", &Suite::SetTimeModify},
      {"settime.access_round_trip", &Suite::SetTimeAccess},
      {"settime.missing", &Suite::SetTimeMissing},
      {"delete.file", &Suite::DeleteFile},
      {"delete.non_empty_directory", &Suite::DeleteNonEmpty},
      {"delete.empty_directory", &Suite::DeleteEmptyDirectory},
      {"delete.missing", &Suite::DeleteMissing},
      {"threads.parallel_transfers", &Suite::ThreadsTransfers},
      {"threads.parallel_readers", &Suite::ThreadsReaders},
      {"freemsg.every_message", &Suite::FreeMsgMessages},
      {"cleanup.scratch_removed", &Suite::Cleanup},
      {"release.last", &Suite::ReleaseLast},
  };
  return table;
}

const char* StatusWord(Result::Status status) {
  switch (status) {
    case Result::kPass:
      return "ok";
    case Result::kFail:
      return "FAIL";
    case Result::kSkip:
      return "skip";
  }
  return "?";
}

}  // namespace

std::vector<std::string> CheckNames() {
  std::vector<std::string> names;
  for (const auto& entry : Suite::Table())
    names.emplace_back(entry.first);
  return names;
}

std::vector<Result> Run(const Options& options) {
  Suite suite(options);
  std::vector<Result> results = suite.RunAll();
  suite.RemoveScratch();
  return results;
}

int RunAndReport(const Options& options, std::ostream& out) {
  const std::vector<Result> results = Run(options);
  int passed = 0;
  int failed = 0;
  int skipped = 0;
  for (const Result& result : results) {
    (result.status == Result::kPass ? passed : result.status == Result::kFail ? failed : skipped)++;
  }
  if (options.json) {
    Json::Value document(Json::objectValue);
    document["plugin"] = options.plugin;
    Json::Value checks(Json::arrayValue);
    for (const Result& result : results) {
      Json::Value check(Json::objectValue);
      check["name"] = result.name;
      check["status"] = StatusWord(result.status);
      check["detail"] = result.detail;
      checks.append(check);
    }
    document["checks"] = checks;
    document["passed"] = passed;
    document["failed"] = failed;
    document["skipped"] = skipped;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    out << Json::writeString(builder, document) << "\n";
  } else {
    for (const Result& result : results) {
      out << StatusWord(result.status) << (result.status == Result::kPass ? "   " : " ")
          << result.name;
      if (!result.detail.empty() && (result.status != Result::kPass || options.verbose))
        out << ": " << result.detail;
      out << "\n";
    }
    out << passed << " passed, " << failed << " failed, " << skipped << " skipped\n";
  }
  out.flush();
  return failed == 0 ? 0 : 1;
}

}  // namespace plughost::conformance
