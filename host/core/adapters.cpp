#include "host/core/adapters.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace plughost {

namespace {

void Stop(const std::shared_ptr<_FS_HANDLE>& handle) {
  if (handle) handle->state.store(FS_HANDLE_STOP);
}

}  // namespace

AERROR FileListAdapter::OnFile(_FS_FILE_V2* file) {
  try {
    if (file != nullptr) on_file_(*file);
    return SUCCESS;
  } catch (...) {
    Keep(std::current_exception());
    return FAILED;
  }
}

AERROR CollectingFileList::OnFile(_FS_FILE_V2* file) {
  try {
    if (file != nullptr) files_.push_back(*file);
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

AERROR FetchAdapter::OnFetch(long long offset, const char* data, long long length, long long*) {
  try {
    on_fetch_(offset, data, length);
    return SUCCESS;
  } catch (...) {
    Keep(std::current_exception());
    Stop(stop_);
    return FAILED;
  }
}

AERROR StreamFetch::OnFetch(long long, const char* data, long long length, long long*) {
  try {
    if (length > 0) {
      out_.write(data, static_cast<std::streamsize>(length));
      if (!out_) throw std::system_error(EIO, std::generic_category(), "write failed");
      bytes_ += length;
    }
    return SUCCESS;
  } catch (...) {
    Keep(std::current_exception());
    Stop(stop_);
    return FAILED;
  }
}

AERROR CacheAdapter::ReadCache(_FS_CACHE_READ* request) {
  try {
    long long n = read_(request->offset, request->buffer, request->capacity);
    if (n < 0) return FAILED;
    request->length = n;
    return SUCCESS;
  } catch (...) {
    Keep(std::current_exception());
    return FAILED;
  }
}

// --- FileCache ------------------------------------------------------------

FileCache::FileCache(int fd) : fd_(fd) {
  struct stat st {};
  if (fstat(fd_, &st) != 0) {
    int error = errno;
    close(fd_);
    throw std::system_error(error, std::generic_category(), "fstat");
  }
  size_ = st.st_size;
}

FileCache::FileCache(const std::string& path) {
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), path);
  struct stat st {};
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
    int error = S_ISDIR(st.st_mode) ? EISDIR : (errno != 0 ? errno : EINVAL);
    close(fd_);
    throw std::system_error(error, std::generic_category(), path);
  }
  size_ = st.st_size;
}

std::unique_ptr<FileCache> FileCache::FromStream(std::istream& in) {
  const char* dir = std::getenv("TMPDIR");
  std::string pattern =
      std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/plughost-spool-XXXXXX";
  int fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "spool file");
  unlink(pattern.c_str());
  char buffer[65536];
  while (in) {
    in.read(buffer, sizeof buffer);
    std::streamsize got = in.gcount();
    for (std::streamsize done = 0; done < got;) {
      ssize_t n = write(fd, buffer + done, static_cast<size_t>(got - done));
      if (n < 0) {
        if (errno == EINTR) continue;
        int error = errno;
        close(fd);
        throw std::system_error(error, std::generic_category(), "spool file");
      }
      done += n;
    }
  }
  if (in.bad()) {
    close(fd);
    throw std::system_error(EIO, std::generic_category(), "reading the upload source");
  }
  return std::unique_ptr<FileCache>(new FileCache(fd));
}

FileCache::~FileCache() {
  if (fd_ >= 0) close(fd_);
}

AERROR FileCache::ReadCache(_FS_CACHE_READ* request) {
  if (request == nullptr || request->buffer == nullptr || request->offset < 0) return FAILED;
  long long want = request->capacity;
  long long remaining = size_ - request->offset;
  if (want > remaining) want = remaining;
  long long got = 0;
  while (got < want) {
    ssize_t n = pread(fd_, request->buffer + got, static_cast<size_t>(want - got),
                      static_cast<off_t>(request->offset + got));
    if (n < 0) {
      if (errno == EINTR) continue;
      last_error_ = errno;
      return FILE_READ_FAILED;
    }
    if (n == 0) break;
    got += n;
  }
  // The plug-in would keep asking for the missing bytes until cancelled.
  if (got == 0 && remaining > 0) {
    last_error_ = EIO;
    return FILE_READ_FAILED;
  }
  request->length = got;
  return SUCCESS;
}

