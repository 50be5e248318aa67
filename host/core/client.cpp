#include "host/core/client.h"

#include <limits>
#include <utility>

#include "host/core/adapters.h"

namespace plughost {

Client::Client(const Plugin& plugin, ProtocolHandle protocol)
    : plugin_(&plugin), protocol_(std::move(protocol)) {}

void Client::Check(AERROR code, const Context& context, const std::string& message) const {
  if (code != SUCCESS) {
    throw ProtocolError(code, plugin_->ErrorName(code), context.operation, context.path, message);
  }
}

std::string Client::TakeMessage(char* msg) {
  if (msg == nullptr) return {};
  std::string text = msg;
  protocol_->FreeMsg(msg);
  return text;
}

template <typename Call>
std::string Client::ReadText(Call call, const Context& context) {
  int length = 0;
  AERROR code = call(nullptr, &length);
  if (code != SUCCESS && code != INSUFFICIENT_BUFFER) Check(code, context);
  // The text may change between the calls; retry with the new length.
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (length < 0) length = 0;
    // The plug-in may copy without a terminator: the buffer starts zeroed and
    // only the returned length counts.
    std::string buffer(static_cast<size_t>(length) + 1, '\0');
    int capacity = length;
    code = call(buffer.data(), &capacity);
    if (code == SUCCESS) {
      if (capacity < 0 || capacity > length) capacity = length;
      buffer.resize(static_cast<size_t>(capacity));
      return buffer;
    }
    if (code != INSUFFICIENT_BUFFER || capacity <= length) break;
    length = capacity;
  }
  Check(code == SUCCESS ? FAILED : code, context);
  return {};
}

void Client::SetOpt(const std::string& key, const std::string& value) {
  Check(protocol_->SetOpt(key.c_str(), value.c_str()), {"option", key});
}

std::string Client::RootId() {
  return ReadText([this](char* b, int* l) { return protocol_->GetRootID(b, l); }, {"root", ""});
}

std::string Client::UserInfo() {
  return ReadText([this](char* b, int* l) { return protocol_->GetUserInfo(b, l); }, {"whoami", ""});
}

std::optional<Quota> Client::GetQuota() {
  constexpr unsigned long long kUnset = std::numeric_limits<unsigned long long>::max();
  unsigned long long total = kUnset;
  unsigned long long used = kUnset;
  Check(protocol_->GetQuota(&total, &used), {"df", ""});
  if (total == kUnset && used == kUnset) return std::nullopt;
  Quota quota;
  quota.total = total == kUnset ? 0 : total;
  quota.used = used == kUnset ? 0 : used;
  return quota;
}

std::string Client::Type() {
  char* type = nullptr;
  Check(protocol_->GetType(&type), {"info", ""});
  return type != nullptr ? type : "";  // static text: never freed
}

int Client::Feature() {
  return protocol_->GetFeature();
}

std::string Client::Pid() {
  return protocol_->GetPID();
}

_FS_FILE_V2 Client::Info(const std::string& path, const Context& context) {
  _FS_FILE_V2 file;
  char* msg = nullptr;
  AERROR code = protocol_->GetFileInfo(path.c_str(), &file, &msg);
  Check(code, context, TakeMessage(msg));
  return file;
}

AERROR Client::TryInfo(const std::string& path, _FS_FILE_V2* file) {
  char* msg = nullptr;
  AERROR code = protocol_->GetFileInfo(path.c_str(), file, &msg);
  TakeMessage(msg);
  return code;
}

std::vector<_FS_FILE_V2> Client::List(const std::string& path, const Context& context) {
  CollectingFileList list;
  char* msg = nullptr;
  AERROR code = protocol_->GetFileList(path.c_str(), &list, &msg);
  Check(code, context, TakeMessage(msg));
  return std::move(list.files());
}

void Client::ForEach(const std::string& path, const Context& context,
                     const std::function<void(const _FS_FILE_V2&)>& on_file) {
  FileListAdapter list(on_file);
  char* msg = nullptr;
  AERROR code = protocol_->GetFileList(path.c_str(), &list, &msg);
  std::string message = TakeMessage(msg);
  list.RethrowIfFailed();
  Check(code, context, message);
}

AERROR Client::Read(const std::string& path, long long offset, long long length,
                    std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink,
                    std::string* message) {
  char* msg = nullptr;
  AERROR code = protocol_->Read(path.c_str(), offset, length, std::move(handle), sink, &msg);
  std::string text = TakeMessage(msg);
  if (message != nullptr) *message = std::move(text);
  return code;
}

AERROR Client::Upload(const std::string& parent, std::shared_ptr<_FS_HANDLE> handle,
                      ICacheIO* source, _FS_FILE_V2* file, UPLOAD_FLAG flag, std::string* message) {
  char* msg = nullptr;
  AERROR code = protocol_->Upload(parent.c_str(), std::move(handle), source, file, flag, &msg);
  std::string text = TakeMessage(msg);
  if (message != nullptr) *message = std::move(text);
  return code;
}

_FS_FILE_V2 Client::Move(const std::string& from, const std::string& to_directory,
                         const std::string& name, const Context& context) {
  _FS_FILE_V2 file;
  file.name = name;
  char* msg = nullptr;
  AERROR code = protocol_->Move(from.c_str(), to_directory.c_str(), &file, &msg);
  Check(code, context, TakeMessage(msg));
  return file;
}

_FS_FILE_V2 Client::CreateDirectory(const std::string& parent, const std::string& name,
                                    const Context& context) {
  _FS_FILE_V2 file;
  file.name = name;
  char* msg = nullptr;
  AERROR code = protocol_->CreateDirectory(parent.c_str(), &file, &msg);
  Check(code, context, TakeMessage(msg));
  return file;
}

void Client::Delete(const std::string& path, const Context& context) {
  DeleteEntry(&IProtocol_V2::Delete, path, context);
}

void Client::DeleteDirectory(const std::string& path, const Context& context) {
  DeleteEntry(&IProtocol_V2::DeleteDirectory, path, context);
}

void Client::DeleteEntry(AERROR (IProtocol_V2::*slot)(_FS_FILE_V2*, char**),
                         const std::string& path, const Context& context) {
  _FS_FILE_V2 file;
  file.id = path;
  char* msg = nullptr;
  AERROR code = (protocol_.get()->*slot)(&file, &msg);
  Check(code, context, TakeMessage(msg));
}

void Client::SetFileTime(const std::string& path, const std::string& create_time,
                         const std::string& access_time, const std::string& modify_time,
                         const Context& context) {
  _FS_FILE_V2 file;
  char* msg = nullptr;
  AERROR code =
      protocol_->SetFileTime(path.c_str(), create_time, access_time, modify_time, &file, &msg);
  Check(code, context, TakeMessage(msg));
}

}  // namespace plughost
