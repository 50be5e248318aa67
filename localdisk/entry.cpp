// The plug-in's exported entry points. None lets an exception escape.
#include <cstdlib>
#include <cstring>
#include <new>

#include "localdisk/local_disk.h"
#include "protocol/log.h"
#include "protocol/plugin.h"

extern "C" {

bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out) {
  if (manager == nullptr || out == nullptr) return false;
  try {
    // A throwing constructor frees the allocation on its own.
    *out = new LocalDisk(manager);
    return true;
  } catch (...) {
    return false;
  }
}

void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = strdup("localdisk");
}

void FreeP(void* p) {
  std::free(p);
}

int GetAuthType() {
  return LocalDisk::GetAuthType();
}

AERROR GetAuthFields(char* buffer, int* length) {
  return LocalDisk::GetAuthFields(buffer, length);
}

AERROR GetOptFields(char*, int*) {
  return NOT_SUPPORTED;
}

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
