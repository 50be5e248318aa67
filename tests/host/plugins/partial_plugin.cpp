// A library that exports every entry point but UnbindLogger.
#include "protocol/contract.h"

extern "C" {
bool GetProtocol(IProtocolManager*, IProtocol_V2**) {
  return false;
}
void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = nullptr;
}
void FreeP(void*) {}
int GetAuthType() {
  return 0;
}
AERROR GetAuthFields(char*, int*) {
  return NOT_SUPPORTED;
}
AERROR GetOptFields(char*, int*) {
  return NOT_SUPPORTED;
}
bool BindLogger(ILog*) {
  return false;
}
}
