// Host-side implementations of the callback interfaces a plug-in calls, built
// from std::function, streams and files. None lets an exception cross into
// the plug-in: an exception thrown by a user function is caught, kept, and
// reported to the plug-in as a failure (and, where a transfer handle is
// attached, by asking the transfer to stop); call RethrowIfFailed() after the
// operation returns to see it again.
#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "protocol/contract.h"

namespace plughost {

// Keeps the first exception thrown by a callback.
class CallbackErrors {
 public:
  void RethrowIfFailed() const {
    if (error_) std::rethrow_exception(error_);
  }
  bool failed() const noexcept { return static_cast<bool>(error_); }

 protected:
  void Keep(std::exception_ptr error) noexcept {
    if (!error_) error_ = std::move(error);
  }

 private:
  std::exception_ptr error_;
};

// IFileList from a function that receives each listed record. The record dies
// when the callback returns; the function copies what it keeps.
class FileListAdapter final : public IFileList, public CallbackErrors {
 public:
  explicit FileListAdapter(std::function<void(const _FS_FILE_V2&)> on_file)
      : on_file_(std::move(on_file)) {}
  AERROR OnFile(_FS_FILE_V2* file) override;

 private:
  std::function<void(const _FS_FILE_V2&)> on_file_;
};

// IFileList that copies every record into a vector.
class CollectingFileList final : public IFileList {
 public:
  AERROR OnFile(_FS_FILE_V2* file) override;
  std::vector<_FS_FILE_V2>& files() noexcept { return files_; }

 private:
  std::vector<_FS_FILE_V2> files_;
};

// IFetchCallback from a function (offset, data, length). If `stop` is given,
// a throwing function also sets that handle's state to stop the transfer.
class FetchAdapter final : public IFetchCallback, public CallbackErrors {
 public:
  using Function = std::function<void(long long offset, const char* data, long long length)>;
  explicit FetchAdapter(Function on_fetch, std::shared_ptr<_FS_HANDLE> stop = nullptr)
      : on_fetch_(std::move(on_fetch)), stop_(std::move(stop)) {}
  AERROR OnFetch(long long offset, const char* data, long long length, long long* out) override;

 private:
  Function on_fetch_;
  std::shared_ptr<_FS_HANDLE> stop_;
};

// IFetchCallback writing the chunks in order to a stream. A stream failure
// is kept as an error and stops the transfer through `stop` when given.
class StreamFetch final : public IFetchCallback, public CallbackErrors {
 public:
  explicit StreamFetch(std::ostream& out, std::shared_ptr<_FS_HANDLE> stop = nullptr)
      : out_(out), stop_(std::move(stop)) {}
  AERROR OnFetch(long long offset, const char* data, long long length, long long* out) override;
  long long bytes() const noexcept { return bytes_; }

 private:
  std::ostream& out_;
  std::shared_ptr<_FS_HANDLE> stop_;
  long long bytes_ = 0;
};

// ICacheIO from a function (offset, buffer, capacity) -> bytes placed, or a
// negative value for failure (which aborts the upload).
class CacheAdapter final : public ICacheIO, public CallbackErrors {
 public:
  using Function = std::function<long long(long long offset, char* buffer, long long capacity)>;
  explicit CacheAdapter(Function read) : read_(std::move(read)) {}
  AERROR ReadCache(_FS_CACHE_READ* request) override;

 private:
  Function read_;
};

// A file-backed upload cache: serves the bytes of a local file by position.
// The upload's size is fixed when the cache is opened; a request is never
// answered with more than remains of that size, and a file that shrank
// meanwhile aborts the upload instead of delivering empty chunks forever.
class FileCache final : public ICacheIO {
 public:
  // Opens `path` for reading. Throws std::system_error.
  explicit FileCache(const std::string& path);
  // Spools everything `in` holds into an unlinked temporary file first, for
  // sources whose size is unknown in advance (a pipe, standard input).
  static std::unique_ptr<FileCache> FromStream(std::istream& in);
  FileCache(const FileCache&) = delete;
  FileCache& operator=(const FileCache&) = delete;
  ~FileCache();

  long long size() const noexcept { return size_; }
  AERROR ReadCache(_FS_CACHE_READ* request) override;
  // errno of the last failed read, 0 if none; a file that shrank gives EIO.
  int last_error() const noexcept { return last_error_; }

 private:
  explicit FileCache(int fd);
  int fd_ = -1;
  long long size_ = 0;
  int last_error_ = 0;
};

// An ILog writing one formatted line per call to a stdio stream (stderr by
// default), prefixed with `prefix` and the level's name. Thread-safe.
class StderrLog final : public ILog {
 public:
  explicit StderrLog(std::string prefix = {}, std::FILE* out = stderr)
      : prefix_(std::move(prefix)), out_(out) {}
  void Write(LOGLEVEL level, const char* text) override;
  void WriteFormat(LOGLEVEL level, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void WriteLog(LOGLEVEL level, const char* format, va_list args) override;

  static const char* LevelName(LOGLEVEL level);

 private:
  std::string prefix_;
  std::FILE* out_;
  std::mutex lock_;
};

// An in-memory IProtocolManager: the configuration store the plug-in reads
// and writes (section, key) -> value. Thread-safe.
class MemoryConfiguration final : public IProtocolManager {
 public:
  int GetVersion() override { return 2; }
  AERROR WriteConfiguration(const char* section, const char* key, const char* value,
                            bool flag) override;
  AERROR ReadConfiguration(const char* section, const char* key, char* buffer,
                           int* length) override;

  // The stored value, or an empty text.
  std::string Get(const std::string& section, const std::string& key) const;
  bool Has(const std::string& section, const std::string& key) const;

 private:
  mutable std::mutex lock_;
  std::map<std::pair<std::string, std::string>, std::string> values_;
};

// The same store without sections, for SetLocalConfiguration.
class MemoryLocalConfiguration final : public ILocalConfiguration {
 public:
  AERROR WriteConfiguration(const char* key, const char* value) override;
  AERROR ReadConfiguration(const char* key, char* buffer, int* length) override;
  std::string Get(const std::string& key) const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, std::string> values_;
};

// Copies `value` into a buffer-and-length output: *length receives the
// needed length; INSUFFICIENT_BUFFER when buffer is null or too small.
AERROR CopyToBuffer(const std::string& value, char* buffer, int* length);

}  // namespace plughost
