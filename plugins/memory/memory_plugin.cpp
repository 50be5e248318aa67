// The eight entry points the host looks up by name after loading the
// plug-in. They are all the plug-in exports (see memory.map), they have C
// linkage and none lets an exception escape.
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "plugins/memory/memory_protocol.h"
#include "protocol/log.h"
#include "protocol/plugin.h"

extern "C" {

bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out) {
  if (manager == nullptr || out == nullptr) return false;
  try {
    *out = new MemoryProtocol(manager);
    return true;
  } catch (...) {
    return false;
  }
}

void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = strdup(MemoryProtocol::TypeName());  // freed with FreeP
}

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
