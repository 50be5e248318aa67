// Reading and uploading, in chunks of one 512 KiB buffer per call.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "localdisk/local_disk.h"
#include "protocol/log.h"

namespace {

constexpr long long kChunk = 524288;

// Flushes and closes the stream however the transfer ends.
struct StreamCloser {
  void operator()(FILE* stream) const {
    std::fflush(stream);
    std::fclose(stream);
  }
};
using Stream = std::unique_ptr<FILE, StreamCloser>;
using Buffer = std::unique_ptr<char, void (*)(void*)>;

// The host writes `state` from its own thread while we poll it between chunks.
bool Stopped(const std::shared_ptr<_FS_HANDLE>& handle) {
  return handle && handle->state.load(std::memory_order_relaxed) >= FS_HANDLE_STOP;
}

void Progress(const std::shared_ptr<_FS_HANDLE>& handle, long long total, long long done) {
  if (handle && handle->progress != nullptr)
    handle->progress(total, done, handle->progress_context, 0.0);
}

}  // namespace

AERROR LocalDisk::Read(const char* path, long long offset, long long length,
                       std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* sink, char**) {
  if (path == nullptr || sink == nullptr) return INVALID_PARAMETER;
  Stream stream(std::fopen(GetPath(path).c_str(), "r"));
  if (!stream) return FILE_NOT_FOUND;
  if (fseeko(stream.get(), static_cast<off_t>(offset), SEEK_SET) != 0) return ACCESS_DENIED;
  Buffer buffer(static_cast<char*>(std::malloc(kChunk)), std::free);
  if (!buffer) return FAILED;
  if (length == 0) return SUCCESS;
  if (Stopped(handle)) return READ_CANCELED;

  long long position = offset;
  long long done = 0;
  long long remaining = length;
  for (;;) {
    long long want = remaining < kChunk + 1 ? remaining : kChunk;
    if (want < 0) want = 0;  // a negative length must not reach fread as a huge count
    const size_t got = std::fread(buffer.get(), 1, static_cast<size_t>(want), stream.get());
    if (got == 0 && std::ferror(stream.get())) return FILE_READ_FAILED;
    const long long n = static_cast<long long>(got);
    long long out = 0;
    sink->OnFetch(position, buffer.get(), n, &out);
    done += n;
    Progress(handle, length, done);
    remaining -= n;
    // No cancel check after the last chunk. A short file is not detected:
    // zero-byte chunks go on until the host stops the transfer.
    if (remaining == 0) return SUCCESS;
    position += n;
    if (Stopped(handle)) return READ_CANCELED;
  }
}

AERROR LocalDisk::Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                         _FS_FILE_V2* file, UPLOAD_FLAG, char** msg) {
  if (parent == nullptr || file == nullptr || source == nullptr) return INVALID_PARAMETER;
  __LOG__A(CurrentLogger(), LOGLEVEL_INFO, "[PROTOCOL  ] Upload %s/%s", parent, file->name.c_str());
  const std::string target = GetPath(parent) + "/" + file->name;
  Stream stream(std::fopen(target.c_str(), "w+"));
  if (!stream) return FILE_NOT_FOUND;
  // Each chunk goes to the file in one write: a stream buffer would split
  // every chunk after the first into a copied 4 KiB piece and the rest.
  std::setvbuf(stream.get(), nullptr, _IONBF, 0);
  if (fseeko(stream.get(), 0, SEEK_SET) != 0) return FILE_WRITE_FAILED;
  Buffer buffer(static_cast<char*>(std::malloc(kChunk)), std::free);

  const long long total = file->size;
  long long written = 0;
  bool failed = !buffer;
  while (!failed && written < total) {
    // A cancelled upload keeps what it has written so far.
    if (Stopped(handle)) return UPLOAD_CANCELED;
    _FS_CACHE_READ request;
    request.buffer = buffer.get();
    request.offset = written;
    request.capacity = kChunk;
    request.length = 0;
    request.handle = handle;  // held for the request, dropped after the chunk
    request.total = total;
    if (source->ReadCache(&request) != SUCCESS) {
      failed = true;
      break;
    }
    // Whatever the cache claims, only the buffer's own bytes can be written.
    long long delivered = request.length;
    if (delivered < 0) delivered = 0;
    if (delivered > kChunk) delivered = kChunk;
    const size_t n = std::fwrite(buffer.get(), 1, static_cast<size_t>(delivered), stream.get());
    if (n == 0 && std::ferror(stream.get())) {
      failed = true;
      break;
    }
    written += static_cast<long long>(n);
    Progress(handle, total, written);
  }
  buffer.reset();
  // Some file systems report a write error only when the file is flushed or
  // closed: that is the same failure as a failing fwrite, and the host must
  // never be told that a truncated file was uploaded.
  FILE* const raw = stream.release();
  const bool flushed = std::fflush(raw) == 0;
  const bool closed = std::fclose(raw) == 0;
  if (failed || !flushed || !closed) {
    std::remove(target.c_str());
    return FAILED;
  }
  // The identifier is built from the parent as passed, not from the mapping.
  file->id = JoinPath(parent, file->name);
  return GetFileInfo(file->id.c_str(), file, msg);
}
