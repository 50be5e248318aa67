// Helpers for the local-disk operation tests: real temporary directories,
// recording host callbacks and environment guards.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "localdisk/local_disk.h"
#include "protocol/host_interfaces.h"
#include "tests/support/cache_content.h"
#include "tests/support/files.h"
#include "tests/support/time_zone.h"

namespace backend_test {

using test_support::Exists;
using test_support::Pattern;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::TzGuard;
using test_support::WriteFile;

// Sets the modification (and access) time of `path` to a local wall-clock time.
inline time_t SetLocalTimes(const std::string& path, int year, int month, int day, int hour,
                            int minute, int second) {
  tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  fields.tm_isdst = -1;
  const time_t t = mktime(&fields);
  timeval times[2] = {{t, 0}, {t, 0}};
  if (utimes(path.c_str(), times) != 0) std::abort();
  return t;
}

// Sets or clears one environment variable for the scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    if (value != nullptr)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnv() {
    if (previous_)
      setenv(name_.c_str(), previous_->c_str(), 1);
    else
      unsetenv(name_.c_str());
  }

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// A LocalDisk whose own virtual slots record how they are reached.
class SpyDisk : public LocalDisk {
 public:
  SpyDisk() : LocalDisk(nullptr) {}
  std::vector<std::string> info_paths;
  std::vector<std::string> move_calls;
  std::vector<std::string> delete_calls;
  std::optional<AERROR> info_result;  // overrides GetFileInfo's answer when set

  AERROR GetFileInfo(const char* path, _FS_FILE_V2* file, char** msg) override {
    info_paths.push_back(path);
    AERROR result = LocalDisk::GetFileInfo(path, file, msg);
    return info_result ? *info_result : result;
  }
  AERROR Move(const char* from, const char* to, _FS_FILE_V2* file, char** msg) override {
    move_calls.push_back(std::string(from) + " -> " + to);
    return LocalDisk::Move(from, to, file, msg);
  }
  AERROR Delete(_FS_FILE_V2* file, char** msg) override {
    delete_calls.push_back(file->id);
    return LocalDisk::Delete(file, msg);
  }
};

// Copies every listed record (the plug-in destroys its own after the call).
class RecordingList : public IFileList {
 public:
  std::vector<_FS_FILE_V2> files;
  AERROR OnFile(_FS_FILE_V2* file) override {
    files.push_back(*file);
    return FAILED;  // ignored by the plug-in
  }
  const _FS_FILE_V2* Find(const std::string& name) const {
    for (const auto& f : files)
      if (f.name == name) return &f;
    return nullptr;
  }
};

struct Chunk {
  long long offset;
  long long length;
};

// Collects what a Read delivers; can stop the transfer after some chunks.
class CollectingSink : public IFetchCallback {
 public:
  std::vector<Chunk> chunks;
  std::string data;
  std::shared_ptr<_FS_HANDLE> handle;  // set to cancel after `cancel_after` chunks
  size_t cancel_after = 0;
  bool keep_data = true;

  AERROR OnFetch(long long offset, const char* bytes, long long length, long long* out) override {
    EXPECT_NE(out, nullptr);
    if (out != nullptr) {
      EXPECT_EQ(*out, 0);
      *out = 12345;  // ignored by the plug-in
    }
    chunks.push_back({offset, length});
    if (keep_data) data.append(bytes, static_cast<size_t>(length));
    if (handle && cancel_after != 0 && chunks.size() >= cancel_after) handle->state.store(3);
    return FAILED;  // ignored by the plug-in
  }
};

// An in-memory cache for Upload; can fail or cancel at a given request.
class MemoryCache : public ICacheIO {
 public:
  explicit MemoryCache(std::string content) : content_(std::move(content)) {}
  struct Request {
    long long offset, capacity, length_in, total;
    long long use_count;
    long long reserved[3];
  };
  std::vector<Request> requests;
  size_t fail_at = 0;           // 1-based request number that fails; 0 never
  size_t cancel_at = 0;         // 1-based request after which the handle is cancelled
  long long force_length = -1;  // when >= 0, report this length instead

  AERROR ReadCache(_FS_CACHE_READ* request) override {
    requests.push_back({request->offset,
                        request->capacity,
                        request->length,
                        request->total,
                        request->handle.use_count(),
                        {request->reserved[0], request->reserved[1], request->reserved[2]}});
    if (fail_at != 0 && requests.size() == fail_at) return FAILED;
    const long long n = test_support::CopyWindow(content_, request);
    request->length = force_length >= 0 ? force_length : n;
    if (cancel_at != 0 && requests.size() == cancel_at && request->handle)
      request->handle->state.store(3);
    return SUCCESS;
  }

 private:
  std::string content_;
};

struct ProgressCall {
  long long total;
  long long done;
  double rate;
};

// Progress callback writing into the std::vector<ProgressCall> named by the context.
inline void RecordProgress(long long total, long long done, std::uint64_t context, double rate) {
  reinterpret_cast<std::vector<ProgressCall>*>(context)->push_back({total, done, rate});
}

inline std::shared_ptr<_FS_HANDLE> MakeHandle(std::vector<ProgressCall>* progress = nullptr) {
  auto handle = std::make_shared<_FS_HANDLE>();
  if (progress != nullptr) {
    handle->progress = &RecordProgress;
    handle->progress_context = reinterpret_cast<std::uint64_t>(progress);
  }
  return handle;
}

// A host logger that formats and keeps every line.
class RecordingLog : public ILog {
 public:
  struct Line {
    LOGLEVEL level;
    std::string text;
  };
  std::vector<Line> lines;
  std::mutex lock;

  void Write(LOGLEVEL level, const char* text) override {
    std::lock_guard<std::mutex> guard(lock);
    lines.push_back({level, std::string("(Write) ") + text});
  }
  void WriteFormat(LOGLEVEL level, const char* format, ...) override {
    std::lock_guard<std::mutex> guard(lock);
    lines.push_back({level, std::string("(WriteFormat) ") + format});
  }
  void WriteLog(LOGLEVEL level, const char* format, va_list args) override {
    char buffer[4096];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    std::lock_guard<std::mutex> guard(lock);
    lines.push_back({level, buffer});
  }
};

}  // namespace backend_test
