// The "memory" protocol: a storage that lives in the plug-in's memory and is
// gone when the object is released. It implements the whole contract in one
// small class, and is meant to be copied: replace the std::map below with
// calls to your own storage and keep the rest.
//
// Protocol paths are "/" for the root and "/dir/name" below it; the
// identifier of an entry is its path. One mutex guards the tree, and it is
// never held while the host's callbacks run (listing, reading, the upload
// cache), so a callback may call back into the object.
#pragma once

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "protocol/super_protocol.h"

class MemoryProtocol : public SuperProtocol {
 public:
  explicit MemoryProtocol(IProtocolManager* manager);
  ~MemoryProtocol() override;

  // The protocol's type name, as GetType and GetSupportProtocol report it.
  static const char* TypeName();

  // Object and options.
  void Release() override;
  AERROR GetType(char** type) override;
  // "capacity" (bytes the storage may hold) and "pid"; every option is then
  // handed to SuperProtocol ("speedlimit", tokens; unknown names accepted).
  AERROR SetOpt(const char* key, const char* value) override;
  int GetFeature() override;
  void FreeMsg(char* msg) override;
  AERROR Connect(IProtocolAuth* auth, const char* arg) override;
  AERROR GetCredential(char* buffer, int* length) override;
  AERROR GetIdentifier(char* buffer, int* length) override;
  AERROR GetRootID(char* buffer, int* length) override;
  AERROR GetChanges(IFileChanges* changes, char** msg) override;
  AERROR SetChangesCallback(IFileChanges* changes) override;
  AERROR GetShareableLink(_FS_FILE_V2* file, std::string& link) override;

  // Account: the capacity and the bytes in use.
  AERROR GetUserInfo(char* buffer, int* length) override;
  AERROR GetQuota(unsigned long long* total, unsigned long long* used) override;
  AERROR SetQuota(unsigned long long total, unsigned long long free) override;

  // Metadata.
  AERROR GetFileList(const char* path, IFileList* list, char** msg) override;
  AERROR GetFileInfo(const char* path, _FS_FILE_V2* file, char** msg) override;

  // Namespace changes.
  AERROR Rename(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override;
  AERROR Move(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override;
  AERROR MoveDir(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override;
  AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** msg) override;
  AERROR Delete(_FS_FILE_V2* file, char** msg) override;
  AERROR DeleteDirectory(_FS_FILE_V2* file, char** msg) override;
  AERROR SetFileTime(const char* path, std::string create_time, std::string access_time,
                     std::string modify_time, _FS_FILE_V2* file, char** msg) override;

  // Transfers.
  AERROR Read(const char* path, long long offset, long long length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, char** msg) override;
  AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                _FS_FILE_V2* file, UPLOAD_FLAG flag, char** msg) override;

 protected:
  struct Entry {
    int type = 1;  // 1 file, 2 directory
    // A file's bytes. Never changed in place: an upload builds new content
    // and swaps it in, so a reader keeps the snapshot it started with.
    std::shared_ptr<const std::string> content;
    time_t create_time = 0;
    time_t access_time = 0;
    time_t modify_time = 0;
  };

  // The tree; every key is a normalised path ("/", "/a", "/a/b").
  // Callers of the helpers below hold lock_.
  const Entry* Find(const std::string& key) const;
  bool HasChildren(const std::string& key) const;
  void Fill(const std::string& key, const Entry& entry, _FS_FILE_V2* file) const;

  std::mutex lock_;
  std::map<std::string, Entry> entries_;
  unsigned long long capacity_;
  unsigned long long used_ = 0;
  const std::string identifier_;
};
