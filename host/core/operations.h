// The operations both front ends build on, over the one client. Paths are
// relative to the storage root (PathMapper). Failures are thrown as
// ProtocolError (the plug-in's result), Failure (found by the host; carries
// an errno for a file system) or Cancelled (the handle was stopped).
#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/core/client.h"
#include "host/core/paths.h"

namespace plughost {

// A part of a file: `length` bytes from `offset`.
struct Range {
  long long offset = 0;
  long long length = 0;
};

// The part of a file of `size` bytes that reading `length` bytes (to the
// end when absent) from `offset` covers: never past the end, so that the
// plug-in is never asked for bytes it does not have (it would wait for a
// cancel there).
Range ClampRange(long long size, long long offset, std::optional<long long> length);

// Receives the chunks of a read in order. A std::system_error it throws
// becomes a Failure naming the operation; other exceptions pass unchanged.
using ChunkSink = std::function<void(const char* data, long long length)>;

// Reads `range` of the file `relative` into `sink`. The plug-in's progress
// and cancellation go through `handle` (the caller may publish it to a
// signal handler). A file that turns out shorter than the range (an empty
// chunk, or a read that succeeds with fewer bytes than asked) stops the
// transfer and fails with "the file ended early".
void CopyRangeOut(Client& client, const PathMapper& paths, const std::string& relative, Range range,
                  const std::shared_ptr<_FS_HANDLE>& handle, const ChunkSink& sink,
                  const Context& context);

// Uploads `size` bytes of `source` as the file `name` in the directory
// `parent` and returns the new record. UPLOAD_CANCELED, or any failure after
// the handle was stopped, is thrown as Cancelled.
_FS_FILE_V2 UploadFrom(Client& client, const PathMapper& paths, const std::string& parent,
                       const std::string& name, ICacheIO& source, long long size,
                       const std::shared_ptr<_FS_HANDLE>& handle, UPLOAD_FLAG flag,
                       const Context& context);

// Creates the directory `relative` (its parent must exist); an existing
// directory is accepted, an existing file is a Failure (EEXIST).
_FS_FILE_V2 MakeDirectory(Client& client, const PathMapper& paths, const std::string& relative,
                          const Context& context);

// Removes the directory `relative` when it is empty: Failure ENOTDIR for a
// file, ENOTEMPTY when it has entries.
void RemoveEmptyDirectory(Client& client, const PathMapper& paths, const std::string& relative,
                          const Context& context);

// Removes the file `relative`: Failure EISDIR for a directory.
void RemoveFile(Client& client, const PathMapper& paths, const std::string& relative,
                const Context& context);

// Sets the access and modification times of `relative` to `when`, creating
// a missing file empty first (as touch(1) does). Returns the entry's record.
_FS_FILE_V2 TouchOrCreate(Client& client, const PathMapper& paths, const std::string& relative,
                          time_t when, const Context& context);

}  // namespace plughost
