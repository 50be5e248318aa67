// A second protocol plug-in built on localdisk_support: it derives from
// SuperProtocol and answers GetUserInfo with a JSON document made by the
// shared layer, so that linking it proves the archive is complete and
// position-independent.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "json/json_object.h"
#include "protocol/plugin.h"
#include "tests/support/null_protocol.h"
#include "time/rfc3339.h"
#include "util/encoding.h"

namespace {

char type_name[] = "support";

class SupportProtocol : public test_support::NullProtocol {
 public:
  using NullProtocol::NullProtocol;

  AERROR GetType(char** type) override {
    if (type == nullptr) return INVALID_PARAMETER;
    *type = type_name;
    return SUCCESS;
  }

  AERROR GetUserInfo(char* buffer, int* length) override {
    if (length == nullptr) return INVALID_PARAMETER;
    std::string text;
    try {
      JsonObject document = JsonObject::GetEmptyObject();
      document["pid"] = GetPID();
      document["epoch"] = TimeToUTCRFC3339(0);
      // The encoder owns its result buffer.
      const char* encoded = base64(reinterpret_cast<const unsigned char*>("support"), 7);
      document["name"] = std::string(encoded != nullptr ? encoded : "");
      document["speedlimit"] = std::to_string(speed_limit);
      text = document.ToText();
    } catch (...) {
      return FAILED;
    }
    const int needed = static_cast<int>(text.size()) + 1;
    const int capacity = *length;
    *length = needed;
    if (buffer == nullptr || capacity < needed) return INSUFFICIENT_BUFFER;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return SUCCESS;
  }

  AERROR SetOpt(const char* key, const char* value) override {
    if (key != nullptr && value != nullptr && std::strcmp(key, "pid") == 0) pid = value;
    return SuperProtocol::SetOpt(key, value);
  }
};

}  // namespace

extern "C" {

bool GetProtocol(IProtocolManager* manager, IProtocol_V2** out) {
  if (manager == nullptr || out == nullptr) return false;
  auto* protocol = new (std::nothrow) SupportProtocol(manager);
  if (protocol == nullptr) return false;
  *out = protocol;
  return true;
}

void GetSupportProtocol(char** out) {
  if (out != nullptr) *out = strdup(type_name);
}

void FreeP(void* p) {
  std::free(p);
}

}  // extern "C"
