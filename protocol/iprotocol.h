// The protocol object's interface as the host calls it. The order of the
// virtual operations is binding (slot numbers in the comments); the interfaces
// have no virtual destructor: a host ends an object with Release, never delete.
//
// Conventions of every slot:
// - Results are AERROR codes; SUCCESS (0) is the only success.
// - Buffer-and-length outputs: `length` points at a signed 32-bit capacity on
//   entry and receives the needed length; a null length is INVALID_PARAMETER,
//   too small a buffer INSUFFICIENT_BUFFER.
// - `char** msg`: an operation may store a malloc'ed failure text there; the
//   host frees it with FreeMsg.
// - Nothing throws across this interface.
#pragma once

#include <memory>
#include <string>

#include "protocol/aerror.h"
#include "protocol/host_interfaces.h"
#include "protocol/records.h"

class IRefObject {
 public:
  // Slot 0: destroys the object at once (there is no reference count).
  virtual void Release() = 0;

 protected:
  ~IRefObject() = default;
};

class IProtocol_V1 : public IRefObject {
 public:
  virtual AERROR GetUserInfo(char* buffer, int* length) = 0;                         // 1
  virtual AERROR GetQuota(unsigned long long* total, unsigned long long* free) = 0;  // 2
  virtual AERROR SetQuota(unsigned long long total, unsigned long long free) = 0;    // 3
  // Stores a pointer to the static type name; the host must not free it.
  virtual AERROR GetType(char** type) = 0;                                          // 4
  virtual AERROR GetFileList(const char* path, IFileList* list, char** msg) = 0;    // 5
  virtual AERROR GetChanges(IFileChanges* changes, char** msg) = 0;                 // 6
  virtual AERROR GetFileInfo(const char* path, _FS_FILE_V2* file, char** msg) = 0;  // 7
  virtual AERROR Rename(const char* from, const char* to, _FS_FILE_V2* file,
                        char** msg) = 0;  // 8
  virtual AERROR Move(const char* from, const char* to, _FS_FILE_V2* file,
                      char** msg) = 0;  // 9
  virtual AERROR MoveDir(const char* from, const char* to, _FS_FILE_V2* file,
                         char** msg) = 0;                                                 // 10
  virtual AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** msg) = 0;  // 11
  virtual AERROR Delete(_FS_FILE_V2* file, char** msg) = 0;                               // 12
  virtual AERROR DeleteDirectory(_FS_FILE_V2* file, char** msg) = 0;                      // 13
  virtual AERROR Read(const char* path, long long offset, long long length,
                      std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink,
                      char** msg) = 0;  // 14
  virtual AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                        _FS_FILE_V2* file, UPLOAD_FLAG flag,
                        char** msg) = 0;  // 15
  virtual AERROR SetFileTime(const char* path, std::string create_time, std::string access_time,
                             std::string modify_time, _FS_FILE_V2* file, char** msg) = 0;  // 16
  virtual AERROR SetOpt(const char* key, const char* value) = 0;                           // 17
  virtual AERROR GetCredential(char* buffer, int* length) = 0;                             // 18
  // Returns a feature bit mask, not an AERROR.
  virtual int GetFeature() = 0;  // 19
  // Frees a text stored through a `char** msg`; null is ignored.
  virtual void FreeMsg(char* msg) = 0;                               // 20
  virtual AERROR Connect(IProtocolAuth* auth, const char* arg) = 0;  // 21
  virtual AERROR GetIdentifier(char* buffer, int* length) = 0;       // 22
  virtual AERROR GetRootID(char* buffer, int* length) = 0;           // 23

 protected:
  ~IProtocol_V1() = default;
};

class IProtocol_V2 : public IProtocol_V1 {
 public:
  virtual std::string GetPID() = 0;                                           // 24
  virtual AERROR SetChangesCallback(IFileChanges* changes) = 0;               // 25
  virtual AERROR SetLocalConfiguration(ILocalConfiguration* config) = 0;      // 26
  virtual AERROR GetShareableLink(_FS_FILE_V2* file, std::string& link) = 0;  // 27

 protected:
  ~IProtocol_V2() = default;
};
