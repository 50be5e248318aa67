// Test doubles for the token refresh: thread-safe recording host objects, a
// scripted refresh provider and an auth-document hook.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "json/json_object.h"
#include "protocol/log.h"
#include "tests/protocol/test_protocol.h"

// TestProtocol with the refresh lock reachable too.
class AuthProtocol : public TestProtocol {
 public:
  using SuperProtocol::refresh_lock;
  using TestProtocol::TestProtocol;
};

struct StoreWrite {
  std::string section;
  bool null_key = false;
  std::string key;
  std::string value;
  bool flag = false;
};

struct StoreRead {
  std::string section;
  std::string key;
  int capacity = 0;
};

// A manager that records configuration calls from any thread.
class SafeManager : public IProtocolManager {
 public:
  std::string stored_value;
  bool fill_without_terminator = false;  // fills the whole buffer, no NUL
  bool throw_on_write = false;

  int GetVersion() override { return 1; }
  AERROR WriteConfiguration(const char* section, const char* key, const char* value,
                            bool flag) override {
    std::lock_guard<std::mutex> hold(mutex_);
    writes_.push_back({section ? section : "<null>", key == nullptr, key ? key : "",
                       value ? value : "<null>", flag});
    if (throw_on_write) throw FAILED;
    return SUCCESS;
  }
  AERROR ReadConfiguration(const char* section, const char* key, char* buffer,
                           int* length) override {
    std::lock_guard<std::mutex> hold(mutex_);
    reads_.push_back({section ? section : "<null>", key ? key : "<null>", *length});
    if (fill_without_terminator) {
      std::memset(buffer, 'z', static_cast<std::size_t>(*length));
      return SUCCESS;
    }
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

  std::vector<StoreWrite> Writes() {
    std::lock_guard<std::mutex> hold(mutex_);
    return writes_;
  }
  std::vector<StoreRead> Reads() {
    std::lock_guard<std::mutex> hold(mutex_);
    return reads_;
  }

 private:
  std::mutex mutex_;
  std::vector<StoreWrite> writes_;
  std::vector<StoreRead> reads_;
};

// A logger that formats what it is handed and lets a test wait for a line.
class SafeLog : public ILog {
 public:
  struct Line {
    LOGLEVEL level;
    std::string text;
  };

  void Write(LOGLEVEL level, const char* text) override { Add(level, text); }
  void WriteFormat(LOGLEVEL level, const char* format, ...) override {
    va_list args;
    va_start(args, format);
    WriteLog(level, format, args);
    va_end(args);
  }
  void WriteLog(LOGLEVEL level, const char* format, va_list args) override {
    char buffer[1024];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    Add(level, buffer);
  }

  std::vector<Line> Lines() {
    std::lock_guard<std::mutex> hold(mutex_);
    return lines_;
  }
  std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (const auto& line : Lines())
      texts.push_back(line.text);
    return texts;
  }
  // True once a line holding `part` has been written, false after `timeout`.
  bool WaitFor(const std::string& part, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> hold(mutex_);
    return changed_.wait_for(hold, timeout, [&] {
      for (const auto& line : lines_) {
        if (line.text.find(part) != std::string::npos) return true;
      }
      return false;
    });
  }

 private:
  void Add(LOGLEVEL level, const std::string& text) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      lines_.push_back({level, text});
    }
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Line> lines_;
};

// Binds a logger for the lifetime of the object.
class ScopedLogger {
 public:
  explicit ScopedLogger(ILog* log) {
    std::lock_guard<std::mutex> hold(ll);
    logger.store(log);
  }
  ~ScopedLogger() {
    std::lock_guard<std::mutex> hold(ll);
    logger.store(nullptr);
  }
  ScopedLogger(const ScopedLogger&) = delete;
  ScopedLogger& operator=(const ScopedLogger&) = delete;
};

// A refresh provider whose answer is scripted by the test: `answer` returns
// the new document text, or nothing for a null result, or throws.
class ScriptedProvider : public IAuthRefreshProvider {
 public:
  struct Answer {
    bool null = false;
    std::string text;
  };
  std::function<Answer(SuperProtocol*, const std::string&)> answer;

  static Answer Text(std::string text) { return {false, std::move(text)}; }
  static Answer Null() { return {true, {}}; }

  char* Refresh(SuperProtocol* protocol, const char* document) override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      calls_.push_back(
          {protocol, document ? document : "<null>", std::chrono::steady_clock::now()});
    }
    const Answer a = answer(protocol, document ? document : "");
    if (a.null) return nullptr;
    char* text = strdup(a.text.c_str());
    std::lock_guard<std::mutex> hold(mutex_);
    handed_out_.push_back(text);
    return text;
  }
  void Free(char* document) override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      freed_.push_back(document);
    }
    std::free(document);
  }

  struct Call {
    SuperProtocol* protocol;
    std::string document;
    std::chrono::steady_clock::time_point when;
  };
  std::vector<Call> Calls() {
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_;
  }
  std::vector<char*> HandedOut() {
    std::lock_guard<std::mutex> hold(mutex_);
    return handed_out_;
  }
  std::vector<char*> Freed() {
    std::lock_guard<std::mutex> hold(mutex_);
    return freed_;
  }

 private:
  std::mutex mutex_;
  std::vector<Call> calls_;
  std::vector<char*> handed_out_;
  std::vector<char*> freed_;
};

// Sees every parsed auth document and may edit or reject it.
class RecordingHook : public IAuthDocumentHook {
 public:
  std::function<void(JsonObject&)> on_document;

  void OnAuthorized(SuperProtocol*) override {}
  void OnUnauthorized(SuperProtocol*) override {}
  void OnAuthDocument(JsonObject& document) override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      seen_.push_back(document.ToText());
    }
    if (on_document) on_document(document);
  }
  std::vector<std::string> Seen() {
    std::lock_guard<std::mutex> hold(mutex_);
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> seen_;
};
