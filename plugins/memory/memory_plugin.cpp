// The two entry points that name the protocol: they create the object and
// give its type name. The other six, which every variant of this plug-in
// shares, are in memory_exports.cpp. All eight are the plug-in's only exports
// (see memory.map); they have C linkage and none lets an exception escape.
#include <cstring>

#include "plugins/memory/memory_protocol.h"
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

}  // extern "C"
