// A tool linked with localdisk_support reaches the shared layer without
// mapping liblocaldisk.so, and loads a plug-in built on the same archive.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "json/json_object.h"
#include "protocol/aerror.h"
#include "protocol/plugin.h"
#include "time/rfc3339.h"
#include "util/encoding.h"

namespace {

std::string Maps() {
  std::ifstream in("/proc/self/maps");
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class NullManager : public IProtocolManager {
 public:
  int GetVersion() override { return 1; }
  AERROR WriteConfiguration(const char*, const char*, const char*, bool) override {
    return SUCCESS;
  }
  AERROR ReadConfiguration(const char*, const char*, char*, int*) override { return NOT_SUPPORTED; }
};

TEST(SupportLibrary, UtilitiesWorkWithoutThePlugin) {
  EXPECT_STREQ(GetAERRORA(FILE_NOT_FOUND), "AERROR::FILE_NOT_FOUND");
  EXPECT_NE(ConvertAERROR(FILE_NOT_FOUND), 0);
  EXPECT_STREQ(base64(reinterpret_cast<const unsigned char*>("abc"), 3), "YWJj");
  EXPECT_EQ(TimeToUTCRFC3339(86400), "1970-01-02T00:00:00.000Z");
  JsonObject document("{\"a\":1}");
  EXPECT_EQ(static_cast<int>(document["a"]), 1);
  EXPECT_EQ(Maps().find("liblocaldisk.so"), std::string::npos);
}

TEST(SupportLibrary, SecondPluginDerivesFromSuperProtocol) {
  void* handle = dlopen(SUPPORT_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto get_protocol = reinterpret_cast<GetProtocol_t>(dlsym(handle, "GetProtocol"));
  ASSERT_NE(get_protocol, nullptr);
  // The shared layer is linked in, not exported: the plug-in's interface is
  // only its entry points.
  EXPECT_EQ(dlsym(handle, "GetAERRORA"), nullptr);
  EXPECT_EQ(dlsym(handle, "BindLogger"), nullptr);

  NullManager manager;
  IProtocol_V2* protocol = nullptr;
  ASSERT_TRUE(get_protocol(&manager, &protocol));
  ASSERT_NE(protocol, nullptr);
  char* type = nullptr;
  EXPECT_EQ(protocol->GetType(&type), SUCCESS);
  EXPECT_STREQ(type, "support");
  EXPECT_EQ(protocol->SetOpt("pid", "p1"), SUCCESS);
  EXPECT_EQ(protocol->SetOpt("SpeedLimit", "42"), SUCCESS);  // kept by the base
  EXPECT_EQ(protocol->GetPID(), "p1");
  char buffer[256] = {};
  int length = sizeof buffer;
  ASSERT_EQ(protocol->GetUserInfo(buffer, &length), SUCCESS);
  EXPECT_STREQ(buffer,
               "{\"epoch\":\"1970-01-01T00:00:00.000Z\",\"name\":\"c3VwcG9ydD==\",\"pid\":\"p1\","
               "\"speedlimit\":\"42\"}");
  protocol->Release();
  EXPECT_EQ(Maps().find("liblocaldisk.so"), std::string::npos);
  dlclose(handle);
}

}  // namespace
