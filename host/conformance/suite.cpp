// Running the checks in order, what the checks need before they start, and
// the calls of the contract they make.
#include "host/conformance/suite.h"

#include <cstring>
#include <exception>

#include "host/core/paths.h"

namespace plughost::conformance::detail {

Suite::~Suite() {
  protocol_.reset();
  if (plugin_ && log_) plugin_->UnbindLogger();
  if (library_ != nullptr) dlclose(library_);
}

std::vector<Result> Suite::RunAll() {
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

void Suite::NeedPlugin() {
  if (!plugin_) Skip("the plug-in did not load");
}

void Suite::NeedLibrary() {
  NeedPlugin();
  if (library_ == nullptr) Skip("the plug-in did not load");
}

IProtocol_V2* Suite::NeedObject() {
  NeedPlugin();
  if (!protocol_) Skip("no protocol object");
  return protocol_.get();
}

void Suite::NeedRoot() {
  NeedObject();
  if (!root_ok_) Skip("no root identifier");
}

void Suite::NeedScratch() {
  NeedRoot();
  if (!scratch_ok_) Skip("no scratch directory");
}

void Suite::NeedFile(const std::string& name) {
  NeedScratch();
  if (files_.count(name) == 0) Skip(name + " was not uploaded");
}

std::string Suite::Name(AERROR code) {
  const char* name = GetAERRORA(code);
  if (name == nullptr || std::strcmp(name, "Unknown") == 0)
    return "AERROR(" + std::to_string(static_cast<int>(code)) + ")";
  return name;
}

void Suite::ExpectCode(AERROR got, AERROR want, const std::string& what) {
  if (got != want) Fail(what + ": expected " + Name(want) + ", got " + Name(got));
}

void Suite::ExpectFailure(AERROR got, const std::string& what) {
  if (got == SUCCESS) Fail(what + ": expected a failure, got " + Name(got));
}

std::string Suite::Path(const std::string& relative) const {
  return JoinProtocolPath(root_id_, relative.empty() ? scratch_ : scratch_ + "/" + relative);
}

std::string Suite::Child(const std::string& directory, const std::string& name) {
  return JoinProtocolPath(directory, name);
}

void Suite::Take(char* msg) {
  if (msg == nullptr) return;
  if (strnlen(msg, 65536) == 65536) bad_messages_.fetch_add(1);
  messages_.fetch_add(1);
  protocol_->FreeMsg(msg);
}

AERROR Suite::Info(const std::string& path, _FS_FILE_V2* file) {
  char* msg = nullptr;
  AERROR code = protocol_->GetFileInfo(path.c_str(), file, &msg);
  Take(msg);
  return code;
}

bool Suite::Exists(const std::string& path) {
  _FS_FILE_V2 file;
  return Info(path, &file) == SUCCESS;
}

AERROR Suite::List(const std::string& path, std::vector<_FS_FILE_V2>* files) {
  CollectingFileList list;
  char* msg = nullptr;
  AERROR code = protocol_->GetFileList(path.c_str(), &list, &msg);
  Take(msg);
  *files = std::move(list.files());
  return code;
}

std::vector<_FS_FILE_V2> Suite::ListOrFail(const std::string& path) {
  std::vector<_FS_FILE_V2> files;
  ExpectSuccess(List(path, &files), "GetFileList " + path);
  return files;
}

AERROR Suite::Mkdir(const std::string& parent, const std::string& name, _FS_FILE_V2* file) {
  file->name = name;
  char* msg = nullptr;
  AERROR code = protocol_->CreateDirectory(parent.c_str(), file, &msg);
  Take(msg);
  return code;
}

AERROR Suite::MoveCall(AERROR (IProtocol_V2::*operation)(const char*, const char*, _FS_FILE_V2*,
                                                         char**),
                       const std::string& from, const std::string& to, const std::string& name,
                       _FS_FILE_V2* file) {
  file->name = name;
  char* msg = nullptr;
  AERROR code = (protocol_.get()->*operation)(from.c_str(), to.c_str(), file, &msg);
  Take(msg);
  return code;
}

AERROR Suite::DeleteCall(AERROR (IProtocol_V2::*operation)(_FS_FILE_V2*, char**),
                         const std::string& path) {
  _FS_FILE_V2 file;
  file.id = path;
  char* msg = nullptr;
  AERROR code = (protocol_.get()->*operation)(&file, &msg);
  Take(msg);
  return code;
}

AERROR Suite::UploadWith(const std::string& parent, const std::string& name, long long size,
                         Source* source, std::shared_ptr<_FS_HANDLE> handle, _FS_FILE_V2* file,
                         UPLOAD_FLAG flag) {
  file->name = name;
  file->size = size;
  char* msg = nullptr;
  AERROR code = protocol_->Upload(parent.c_str(), std::move(handle), source, file, flag, &msg);
  Take(msg);
  return code;
}

AERROR Suite::Upload(const std::string& parent, const std::string& name, const std::string& content,
                     _FS_FILE_V2* file, UPLOAD_FLAG flag) {
  auto handle = NewHandle();
  Source source(content, handle);
  AERROR code =
      UploadWith(parent, name, static_cast<long long>(content.size()), &source, handle, file, flag);
  if (code == SUCCESS && !source.problem().empty()) Fail("upload source: " + source.problem());
  return code;
}

AERROR Suite::ReadCall(const std::string& path, long long offset, long long length,
                       std::shared_ptr<_FS_HANDLE> handle, Sink* sink) {
  char* msg = nullptr;
  AERROR code = protocol_->Read(path.c_str(), offset, length, std::move(handle), sink, &msg);
  Take(msg);
  return code;
}

void Suite::ExpectRange(const std::string& path, const std::string& content, long long offset,
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

void Suite::RemoveTree(const std::string& path, int depth) {
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

std::set<std::string> Suite::Names(const std::vector<_FS_FILE_V2>& files) {
  std::set<std::string> names;
  for (const _FS_FILE_V2& file : files)
    names.insert(file.name);
  return names;
}

std::string Suite::Join(const std::set<std::string>& names) {
  std::string out;
  for (const std::string& name : names)
    out += (out.empty() ? "" : ", ") + name;
  return "{" + out + "}";
}

void Suite::CheckBufferRules(const std::function<AERROR(char*, int*)>& call,
                             const std::string& what, bool strict) {
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

void Suite::RemoveScratch() {
  if (protocol_ && scratch_ok_) RemoveScratchTree();
  scratch_ok_ = false;
}

void Suite::RemoveScratchTree() {
  for (int pass = 0; pass < 8 && Exists(Path("")); ++pass)
    RemoveTree(Path(""), 0);
}

}  // namespace plughost::conformance::detail
