// Authentication document and token refresh. (Being completed: token options
// and refresh are not wired yet.)
#include "protocol/super_protocol.h"

void SuperProtocol::SetTokenOption(const char*, const char*) {}

std::string SuperProtocol::SetAuthConfiguration(JsonObject&, std::string) { return {}; }

AERROR SuperProtocol::_RefreshAuth() { return FAILED; }

AERROR SuperProtocol::RefreshAuthAccessToken() { return FAILED; }

AERROR SuperProtocol::RefreshAuthAcessRefreshToken() { return FAILED; }
