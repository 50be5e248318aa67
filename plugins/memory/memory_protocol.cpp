#include "plugins/memory/memory_protocol.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "protocol/log.h"
#include "time/rfc3339.h"
#include "util/encoding.h"
#include "util/text.h"

namespace {

// Transfers move data in chunks of this size, as every plug-in of the host.
constexpr long long kChunk = 524288;
char kTypeName[] = "memory";

// "/", or "/a/b": empty and "." segments dropped, ".." climbs (never above
// the root). Entry names may hold any byte but '/' and NUL.
std::string Key(const char* path) {
  std::vector<std::string> segments;
  for (const char* p = path != nullptr ? path : ""; *p != '\0';) {
    const char* end = std::strchr(p, '/');
    if (end == nullptr) end = p + std::strlen(p);
    std::string segment(p, end);
    if (segment == "..") {
      if (!segments.empty()) segments.pop_back();
    } else if (!segment.empty() && segment != ".") {
      segments.push_back(std::move(segment));
    }
    p = *end == '/' ? end + 1 : end;
  }
  return segments.empty() ? "/" : "/" + join(segments, "/");
}

std::string Join(const std::string& directory, const std::string& name) {
  return directory == "/" ? "/" + name : directory + "/" + name;
}

std::string NameOf(const std::string& key) {
  return key == "/" ? key : key.substr(key.rfind('/') + 1);
}

// A name that can stand for one entry: what CreateDirectory, Move and Upload
// accept in the record's `name`.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// File times travel as local wall-clock fields with a ".000Z" suffix and
// come back through RFC3339ToTM: the pairing every plug-in of the host keeps.
std::string TimeText(time_t t) {
  struct tm fields {};
  localtime_r(&t, &fields);
  return TMToRFC3339(&fields);
}

// A failure text for the host, which hands it back through FreeMsg.
AERROR Fail(AERROR code, char** msg, const std::string& text) {
  if (msg != nullptr && *msg == nullptr) *msg = strdup(text.c_str());
  return code;
}

// The buffer-and-length rule: the needed length always comes back; the text
// is copied only when it fits, with a terminator when there is room for one.
AERROR CopyOut(const std::string& text, char* buffer, int* length) {
  if (length == nullptr) return INVALID_PARAMETER;
  const int capacity = *length;
  const int needed = static_cast<int>(text.size());
  *length = needed;
  if (buffer == nullptr || capacity < needed) return INSUFFICIENT_BUFFER;
  std::memcpy(buffer, text.data(), text.size());
  if (capacity > needed) buffer[needed] = '\0';
  return SUCCESS;
}

// The host sets `state` to 3 or more from another thread to stop a transfer.
bool Stopped(const std::shared_ptr<_FS_HANDLE>& handle) {
  return handle && handle->state.load(std::memory_order_relaxed) >= FS_HANDLE_STOP;
}

void Progress(const std::shared_ptr<_FS_HANDLE>& handle, long long total, long long done) {
  if (handle && handle->progress != nullptr)
    handle->progress(total, done, handle->progress_context, 0.0);
}

// Nothing may throw across the interface: every operation runs in here.
template <typename Body>
AERROR Guarded(char** msg, Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return Fail(FAILED, msg, "out of memory");
  } catch (...) {
    return Fail(FAILED, msg, "internal error");
  }
}

unsigned long long PhysicalMemory() {
  long pages = sysconf(_SC_PHYS_PAGES);
  long page_size = sysconf(_SC_PAGESIZE);
  return pages > 0 && page_size > 0 ? static_cast<unsigned long long>(pages) * page_size : 0;
}

}  // namespace

MemoryProtocol::MemoryProtocol(IProtocolManager* manager)
    : SuperProtocol(manager), capacity_(PhysicalMemory() / 2), identifier_(NewUUID()) {
  Entry root;
  root.type = 2;
  root.create_time = root.access_time = root.modify_time = time(nullptr);
  entries_.emplace("/", root);
}

MemoryProtocol::~MemoryProtocol() = default;

const char* MemoryProtocol::TypeName() {
  return kTypeName;
}

// --- the tree -------------------------------------------------------------

const MemoryProtocol::Entry* MemoryProtocol::Find(const std::string& key) const {
  auto it = entries_.find(key);
  return it == entries_.end() ? nullptr : &it->second;
}

