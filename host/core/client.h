// A C++ face for a protocol object: every call returns its result or throws
// ProtocolError, out-messages are taken over and freed with FreeMsg, and
// buffer-and-length outputs come back as strings.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/core/errors.h"
#include "host/core/plugin.h"
#include "protocol/contract.h"

namespace plughost {

struct Quota {
  unsigned long long total = 0;
  // What the plug-in reports through GetQuota's second output: the space in
  // use (the interface calls it "free").
  unsigned long long used = 0;
};

class Client {
 public:
  // `plugin` supplies error names and must outlive the client.
  Client(const Plugin& plugin, ProtocolHandle protocol);

  IProtocol_V2* get() const noexcept { return protocol_.get(); }
  ProtocolHandle& handle() noexcept { return protocol_; }
  std::string ErrorName(AERROR code) const { return plugin_->ErrorName(code); }

  void SetOpt(const std::string& key, const std::string& value);
  std::string RootId();
  std::string UserInfo();
  // Nothing when the plug-in succeeds without reporting figures.
  std::optional<Quota> GetQuota();
  std::string Type();
  int Feature();
  std::string Pid();

  _FS_FILE_V2 Info(const std::string& path, const Context& context);
  // The same without an exception, for callers that expect "not found" often
  // (a mount answers a lookup of a missing name at every create).
  AERROR TryInfo(const std::string& path, _FS_FILE_V2* file);
  // Entries in the order the plug-in delivers them.
  std::vector<_FS_FILE_V2> List(const std::string& path, const Context& context);
  // Hands each entry to `on_file` as the plug-in delivers it, keeping none:
  // the record dies when the function returns. An exception of `on_file`
  // ends the listing's use of it and is thrown again once the plug-in returns.
  void ForEach(const std::string& path, const Context& context,
               const std::function<void(const _FS_FILE_V2&)>& on_file);
  // Returns the plug-in's result without throwing, so that callers can tell a
  // cancelled transfer from a failed one; the message is freed.
  AERROR Read(const std::string& path, long long offset, long long length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, std::string* message);
  AERROR Upload(const std::string& parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                _FS_FILE_V2* file, UPLOAD_FLAG flag, std::string* message);
  _FS_FILE_V2 Move(const std::string& from, const std::string& to_directory,
                   const std::string& name, const Context& context);
  _FS_FILE_V2 CreateDirectory(const std::string& parent, const std::string& name,
                              const Context& context);
  void Delete(const std::string& path, const Context& context);
  void DeleteDirectory(const std::string& path, const Context& context);
  void SetFileTime(const std::string& path, const std::string& create_time,
                   const std::string& access_time, const std::string& modify_time,
                   const Context& context);

  // Throws ProtocolError for anything but SUCCESS.
  void Check(AERROR code, const Context& context, const std::string& message = {}) const;

 private:
  // Takes over a text stored through `char** msg`.
  std::string TakeMessage(char* msg);
  // Delete and DeleteDirectory take the entry's record with its identifier.
  void DeleteEntry(AERROR (IProtocol_V2::*slot)(_FS_FILE_V2*, char**), const std::string& path,
                   const Context& context);
  // Runs a buffer-and-length call twice: once for the length, once to copy.
  template <typename Call>
  std::string ReadText(Call call, const Context& context);

  const Plugin* plugin_;
  ProtocolHandle protocol_;
};

}  // namespace plughost
