// The process-wide logging slot of the plug-in and the helper every log line
// goes through. The plug-in formats nothing: the host logger does.
#pragma once

#include <atomic>
#include <cstdarg>
#include <mutex>

#include "protocol/host_interfaces.h"

// The host logger bound with BindLogger, null when none is bound. Writes hold
// `ll`; log call sites read it without the lock. The acquire load (a plain
// load on the targets we build for) makes the bound logger's construction
// visible to the logging thread.
extern std::atomic<ILog*> logger;
extern std::mutex ll;

inline ILog* CurrentLogger() {
  return logger.load(std::memory_order_acquire);
}

// Hands `format` and its arguments to the logger's WriteLog. With a null
// logger it does nothing and touches none of the variable arguments.
static inline void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...) {
  if (log == nullptr) return;
  va_list args;
  va_start(args, format);
  log->WriteLog(level, format, args);
  va_end(args);
}
