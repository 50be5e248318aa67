// Memory plug-ins that each break one promise of the contract, chosen by a
// compile definition (FAULT_...). The conformance suite must catch every one.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "plugins/memory/memory_protocol.h"
#include "protocol/log.h"
#include "protocol/plugin.h"

namespace {

// Forwards to the host's handle; the faults below put it between.
[[maybe_unused]] std::shared_ptr<_FS_HANDLE> CopyHandle(const std::shared_ptr<_FS_HANDLE>& handle,
                                                        FS_PROGRESS_CALLBACK progress,
                                                        bool copy_state) {
  auto copy = std::make_shared<_FS_HANDLE>();
  if (!handle) return copy;
  if (copy_state) copy->state.store(handle->state.load());
  copy->progress = progress != nullptr ? progress : handle->progress;
  copy->progress_context =
      progress != nullptr ? static_cast<std::uint64_t>(reinterpret_cast<uintptr_t>(handle.get()))
                          : handle->progress_context;
  return copy;
}

// Passes every progress report on but the one that reaches the total.
[[maybe_unused]] void ShortProgress(long long total, long long done, std::uint64_t context,
                                    double rate) {
  auto* host = reinterpret_cast<_FS_HANDLE*>(static_cast<uintptr_t>(context));
  if (done < total && host->progress != nullptr)
    host->progress(total, done, host->progress_context, rate);
}

class Broken final : public MemoryProtocol {
 public:
  using MemoryProtocol::MemoryProtocol;

#if defined(FAULT_DROP_ENTRY)
  // A listing that loses its second entry.
  AERROR GetFileList(const char* path, IFileList* list, char** msg) override {
    struct Dropping final : IFileList {
      IFileList* inner = nullptr;
      int seen = 0;
      AERROR OnFile(_FS_FILE_V2* file) override {
        return ++seen == 2 ? SUCCESS : inner->OnFile(file);
      }
    } dropping;
    dropping.inner = list;
    return MemoryProtocol::GetFileList(path, &dropping, msg);
  }
#elif defined(FAULT_CORRUPT_READ)
  // A read that flips one bit of the byte at position 1000.
  AERROR Read(const char* path, long long offset, long long length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, char** msg) override {
    struct Corrupting final : IFetchCallback {
      IFetchCallback* inner = nullptr;
      AERROR OnFetch(long long offset, const char* data, long long length,
                     long long* out) override {
        if (offset > 1000 || offset + length <= 1000)
          return inner->OnFetch(offset, data, length, out);
        std::string copy(data, static_cast<size_t>(length));
        copy[static_cast<size_t>(1000 - offset)] ^= 0x01;
        return inner->OnFetch(offset, copy.data(), length, out);
      }
    } corrupting;
    corrupting.inner = sink;
    return MemoryProtocol::Read(path, offset, length, std::move(handle), &corrupting, msg);
  }
#elif defined(FAULT_MOVE_NOOP)
  // A move that reports success and does nothing.
  AERROR Move(const char* from, const char*, _FS_FILE_V2* file, char** msg) override {
    return GetFileInfo(from, file, msg);
  }
#elif defined(FAULT_ROOTID_OVERFLOW)
  // GetRootID terminates the text even when the capacity has no room for it.
  AERROR GetRootID(char* buffer, int* length) override {
    AERROR code = MemoryProtocol::GetRootID(buffer, length);
    if (code == SUCCESS) buffer[*length] = '\0';
    return code;
  }
#elif defined(FAULT_PROGRESS_SHORT) || defined(FAULT_IGNORE_CANCEL)
  // Transfers run on a copy of the host's handle: with FAULT_PROGRESS_SHORT
  // progress never reaches the total; with FAULT_IGNORE_CANCEL nobody stops it.
  static std::shared_ptr<_FS_HANDLE> Faulty(const std::shared_ptr<_FS_HANDLE>& handle) {
#if defined(FAULT_PROGRESS_SHORT)
    return CopyHandle(handle, ShortProgress, true);
#else
    return CopyHandle(handle, nullptr, false);
#endif
  }
  AERROR Read(const char* path, long long offset, long long length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, char** msg) override {
    return MemoryProtocol::Read(path, offset, length, Faulty(handle), sink, msg);
  }
  AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                _FS_FILE_V2* file, UPLOAD_FLAG flag, char** msg) override {
    return MemoryProtocol::Upload(parent, Faulty(handle), source, file, flag, msg);
  }
#elif defined(FAULT_FAILED_UPLOAD_LEAVES_FILE)
  // A failed upload leaves an empty file behind.
  AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                _FS_FILE_V2* file, UPLOAD_FLAG flag, char** msg) override {
    AERROR code = MemoryProtocol::Upload(parent, handle, source, file, flag, msg);
    if (code != SUCCESS && code != UPLOAD_CANCELED) {
      _FS_FILE_V2 empty;
      empty.name = file->name;
      MemoryProtocol::Upload(parent, nullptr, source, &empty, flag, nullptr);
    }
    return code;
  }
#elif defined(FAULT_INFO_TOUCHES_RECORD)
  // GetFileInfo of a missing path clears the caller's record.
  AERROR GetFileInfo(const char* path, _FS_FILE_V2* file, char** msg) override {
    AERROR code = MemoryProtocol::GetFileInfo(path, file, msg);
    if (code != SUCCESS) *file = _FS_FILE_V2();
    return code;
  }
#elif defined(FAULT_SETTIME_IGNORED)
  // SetFileTime reports success and keeps the old times.
  AERROR SetFileTime(const char* path, std::string, std::string, std::string, _FS_FILE_V2*,
                     char** msg) override {
    _FS_FILE_V2 file;
    return GetFileInfo(path, &file, msg);
  }
#elif defined(FAULT_DELETE_PARTIAL)
  // DeleteDirectory of a non-empty directory deletes one file, then refuses.
  AERROR DeleteDirectory(_FS_FILE_V2* file, char** msg) override {
    struct First final : IFileList {
      std::string id;
      AERROR OnFile(_FS_FILE_V2* entry) override {
        if (id.empty() && entry->type == 1) id = entry->id;
        return SUCCESS;
      }
    } first;
    GetFileList(file->id.c_str(), &first, nullptr);
    if (!first.id.empty()) {
      _FS_FILE_V2 victim;
      victim.id = first.id;
      Delete(&victim, nullptr);
    }
    return MemoryProtocol::DeleteDirectory(file, msg);
  }
#else
#error "define one FAULT_..."
#endif
};

}  // namespace

extern "C" {

bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out) {
  if (manager == nullptr || out == nullptr) return false;
  try {
    *out = new Broken(manager);
    return true;
  } catch (...) {
    return false;
  }
}

void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = strdup(MemoryProtocol::TypeName());
}

}  // extern "C"
