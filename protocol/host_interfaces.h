// Interfaces of the host that a protocol plug-in calls back. Each is an
// abstract class implemented by the host; the place of a slot in its class
// (counted from 0) is binding, so slots are declared in that order. The
// plug-in never owns these objects and never deletes them.
#pragma once

#include <cstdarg>

#include "protocol/aerror.h"
#include "protocol/records.h"

// The host's protocol manager, handed to GetProtocol.
class IProtocolManager {
 public:
  // Slot 0: the host's own; the plug-in never calls it.
  virtual int GetVersion() = 0;
  // Slot 1: stores `value` under `section`/`key` in the host's configuration.
  virtual AERROR WriteConfiguration(const char* section, const char* key, const char* value,
                                    bool flag) = 0;
  // Slot 2: copies a stored value into `buffer`; `*length` is the capacity on
  // entry and receives the value's length.
  virtual AERROR ReadConfiguration(const char* section, const char* key, char* buffer,
                                   int* length) = 0;

 protected:
  ~IProtocolManager() = default;
};

// A per-instance configuration store (SetLocalConfiguration). No sections.
class ILocalConfiguration {
 public:
  virtual AERROR WriteConfiguration(const char* key, const char* value) = 0;         // slot 0
  virtual AERROR ReadConfiguration(const char* key, char* buffer, int* length) = 0;  // slot 1

 protected:
  ~ILocalConfiguration() = default;
};

// Receives the entries of a listing, one call per entry. The record belongs to
// the plug-in and dies when the call returns: copy what you keep.
class IFileList {
 public:
  virtual AERROR OnFile(_FS_FILE_V2* file) = 0;  // slot 0; the result is ignored

 protected:
  ~IFileList() = default;
};

// Receives the chunks of a Read. `data` is valid only during the call; `*out`
// is set to 0 before the call and ignored afterwards, as is the result.
class IFetchCallback {
 public:
  virtual AERROR OnFetch(long long offset, const char* data, long long length,
                         long long* out) = 0;  // slot 0

 protected:
  ~IFetchCallback() = default;
};

// The host cache that supplies the content of an Upload. Fills request->buffer
// with up to request->capacity bytes from request->offset and sets
// request->length; any result other than SUCCESS (0) aborts the upload.
class ICacheIO {
 public:
  virtual AERROR ReadCache(_FS_CACHE_READ* request) = 0;  // slot 0

 protected:
  ~ICacheIO() = default;
};

// The host logger bound with BindLogger. The plug-in formats nothing: it hands
// the format and its arguments to WriteLog.
class ILog {
 public:
  virtual void Write(LOGLEVEL level, const char* text) = 0;               // slot 0, not called
  virtual void WriteFormat(LOGLEVEL level, const char* format, ...) = 0;  // slot 1, not called
  virtual void WriteLog(LOGLEVEL level, const char* format, va_list args) = 0;  // slot 2

 protected:
  ~ILog() = default;
};

// Change notifications (GetChanges, SetChangesCallback). localdisk never calls it.
class IFileChanges {
 public:
  virtual AERROR OnChange(_FS_FILE_V2* file, int action) = 0;

 protected:
  ~IFileChanges() = default;
};

// Interactive authentication for Connect. localdisk never calls it.
class IProtocolAuth {
 public:
  virtual AERROR Authenticate(const char* request, char* response, int* length) = 0;

 protected:
  ~IProtocolAuth() = default;
};
