// The localdisk protocol object: serves a directory of the local file system.
// Protocol paths are local paths; they are normalised, never re-rooted.
#pragma once

#include <sys/stat.h>

#include <string>

#include "protocol/super_protocol.h"

class LocalDisk : public SuperProtocol {
 public:
  explicit LocalDisk(IProtocolManager* manager);
  ~LocalDisk() override;

  static int GetAuthType();
  static AERROR GetAuthFields(char* buffer, int* length);

  // Fixed answers and configuration (local_disk.cpp).
  void Release() override;
  AERROR GetType(char** type) override;
  AERROR GetChanges(IFileChanges* changes, char** msg) override;
  AERROR SetOpt(const char* key, const char* value) override;
  AERROR GetCredential(char* buffer, int* length) override;
  int GetFeature() override;
  void FreeMsg(char* msg) override;
  AERROR Connect(IProtocolAuth* auth, const char* arg) override;
  AERROR GetIdentifier(char* buffer, int* length) override;
  AERROR GetRootID(char* buffer, int* length) override;
  AERROR SetChangesCallback(IFileChanges* changes) override;
  AERROR GetShareableLink(_FS_FILE_V2* file, std::string& link) override;

  // Account (account.cpp).
  AERROR GetUserInfo(char* buffer, int* length) override;
  AERROR GetQuota(unsigned long long* total, unsigned long long* free) override;
  AERROR SetQuota(unsigned long long total, unsigned long long free) override;

  // Metadata and listing (metadata.cpp).
  AERROR GetFileList(const char* path, IFileList* list, char** msg) override;
  AERROR GetFileInfo(const char* path, _FS_FILE_V2* file, char** msg) override;

  // Namespace changes (namespace.cpp).
  AERROR Rename(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override;
  AERROR Move(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override;
  AERROR MoveDir(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override;
  AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** msg) override;
  AERROR Delete(_FS_FILE_V2* file, char** msg) override;
  AERROR DeleteDirectory(_FS_FILE_V2* file, char** msg) override;
  AERROR SetFileTime(const char* path, std::string create_time, std::string access_time,
                     std::string modify_time, _FS_FILE_V2* file, char** msg) override;

  // Transfers (transfer.cpp).
  AERROR Read(const char* path, long long offset, long long length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, char** msg) override;
  AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                _FS_FILE_V2* file, UPLOAD_FLAG flag, char** msg) override;

  // Path mapping (path.cpp).
  std::string GetPath(const char* path);
  std::string JoinPath(const std::string& directory, const std::string& name);

  // Fills `file` from `st`; `directory` is the parent's identifier and the
  // record's name must already be set (metadata.cpp).
  void FillData(std::string directory, struct stat* st, _FS_FILE_V2* file);

  // Read-only views for tests and diagnostics.
  const std::string& RootPath() const { return root_path; }

 protected:
  std::string root_path;    // local directory standing for the storage root
  std::string root_id;      // protocol path of the root: "/", never changes
  std::string root_prefix;  // prepended to the "root_path" option; empty
  char separator;           // '/'
};
