// Test doubles for the protocol base: a concrete SuperProtocol and recording
// host objects.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "protocol/super_protocol.h"
#include "tests/support/null_protocol.h"

// The null protocol with SuperProtocol's protected helpers and members made
// reachable.
class TestProtocol : public test_support::NullProtocol {
 public:
  using SuperProtocol::auth_document;
  using SuperProtocol::auth_hook;
  using SuperProtocol::local_config;
  using SuperProtocol::manager;
  using SuperProtocol::pid;
  using SuperProtocol::ReadConfiguration;
  using SuperProtocol::refresher;
  using SuperProtocol::speed_limit;
  using SuperProtocol::WriteConfiguration;
  using test_support::NullProtocol::NullProtocol;
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