bool MemoryProtocol::HasChildren(const std::string& key) const {
  const std::string prefix = key == "/" ? key : key + "/";
  auto it = entries_.upper_bound(key);
  return it != entries_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

void MemoryProtocol::Fill(const std::string& key, const Entry& entry, _FS_FILE_V2* file) const {
  file->id = key;
  file->type = entry.type;
  file->size = entry.content ? static_cast<std::int64_t>(entry.content->size()) : 0;
  file->create_time = TimeText(entry.create_time);
  file->access_time = TimeText(entry.access_time);
  file->modify_time = TimeText(entry.modify_time);
  file->name = NameOf(key);
}

// --- object and options -----------------------------------------------------

void MemoryProtocol::Release() {
  delete this;
}

AERROR MemoryProtocol::GetType(char** type) {
  if (type == nullptr) return INVALID_PARAMETER;
  *type = kTypeName;  // static: the host never frees it
  return SUCCESS;
}

AERROR MemoryProtocol::SetOpt(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) return INVALID_PARAMETER;
  if (strcasecmp(key, "capacity") == 0) {
    std::lock_guard<std::mutex> guard(lock_);
    capacity_ = std::strtoull(value, nullptr, 10);
  } else if (strcasecmp(key, "pid") == 0) {
    pid = value;
  }
  return SuperProtocol::SetOpt(key, value);
}

int MemoryProtocol::GetFeature() {
  return 0;
}

void MemoryProtocol::FreeMsg(char* msg) {
  std::free(msg);  // messages are strdup'ed (Fail above)
}

AERROR MemoryProtocol::Connect(IProtocolAuth*, const char*) {
  return SUCCESS;  // nothing to connect to
}

AERROR MemoryProtocol::GetCredential(char*, int* length) {
  if (length == nullptr) return INVALID_PARAMETER;
  *length = 0;
  return NOT_SUPPORTED;
}

AERROR MemoryProtocol::GetIdentifier(char* buffer, int* length) {
  return CopyOut(identifier_, buffer, length);
}

AERROR MemoryProtocol::GetRootID(char* buffer, int* length) {
  return CopyOut("/", buffer, length);
}

AERROR MemoryProtocol::GetChanges(IFileChanges*, char**) {
  return NOT_SUPPORTED;
}

AERROR MemoryProtocol::SetChangesCallback(IFileChanges*) {
  return SUCCESS;  // every change comes from the host itself
}

AERROR MemoryProtocol::GetShareableLink(_FS_FILE_V2*, std::string&) {
  return NOT_SUPPORTED;
}

// --- account ----------------------------------------------------------------

AERROR MemoryProtocol::GetUserInfo(char* buffer, int* length) {
  return Guarded(nullptr,
                 [&] { return CopyOut(string_format("memory/%s", pid.c_str()), buffer, length); });
}

AERROR MemoryProtocol::GetQuota(unsigned long long* total, unsigned long long* used) {
  // The second figure is the space in use, as the host reads it.
  std::lock_guard<std::mutex> guard(lock_);
  if (total != nullptr) *total = capacity_;
  if (used != nullptr) *used = used_;
  return SUCCESS;
}

AERROR MemoryProtocol::SetQuota(unsigned long long total, unsigned long long) {
  std::lock_guard<std::mutex> guard(lock_);
  capacity_ = total;
  return SUCCESS;
}

// --- metadata ---------------------------------------------------------------

AERROR MemoryProtocol::GetFileInfo(const char* path, _FS_FILE_V2* file, char** msg) {
  if (path == nullptr || file == nullptr) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    const std::string key = Key(path);
    std::lock_guard<std::mutex> guard(lock_);
    const Entry* entry = Find(key);
    // A missing entry leaves the record as the caller made it.
    if (entry == nullptr) return Fail(FILE_NOT_FOUND, msg, "no such entry: " + key);
    Fill(key, *entry, file);
    return SUCCESS;
  });
}

AERROR MemoryProtocol::GetFileList(const char* path, IFileList* list, char** msg) {
  if (path == nullptr || list == nullptr) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    const std::string key = Key(path);
    std::vector<_FS_FILE_V2> records;
    {
      std::lock_guard<std::mutex> guard(lock_);
      const Entry* directory = Find(key);
      if (directory == nullptr || directory->type != 2)
        return Fail(FILE_NOT_FOUND, msg, "no such directory: " + key);
      // The children are the keys below "<key>/" without a further '/'.
      const std::string prefix = key == "/" ? key : key + "/";
      for (auto it = entries_.upper_bound(key);
           it != entries_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
        if (it->first.find('/', prefix.size()) != std::string::npos) continue;
        records.emplace_back();
        Fill(it->first, it->second, &records.back());
        records.back().parents.push_back(path);  // the directory as the host named it
      }
    }
    // Outside the lock: the host may call us from its callback.
    for (_FS_FILE_V2& record : records)
      list->OnFile(&record);
    return SUCCESS;
  });
}

