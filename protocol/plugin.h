// The entry points a host resolves with dlsym after loading a protocol
// plug-in. All have C linkage and never let an exception escape.
#pragma once

#include "protocol/export.h"
#include "protocol/iprotocol.h"

extern "C" {

// Creates the protocol object. False (and nothing stored) when either argument
// is null or construction fails.
LD_EXPORT bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out);
// Stores a strdup'ed copy of the protocol name; free it with FreeP.
LD_EXPORT void GetSupportProtocol(char** out);
// Frees a text that an export allocated; null is ignored.
LD_EXPORT void FreeP(void* p);
LD_EXPORT int GetAuthType();
LD_EXPORT AERROR GetAuthFields(char* buffer, int* length);
LD_EXPORT AERROR GetOptFields(char* buffer, int* length);
// Binds the process-wide logger; false for null.
LD_EXPORT bool BindLogger(ILog* logger);
LD_EXPORT void UnbindLogger();

}  // extern "C"

// Function pointer types of the entry points, for hosts that use dlsym.
typedef bool (*GetProtocol_t)(IProtocolManager*, IProtocol_V2**);
typedef void (*GetSupportProtocol_t)(char**);
typedef void (*FreeP_t)(void*);
typedef int (*GetAuthType_t)();
typedef AERROR (*GetAuthFields_t)(char*, int*);
typedef AERROR (*GetOptFields_t)(char*, int*);
typedef bool (*BindLogger_t)(ILog*);
typedef void (*UnbindLogger_t)();