// --- StderrLog ------------------------------------------------------------

const char* StderrLog::LevelName(LOGLEVEL level) {
  switch (level) {
    case LOGLEVEL_ERROR:
      return "error";
    case LOGLEVEL_WARNING:
      return "warning";
    case LOGLEVEL_INFO:
      return "info";
    case LOGLEVEL_DEBUG:
      return "debug";
  }
  return "log";
}

void StderrLog::Write(LOGLEVEL level, const char* text) {
  std::lock_guard<std::mutex> guard(lock_);
  std::fprintf(out_, "%s[%s] %s\n", prefix_.c_str(), LevelName(level), text != nullptr ? text : "");
  std::fflush(out_);
}

void StderrLog::WriteFormat(LOGLEVEL level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteLog(level, format, args);
  va_end(args);
}

void StderrLog::WriteLog(LOGLEVEL level, const char* format, va_list args) {
  if (format == nullptr) return;
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int needed = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (needed < 0) return;
  if (static_cast<size_t>(needed) < sizeof small) {
    Write(level, small);
    return;
  }
  std::string text(static_cast<size_t>(needed) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.resize(static_cast<size_t>(needed));
  Write(level, text.c_str());
}

// --- configuration stores ---------------------------------------------------

AERROR CopyToBuffer(const std::string& value, char* buffer, int* length) {
  if (length == nullptr) return INVALID_PARAMETER;
  int capacity = *length;
  if (value.size() > static_cast<size_t>(INT_MAX)) return INSUFFICIENT_BUFFER;
  *length = static_cast<int>(value.size());
  if (buffer == nullptr || capacity < static_cast<int>(value.size())) return INSUFFICIENT_BUFFER;
  std::memcpy(buffer, value.data(), value.size());
  // Terminate when there is room; the length is what counts.
  if (capacity > static_cast<int>(value.size())) buffer[value.size()] = '\0';
  return SUCCESS;
}

AERROR MemoryConfiguration::WriteConfiguration(const char* section, const char* key,
                                               const char* value, bool) {
  if (section == nullptr || key == nullptr) return INVALID_PARAMETER;
  try {
    std::lock_guard<std::mutex> guard(lock_);
    values_[{section, key}] = value != nullptr ? value : "";
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

AERROR MemoryConfiguration::ReadConfiguration(const char* section, const char* key, char* buffer,
                                              int* length) {
  if (section == nullptr || key == nullptr || length == nullptr) return INVALID_PARAMETER;
  try {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = values_.find({section, key});
    if (it == values_.end()) {
      *length = 0;
      return FILE_NOT_FOUND;
    }
    return CopyToBuffer(it->second, buffer, length);
  } catch (...) {
    return FAILED;
  }
}

std::string MemoryConfiguration::Get(const std::string& section, const std::string& key) const {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = values_.find({section, key});
  return it == values_.end() ? std::string() : it->second;
}

bool MemoryConfiguration::Has(const std::string& section, const std::string& key) const {
  std::lock_guard<std::mutex> guard(lock_);
  return values_.count({section, key}) != 0;
}

AERROR MemoryLocalConfiguration::WriteConfiguration(const char* key, const char* value) {
  if (key == nullptr) return INVALID_PARAMETER;
  try {
    std::lock_guard<std::mutex> guard(lock_);
    values_[key] = value != nullptr ? value : "";
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

AERROR MemoryLocalConfiguration::ReadConfiguration(const char* key, char* buffer, int* length) {
  if (key == nullptr || length == nullptr) return INVALID_PARAMETER;
  try {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = values_.find(key);
    if (it == values_.end()) {
      *length = 0;
      return FILE_NOT_FOUND;
    }
    return CopyToBuffer(it->second, buffer, length);
  } catch (...) {
    return FAILED;
  }
}

std::string MemoryLocalConfiguration::Get(const std::string& key) const {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = values_.find(key);
  return it == values_.end() ? std::string() : it->second;
}

}  // namespace plughost
