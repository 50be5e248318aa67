// Test doubles for the protocol base: a concrete SuperProtocol and recording
// host objects.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "protocol/super_protocol.h"

// SuperProtocol with every pure slot answered trivially, and its protected
// helpers and members made reachable.
class TestProtocol : public SuperProtocol {
 public:
  using SuperProtocol::auth_document;
  using SuperProtocol::auth_hook;
  using SuperProtocol::local_config;
  using SuperProtocol::manager;
  using SuperProtocol::pid;
  using SuperProtocol::ReadConfiguration;
  using SuperProtocol::refresher;
  using SuperProtocol::speed_limit;
  using SuperProtocol::SuperProtocol;
  using SuperProtocol::WriteConfiguration;

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

struct ConfigCall {
  std::string section;  // "<none>" when the callee has no section
  std::string key;
  std::string value;
  bool flag = false;
  int capacity = 0;
};

// A manager that records every configuration call and answers reads with a
// fixed value following the buffer-and-length convention.
class RecordingManager : public IProtocolManager {
 public:
  std::vector<ConfigCall> writes;
  std::vector<ConfigCall> reads;
  std::string stored_value;
  AERROR write_result = SUCCESS;

  int GetVersion() override { return 1; }
  AERROR WriteConfiguration(const char* section, const char* key, const char* value,
                            bool flag) override {
    writes.push_back(
        {section ? section : "<null>", key ? key : "<null>", value ? value : "<null>", flag, 0});
    return write_result;
  }
  AERROR ReadConfiguration(const char* section, const char* key, char* buffer,
                           int* length) override {
    reads.push_back({section ? section : "<null>", key ? key : "<null>", "", false, *length});
    const int needed = static_cast<int>(stored_value.size());
    if (*length <= needed) {
      *length = needed + 1;
      return INSUFFICIENT_BUFFER;
    }
    stored_value.copy(buffer, stored_value.size());
    buffer[needed] = '\0';
    *length = needed;
    return SUCCESS;
  }
};

class RecordingLocalConfiguration : public ILocalConfiguration {
 public:
  std::vector<ConfigCall> writes;
  std::vector<ConfigCall> reads;
  AERROR result = SUCCESS;

  AERROR WriteConfiguration(const char* key, const char* value) override {
    writes.push_back({"<none>", key, value, false, 0});
    return result;
  }
  AERROR ReadConfiguration(const char* key, char*, int* length) override {
    reads.push_back({"<none>", key, "", false, *length});
    return result;
  }
};

// Formats every line it is handed, as a host logger would.
class RecordingLog : public ILog {
 public:
  struct Line {
    LOGLEVEL level;
    std::string format;
    std::string text;
  };
  std::vector<Line> lines;

  void Write(LOGLEVEL level, const char* text) override { lines.push_back({level, text, text}); }
  void WriteFormat(LOGLEVEL level, const char* format, ...) override {
    va_list args;
    va_start(args, format);
    WriteLog(level, format, args);
    va_end(args);
  }
  void WriteLog(LOGLEVEL level, const char* format, va_list args) override {
    char buffer[1024];
    vsnprintf(buffer, sizeof buffer, format, args);
    lines.push_back({level, format, buffer});
  }
};
