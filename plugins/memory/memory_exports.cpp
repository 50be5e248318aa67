// The six entry points that do not depend on the protocol class: freeing
// what the plug-in allocated, authentication (none) and the process-wide
// logger. GetProtocol and GetSupportProtocol are in memory_plugin.cpp.
#include <cstdlib>
#include <mutex>

#include "protocol/log.h"
#include "protocol/plugin.h"

extern "C" {

void FreeP(void* p) {
  std::free(p);
}

int GetAuthType() {
  return 0;  // no authentication
}

AERROR GetAuthFields(char*, int*) {
  return NOT_SUPPORTED;
}

AERROR GetOptFields(char*, int*) {
  return NOT_SUPPORTED;
}

// The logger is process-wide and shared with the protocol layer's helpers.
bool BindLogger(ILog* log) {
  if (log == nullptr) return false;
  std::lock_guard<std::mutex> guard(ll);
  logger.store(log, std::memory_order_release);
  return true;
}

void UnbindLogger() {
  std::lock_guard<std::mutex> guard(ll);
  logger.store(nullptr, std::memory_order_release);
}

}  // extern "C"
