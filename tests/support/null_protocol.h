// A protocol object on SuperProtocol whose every pure slot answers trivially
// (NOT_SUPPORTED, or SUCCESS where the host expects it). Test protocols and
// test plug-ins derive from it and override only what they exercise.
#pragma once

#include <memory>
#include <string>

#include "protocol/super_protocol.h"

namespace test_support {

class NullProtocol : public SuperProtocol {
 public:
  using SuperProtocol::SuperProtocol;

  void Release() override { delete this; }
  AERROR GetUserInfo(char*, int*) override { return NOT_SUPPORTED; }
  AERROR GetQuota(unsigned long long*, unsigned long long*) override { return NOT_SUPPORTED; }
  AERROR SetQuota(unsigned long long, unsigned long long) override { return NOT_SUPPORTED; }
  AERROR GetType(char**) override { return NOT_SUPPORTED; }
  AERROR GetFileList(const char*, IFileList*, char**) override { return NOT_SUPPORTED; }
  AERROR GetChanges(IFileChanges*, char**) override { return NOT_SUPPORTED; }
  AERROR GetFileInfo(const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Rename(const char*, const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Move(const char*, const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR MoveDir(const char*, const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR CreateDirectory(const char*, _FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Delete(_FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR DeleteDirectory(_FS_FILE_V2*, char**) override { return NOT_SUPPORTED; }
  AERROR Read(const char*, long long, long long, std::shared_ptr<_FS_HANDLE>, IFetchCallback*,
              char**) override {
    return NOT_SUPPORTED;
  }
  AERROR Upload(const char*, std::shared_ptr<_FS_HANDLE>, ICacheIO*, _FS_FILE_V2*, UPLOAD_FLAG,
                char**) override {
    return NOT_SUPPORTED;
  }
  AERROR SetFileTime(const char*, std::string, std::string, std::string, _FS_FILE_V2*,
                     char**) override {
    return NOT_SUPPORTED;
  }
  AERROR GetCredential(char*, int*) override { return NOT_SUPPORTED; }
  int GetFeature() override { return 0; }
  void FreeMsg(char*) override {}
  AERROR Connect(IProtocolAuth*, const char*) override { return SUCCESS; }
  AERROR GetIdentifier(char*, int*) override { return SUCCESS; }
  AERROR GetRootID(char*, int*) override { return SUCCESS; }
  AERROR SetChangesCallback(IFileChanges*) override { return SUCCESS; }
  AERROR GetShareableLink(_FS_FILE_V2*, std::string&) override { return NOT_SUPPORTED; }
};

}  // namespace test_support