// --- namespace changes --------------------------------------------------------

AERROR MemoryProtocol::CreateDirectory(const char* parent, _FS_FILE_V2* file, char** msg) {
  if (parent == nullptr || file == nullptr) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    const std::string directory = Key(parent);
    if (!IsPlainName(file->name)) return Fail(INVALID_NAME, msg, "invalid name: " + file->name);
    const std::string key = Join(directory, file->name);
    std::lock_guard<std::mutex> guard(lock_);
    const Entry* up = Find(directory);
    if (up == nullptr || up->type != 2)
      return Fail(FILE_NOT_FOUND, msg, "no such directory: " + directory);
    if (const Entry* existing = Find(key)) {
      // Like mkdir -p: an existing directory is fine, a file is in the way.
      if (existing->type != 2) return Fail(ALREADY_EXISTS, msg, "a file is in the way: " + key);
      Fill(key, *existing, file);
      return SUCCESS;
    }
    Entry entry;
    entry.type = 2;
    entry.create_time = entry.access_time = entry.modify_time = time(nullptr);
    Fill(key, entries_.emplace(key, entry).first->second, file);
    return SUCCESS;
  });
}

AERROR MemoryProtocol::Move(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  if (from == nullptr || to == nullptr || file == nullptr) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    // `to` is the directory that receives the entry, `file->name` its new name.
    const std::string source = Key(from);
    const std::string directory = Key(to);
    if (!IsPlainName(file->name)) return Fail(INVALID_NAME, msg, "invalid name: " + file->name);
    const std::string target = Join(directory, file->name);
    std::lock_guard<std::mutex> guard(lock_);
    const Entry* entry = Find(source);
    if (entry == nullptr || source == "/")
      return Fail(FILE_NOT_FOUND, msg, "cannot move " + source);
    const Entry* destination = Find(directory);
    if (destination == nullptr || destination->type != 2)
      return Fail(FILE_NOT_FOUND, msg, "no such directory: " + directory);
    if (target == source) {
      Fill(target, *entry, file);
      return SUCCESS;
    }
    if (target.compare(0, source.size() + 1, source + "/") == 0)
      return Fail(ACCESS_DENIED, msg, "cannot move a directory into itself: " + target);
    if (const Entry* existing = Find(target)) {
      // A file may replace a file (as rename(2) does); nothing else is replaced.
      if (existing->type != 1 || entry->type != 1)
        return Fail(ALREADY_EXISTS, msg, "target exists: " + target);
      used_ -= existing->content->size();
      entries_.erase(target);
    }
    // Re-key the entry and, for a directory, everything below it.
    const std::string prefix = source + "/";
    std::vector<std::string> keys{source};
    for (auto it = entries_.upper_bound(source);
         it != entries_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
      keys.push_back(it->first);
    for (const std::string& key : keys) {
      auto node = entries_.extract(key);
      node.key() = target + key.substr(source.size());
      entries_.insert(std::move(node));
    }
    Fill(target, entries_.at(target), file);
    return SUCCESS;
  });
}

AERROR MemoryProtocol::Rename(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  return Move(from, to, file, msg);
}

AERROR MemoryProtocol::MoveDir(const char* from, const char* to, _FS_FILE_V2* file, char** msg) {
  return Move(from, to, file, msg);
}

AERROR MemoryProtocol::Delete(_FS_FILE_V2* file, char** msg) {
  if (file == nullptr) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    const std::string key = Key(file->id.c_str());
    std::lock_guard<std::mutex> guard(lock_);
    const Entry* entry = Find(key);
    if (entry == nullptr) return Fail(FILE_NOT_FOUND, msg, "no such entry: " + key);
    if (key == "/") return Fail(ACCESS_DENIED, msg, "the root cannot be deleted");
    // No recursive deletion: the host empties a directory first.
    if (HasChildren(key)) return Fail(DIR_NOT_EMPTY, msg, "directory not empty: " + key);
    if (entry->content) used_ -= entry->content->size();
    entries_.erase(key);
    return SUCCESS;
  });
}

AERROR MemoryProtocol::DeleteDirectory(_FS_FILE_V2* file, char** msg) {
  return Delete(file, msg);
}

