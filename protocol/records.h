// Records exchanged between the host and a protocol plug-in. The host is built
// against these declarations: field order and types are part of the contract.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "protocol/export.h"

// A file or directory as both sides see it. Plain value type: whoever calls an
// operation creates, zeroes and owns the record; the plug-in only assigns fields.
struct _FS_FILE_V1 {
  std::string id;           // the entry's protocol path (parent joined with name)
  std::int32_t type = 0;    // 1 file, 2 directory, 0 not filled
  std::int64_t size = 0;    // bytes, as the file system reports them
  std::string create_time;  // RFC 3339 text (status-change time for local disks)
  std::string access_time;  // RFC 3339 text, last access
  std::string modify_time;  // RFC 3339 text, last modification
  std::string name;         // last path component; the wanted name for create/move/upload
  std::string aux_text;     // reserved for protocols; unused by localdisk
};

struct _FS_FILE_V2 : _FS_FILE_V1 {
  std::deque<std::string> parents;  // directories holding the entry (listing sets one)
  std::string aux_text_v2;          // reserved like aux_text
};

// Progress callback of a transfer: (total bytes expected, bytes done so far,
// the handle's progress_context, rate). localdisk always passes a rate of 0.0.
typedef void (*FS_PROGRESS_CALLBACK)(long long total, long long done, std::uint64_t context,
                                     double rate);

// Transfer handle, owned by the host and shared with a running Read/Upload.
// The host writes `state` from another thread while the plug-in polls it
// between chunks, hence the atomic (same size and alignment as int32_t).
struct _FS_HANDLE {
  std::int32_t reserved0 = 0;               // host's own; not used by the plug-in
  std::atomic<std::int32_t> state{0};       // 3 or more: stop the transfer
  std::int64_t reserved1 = 0;               // host's own; not used by the plug-in
  FS_PROGRESS_CALLBACK progress = nullptr;  // may be null
  std::uint64_t progress_context = 0;       // handed back to progress unchanged
};

// State values at or above this stop a running transfer.
inline constexpr std::int32_t FS_HANDLE_STOP = 3;

// One request of Upload to the host cache (ICacheIO::ReadCache).
struct _FS_CACHE_READ {
  char* buffer = nullptr;              // the plug-in's transfer buffer
  long long offset = 0;                // file position the host delivers from
  long long capacity = 0;              // bytes wanted: the buffer's size
  long long length = 0;                // set by the host: bytes placed in buffer
  std::shared_ptr<_FS_HANDLE> handle;  // the upload's handle, held for the request
  long long total = 0;                 // total size of the upload
  long long reserved[3] = {0, 0, 0};   // zero
};

// Passed by value to Upload; localdisk tests none of its values.
enum UPLOAD_FLAG : std::int32_t {
  UPLOAD_FLAG_NONE = 0,
  UPLOAD_FLAG_OVERWRITE = 1,
  UPLOAD_FLAG_RESUME = 2,
};

// Levels of the host logger. The protocol layer logs token refresh at 1 and
// uploads at 2.
enum LOGLEVEL : std::int32_t {
  LOGLEVEL_ERROR = 0,
  LOGLEVEL_WARNING = 1,
  LOGLEVEL_INFO = 2,
  LOGLEVEL_DEBUG = 3,
};

// What a host relies on: an accidental change here must break the build.
static_assert(sizeof(UPLOAD_FLAG) == 4 && sizeof(LOGLEVEL) == 4, "enumerations are 32-bit");
static_assert(LOGLEVEL_WARNING == 1 && LOGLEVEL_INFO == 2, "levels used by the protocol layer");
static_assert(sizeof(std::atomic<std::int32_t>) == 4 && alignof(std::atomic<std::int32_t>) == 4,
              "state must be observable by a plain 32-bit load");
static_assert(offsetof(_FS_HANDLE, reserved0) == 0);
static_assert(offsetof(_FS_HANDLE, state) == 4);
static_assert(offsetof(_FS_HANDLE, reserved1) == 8);
static_assert(offsetof(_FS_HANDLE, progress) == 16);
static_assert(offsetof(_FS_HANDLE, progress_context) == 24);
static_assert(sizeof(_FS_HANDLE) == 32);
static_assert(offsetof(_FS_CACHE_READ, buffer) == 0);
static_assert(offsetof(_FS_CACHE_READ, offset) == 8);
static_assert(offsetof(_FS_CACHE_READ, capacity) == 16);
static_assert(offsetof(_FS_CACHE_READ, length) == 24);
static_assert(offsetof(_FS_CACHE_READ, handle) == 32);
static_assert(offsetof(_FS_CACHE_READ, total) == 48);
static_assert(offsetof(_FS_CACHE_READ, reserved) == 56);
static_assert(sizeof(_FS_CACHE_READ) == 80);
