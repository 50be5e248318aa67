// The base class of every protocol object a plug-in hands to the host: the
// host objects it talks to, its instance id, its authentication state and the
// operations every protocol shares (options, pid, local configuration).
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "protocol/auth_interfaces.h"
#include "protocol/iprotocol.h"

class JsonObject;

class SuperProtocol : public IProtocol_V2 {
 public:
  explicit SuperProtocol(IProtocolManager* manager);
  SuperProtocol();
  virtual ~SuperProtocol();

  SuperProtocol(const SuperProtocol&) = delete;
  SuperProtocol& operator=(const SuperProtocol&) = delete;

  // "speedlimit" (atoll of the value), "access_token"/"refresh_token" (edit the
  // auth document); names are case-insensitive, and every name is accepted.
  // A null name or value is INVALID_PARAMETER and changes nothing.
  AERROR SetOpt(const char* name, const char* value) override;
  std::string GetPID() override;
  // Null is ACCESS_DENIED and keeps the stored pointer.
  AERROR SetLocalConfiguration(ILocalConfiguration* config) override;

  // Token refresh shared by protocols that authenticate against a service.
  std::string SetAuthConfiguration(JsonObject& doc, std::string key);
  AERROR _RefreshAuth();
  AERROR RefreshAuthAccessToken();
  AERROR RefreshAuthAcessRefreshToken();  // "Acess": the historical name is kept

 protected:
  // The local configuration when set, else the manager with all arguments.
  AERROR ReadConfiguration(const char* section, const char* key, char* buffer, int* size);
  AERROR WriteConfiguration(const char* section, const char* key, const char* value, bool flag);

  // Members in their binding order.
  ILocalConfiguration* local_config = nullptr;  // not owned
  IProtocolManager* manager = nullptr;          // not owned
  std::string pid;
  IAuthDocumentHook* auth_hook = nullptr;     // not owned
  std::int64_t reserved = 0;                  // kept for the layout; unused here
  IAuthRefreshProvider* refresher = nullptr;  // not owned
  std::string auth_document;                  // {"results":{"access_token":..,"refresh_token":..}}
  std::mutex refresh_lock;                    // serialises token refreshes
  std::int64_t speed_limit = 0;               // 0: no limit; enforced by derived protocols

 private:
  void SetTokenOption(const char* name, const char* value);
};
