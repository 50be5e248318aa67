#include "host/core/operations.h"

#include <algorithm>
#include <system_error>

#include "host/core/adapters.h"
#include "host/core/errors.h"
#include "host/core/file_time.h"

namespace plughost {

namespace {

bool Stopped(const _FS_HANDLE& handle) {
  return handle.state.load() >= FS_HANDLE_STOP;
}

}  // namespace

Range ClampRange(long long size, long long offset, std::optional<long long> length) {
  Range range;
  range.offset = std::clamp<long long>(offset, 0, std::max<long long>(size, 0));
  range.length = std::max<long long>(size, 0) - range.offset;
  if (length && *length < range.length) range.length = std::max<long long>(*length, 0);
  return range;
}

void CopyRangeOut(Client& client, const PathMapper& paths, const std::string& relative, Range range,
                  const std::shared_ptr<_FS_HANDLE>& handle, const ChunkSink& sink,
                  const Context& context) {
  if (range.length <= 0) return;
  bool ended_early = false;
  long long delivered = 0;
  FetchAdapter fetch(
      [&](long long, const char* data, long long n) {
        if (n == 0) {
          // The file is shorter than it was: a plug-in that cannot tell where
          // a file ends would keep handing out empty chunks until cancelled.
          ended_early = true;
          handle->state.store(FS_HANDLE_STOP);
          return;
        }
        delivered += n;
        sink(data, n);
      },
      handle);
  std::string message;
  AERROR code =
      client.Read(paths.Protocol(relative), range.offset, range.length, handle, &fetch, &message);
  try {
    fetch.RethrowIfFailed();
  } catch (const std::system_error& error) {
    throw Failure(context, error.what(), error.code().value());
  }
  // A plug-in that knows where a file ends stops there and succeeds.
  if (code == SUCCESS && !Stopped(*handle) && delivered < range.length) ended_early = true;
  if (ended_early) throw Failure(context, "the file ended early");
  if (Stopped(*handle)) throw Cancelled(context);
  client.Check(code, context, message);
}

_FS_FILE_V2 UploadFrom(Client& client, const PathMapper& paths, const std::string& parent,
                       const std::string& name, ICacheIO& source, long long size,
                       const std::shared_ptr<_FS_HANDLE>& handle, UPLOAD_FLAG flag,
                       const Context& context) {
  _FS_FILE_V2 file;
  file.name = name;
  file.size = size;
  std::string message;
  AERROR code = client.Upload(paths.Protocol(parent), handle, &source, &file, flag, &message);
  if (code == UPLOAD_CANCELED || (code != SUCCESS && Stopped(*handle))) throw Cancelled(context);
  client.Check(code, context, message);
  return file;
}

_FS_FILE_V2 MakeDirectory(Client& client, const PathMapper& paths, const std::string& relative,
                          const Context& context) {
  auto [parent, name] = SplitPath(relative);
  _FS_FILE_V2 file = client.CreateDirectory(paths.Protocol(parent), name, context);
  // The plug-in accepts an existing entry of that name, whatever its type.
  if (file.type != 2) throw Failure(context, "a file of that name exists", EEXIST);
  return file;
}

void RemoveEmptyDirectory(Client& client, const PathMapper& paths, const std::string& relative,
                          const Context& context) {
  std::string path = paths.Protocol(relative);
  if (client.Info(path, context).type != 2) throw Failure(context, "not a directory", ENOTDIR);
  bool empty = true;
  client.ForEach(path, context, [&](const _FS_FILE_V2&) { empty = false; });
  if (!empty) throw Failure(context, "directory not empty", ENOTEMPTY);
  client.DeleteDirectory(path, context);
}

void RemoveFile(Client& client, const PathMapper& paths, const std::string& relative,
                const Context& context) {
  std::string path = paths.Protocol(relative);
  if (client.Info(path, context).type == 2) throw Failure(context, "is a directory", EISDIR);
  client.Delete(path, context);
}

_FS_FILE_V2 TouchOrCreate(Client& client, const PathMapper& paths, const std::string& relative,
                          time_t when, const Context& context) {
  std::string path = paths.Protocol(relative);
  try {
    client.Info(path, context);
  } catch (const ProtocolError& error) {
    if (error.code() != FILE_NOT_FOUND || relative.empty()) throw;
    CacheAdapter empty([](long long, char*, long long) { return 0LL; });
    auto [parent, name] = SplitPath(relative);
    UploadFrom(client, paths, parent, name, empty, 0, std::make_shared<_FS_HANDLE>(),
               UPLOAD_FLAG_NONE, context);
  }
  std::string text = FileTimeText(when);
  client.SetFileTime(path, text, text, text, context);
  return client.Info(path, context);
}

}  // namespace plughost