AERROR MemoryProtocol::SetFileTime(const char* path, std::string, std::string access_time,
                                   std::string modify_time, _FS_FILE_V2*, char** msg) {
  if (path == nullptr) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    const std::string key = Key(path);
    std::lock_guard<std::mutex> guard(lock_);
    auto it = entries_.find(key);
    if (it == entries_.end()) return Fail(FILE_NOT_FOUND, msg, "no such entry: " + key);
    // An empty text keeps that time; the creation time is not settable.
    if (!access_time.empty()) it->second.access_time = RFC3339ToTM(access_time.c_str());
    if (!modify_time.empty()) it->second.modify_time = RFC3339ToTM(modify_time.c_str());
    return SUCCESS;
  });
}

// --- transfers ----------------------------------------------------------------

AERROR MemoryProtocol::Read(const char* path, long long offset, long long length,
                            std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, char** msg) {
  if (path == nullptr || sink == nullptr || offset < 0 || length < 0) return INVALID_PARAMETER;
  return Guarded(msg, [&] {
    std::shared_ptr<const std::string> content;
    {
      std::lock_guard<std::mutex> guard(lock_);
      const Entry* entry = Find(Key(path));
      if (entry == nullptr || entry->type != 1) return Fail(FILE_NOT_FOUND, msg, "no such file");
      content = entry->content;  // a snapshot: later uploads swap in new content
    }
    if (length == 0) return SUCCESS;
    long long done = 0;
    while (done < length) {
      if (Stopped(handle)) return READ_CANCELED;
      const long long position = offset + done;
      const long long size = static_cast<long long>(content->size());
      // Unlike a stream, we know where the file ends: a short read ends there.
      if (position >= size) return SUCCESS;
      long long n = std::min(std::min(kChunk, length - done), size - position);
      long long out = 0;
      sink->OnFetch(position, content->data() + position, n, &out);
      done += n;
      Progress(handle, length, done);
    }
    return SUCCESS;
  });
}

AERROR MemoryProtocol::Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle,
                              ICacheIO* source, _FS_FILE_V2* file, UPLOAD_FLAG, char** msg) {
  if (parent == nullptr || source == nullptr || file == nullptr || file->size < 0)
    return INVALID_PARAMETER;
  __LOG__A(CurrentLogger(), LOGLEVEL_INFO, "[PROTOCOL  ] Upload %s/%s", parent, file->name.c_str());
  return Guarded(msg, [&] {
    const std::string directory = Key(parent);
    if (!IsPlainName(file->name)) return Fail(INVALID_NAME, msg, "invalid name: " + file->name);
    const std::string key = Join(directory, file->name);
    // Checked before the transfer and again when committing: the tree may
    // change while the bytes come in.
    auto check_target = [&]() -> AERROR {
      const Entry* up = Find(directory);
      if (up == nullptr || up->type != 2)
        return Fail(FILE_NOT_FOUND, msg, "no such directory: " + directory);
      const Entry* existing = Find(key);
      if (existing != nullptr && existing->type != 1)
        return Fail(ACCESS_DENIED, msg, "a directory is in the way: " + key);
      const unsigned long long old_size = existing != nullptr ? existing->content->size() : 0;
      if (used_ - old_size + static_cast<unsigned long long>(file->size) > capacity_)
        return Fail(FAILED, msg, "not enough space for " + key);
      return SUCCESS;
    };
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (AERROR code = check_target(); code != SUCCESS) return code;
    }

    // The bytes go into new content, never into the file others can see:
    // a cancelled or failed upload leaves the old file (or none) untouched.
    const long long total = file->size;
    auto content = std::make_shared<std::string>();
    content->reserve(static_cast<size_t>(total));
    std::vector<char> buffer(kChunk);
    while (static_cast<long long>(content->size()) < total) {
      if (Stopped(handle)) return UPLOAD_CANCELED;
      _FS_CACHE_READ request;
      request.buffer = buffer.data();
      request.offset = static_cast<long long>(content->size());
      request.capacity = kChunk;
      request.handle = handle;
      request.total = total;
      if (source->ReadCache(&request) != 0 || request.length <= 0 || request.length > kChunk)
        return Fail(FAILED, msg,
                    "the upload source failed at byte " + std::to_string(request.offset));
      content->append(buffer.data(), static_cast<size_t>(request.length));
      Progress(handle, total, static_cast<long long>(content->size()));
    }

    std::lock_guard<std::mutex> guard(lock_);
    if (AERROR code = check_target(); code != SUCCESS) return code;
    Entry& entry = entries_[key];
    if (entry.content) used_ -= entry.content->size();
    entry.type = 1;
    entry.content = std::move(content);
    used_ += entry.content->size();
    entry.access_time = entry.modify_time = time(nullptr);
    if (entry.create_time == 0) entry.create_time = entry.modify_time;
    Fill(key, entry, file);
    return SUCCESS;
  });
}
