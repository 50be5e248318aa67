// A complete set of entry points whose GetProtocol always refuses.
#include <cstdlib>
#include <cstring>

#include "protocol/contract.h"

extern "C" {
bool GetProtocol(IProtocolManager*, IProtocol_V2**) {
  return false;
}
void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = strdup("refusing");
}
void FreeP(void* p) {
  std::free(p);
}
int GetAuthType() {
  return 3;
}
AERROR GetAuthFields(char*, int*) {
  return NOT_SUPPORTED;
}
AERROR GetOptFields(char*, int*) {
  return NOT_SUPPORTED;
}
bool BindLogger(ILog* logger) {
  return logger != nullptr;
}
void UnbindLogger() {}
}
