#include "protocol/super_protocol.h"

#include <strings.h>

#include <cstdlib>

SuperProtocol::SuperProtocol(IProtocolManager* manager) : manager(manager) {}

SuperProtocol::SuperProtocol() : SuperProtocol(nullptr) {}

SuperProtocol::~SuperProtocol() = default;

AERROR SuperProtocol::SetOpt(const char* name, const char* value) {
  if (name == nullptr || value == nullptr) return INVALID_PARAMETER;
  if (strcasecmp(name, "access_token") == 0 || strcasecmp(name, "refresh_token") == 0) {
    SetTokenOption(name, value);
  } else if (strcasecmp(name, "speedlimit") == 0) {
    speed_limit = std::atoll(value);
  }
  return SUCCESS;
}

std::string SuperProtocol::GetPID() {
  return pid;
}

AERROR SuperProtocol::SetLocalConfiguration(ILocalConfiguration* config) {
  if (config == nullptr) return ACCESS_DENIED;
  local_config = config;
  return SUCCESS;
}

AERROR SuperProtocol::ReadConfiguration(const char* section, const char* key, char* buffer,
                                        int* size) {
  if (local_config != nullptr) return local_config->ReadConfiguration(key, buffer, size);
  return manager->ReadConfiguration(section, key, buffer, size);
}

AERROR SuperProtocol::WriteConfiguration(const char* section, const char* key, const char* value,
                                         bool flag) {
  if (local_config != nullptr) return local_config->WriteConfiguration(key, value);
  return manager->WriteConfiguration(section, key, value, flag);
}
