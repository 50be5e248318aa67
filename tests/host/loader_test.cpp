// Loading plug-ins by path: clear errors for a missing file, a library that
// is not a plug-in and a plug-in that refuses; Release exactly once.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "host/core/adapters.h"
#include "host/core/plugin.h"
#include "tests/support/files.h"

using plughost::LoadError;
using plughost::Plugin;
using plughost::ProtocolHandle;
using ::testing::HasSubstr;

namespace {

// A counter exported by the counting test plug-in.
int Counter(const char* name) {
  void* library = dlopen(COUNTING_PLUGIN, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
  if (library == nullptr) return -1;
  auto function = reinterpret_cast<int (*)()>(dlsym(library, name));
  int value = function != nullptr ? function() : -1;
  dlclose(library);
  return value;
}

std::string LoadMessage(const std::string& path) {
  try {
    Plugin::Load(path);
  } catch (const LoadError& error) {
    return error.what();
  }
  return "loaded";
}

}  // namespace

TEST(Loader, MissingFileNamesThePathAndTheLoaderReason) {
  test_support::TempDir dir;
  std::string path = dir / "nothing-here.so";
  std::string message = LoadMessage(path);
  EXPECT_THAT(message, HasSubstr("cannot load plug-in " + path));
  EXPECT_THAT(message, HasSubstr("No such file or directory"));
}

TEST(Loader, FileThatIsNotALibrary) {
  test_support::TempDir dir;
  test_support::WriteFile(dir / "text.so", "just text\n");
  EXPECT_THAT(LoadMessage(dir / "text.so"), HasSubstr("cannot load plug-in " + (dir / "text.so")));
}

TEST(Loader, LibraryWithoutEntryPoints) {
  std::string message = LoadMessage(NOENTRY_PLUGIN);
  EXPECT_THAT(message, HasSubstr(std::string(NOENTRY_PLUGIN) + " is not a protocol plug-in"));
  EXPECT_THAT(message, HasSubstr("entry point GetProtocol not found"));
  EXPECT_THAT(message, HasSubstr("undefined symbol"));
}

TEST(Loader, LibraryMissingOneEntryPointNamesIt) {
  EXPECT_THAT(LoadMessage(PARTIAL_PLUGIN), HasSubstr("entry point UnbindLogger not found"));
}

TEST(Loader, PluginWhoseGetProtocolRefuses) {
  Plugin plugin = Plugin::Load(REFUSING_PLUGIN);
  EXPECT_EQ(plugin.SupportProtocol(), "refusing");
  EXPECT_EQ(plugin.AuthType(), 3);
  plughost::MemoryConfiguration config;
  try {
    plugin.CreateProtocol(&config);
    FAIL() << "CreateProtocol succeeded";
  } catch (const LoadError& error) {
    EXPECT_THAT(error.what(), HasSubstr(std::string("plug-in ") + REFUSING_PLUGIN +
                                        " refused to create a protocol object"));
    EXPECT_THAT(error.what(), HasSubstr("GetProtocol returned false"));
  }
}

TEST(Loader, ResolvesTheRealPlugin) {
  Plugin plugin = Plugin::Load(LOCALDISK_PLUGIN);
  EXPECT_EQ(plugin.path(), LOCALDISK_PLUGIN);
  EXPECT_EQ(plugin.SupportProtocol(), "localdisk");
  EXPECT_EQ(plugin.AuthType(), 0);
  EXPECT_EQ(plugin.OptFields(nullptr, nullptr), NOT_SUPPORTED);
  // Names come from the plug-in's own GetAERRORA.
  EXPECT_EQ(plugin.ErrorName(FILE_NOT_FOUND), "AERROR::FILE_NOT_FOUND");
  EXPECT_EQ(plugin.ErrorName(SOCK_TIMEOUT), "AERROR::SOCK_TIMEOUT");
  EXPECT_EQ(plugin.ErrorName(static_cast<AERROR>(42)), "AERROR(42)");
  plughost::MemoryConfiguration config;
  ProtocolHandle protocol = plugin.CreateProtocol(&config);
  ASSERT_TRUE(protocol);
  char* type = nullptr;
  EXPECT_EQ(protocol->GetType(&type), SUCCESS);
  EXPECT_STREQ(type, "localdisk");
  EXPECT_EQ(protocol->GetFeature(), 0x40);
}

TEST(Loader, FallbackErrorNamesWithoutGetAERRORA) {
  Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
  EXPECT_EQ(plugin.ErrorName(FILE_NOT_FOUND), "AERROR::FILE_NOT_FOUND");
  EXPECT_EQ(plugin.ErrorName(ACCESS_DENIED), "AERROR::ACCESS_DENIED");
  EXPECT_EQ(plugin.ErrorName(SOCK_TIMEOUT), "AERROR(8006)");
}

TEST(ProtocolHandle, ReleasesExactlyOnce) {
  Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
  plughost::MemoryConfiguration config;
  int released = Counter("CountingReleased");
  {
    ProtocolHandle first = plugin.CreateProtocol(&config);
    ProtocolHandle second = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_TRUE(second);
    ProtocolHandle third;
    third = std::move(second);
    EXPECT_EQ(Counter("CountingReleased"), released);
  }
  EXPECT_EQ(Counter("CountingReleased"), released + 1);

  ProtocolHandle handle = plugin.CreateProtocol(&config);
  handle.reset();
  handle.reset();
  EXPECT_FALSE(handle);
  EXPECT_EQ(Counter("CountingReleased"), released + 2);

  // Move-assigning over a live handle releases the object it held.
  ProtocolHandle a = plugin.CreateProtocol(&config);
  ProtocolHandle b = plugin.CreateProtocol(&config);
  a = std::move(b);
  EXPECT_EQ(Counter("CountingReleased"), released + 3);
  a.reset();
  EXPECT_EQ(Counter("CountingReleased"), released + 4);
}

TEST(ProtocolHandle, ReleaseGivesUpOwnership) {
  Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
  plughost::MemoryConfiguration config;
  int released = Counter("CountingReleased");
  ProtocolHandle handle = plugin.CreateProtocol(&config);
  IProtocol_V2* raw = handle.release();
  ASSERT_NE(raw, nullptr);
  handle.reset();
  EXPECT_EQ(Counter("CountingReleased"), released);
  raw->Release();
  EXPECT_EQ(Counter("CountingReleased"), released + 1);
}

TEST(ProtocolHandle, KeepsTheLibraryLoadedAfterThePluginIsGone) {
  plughost::MemoryConfiguration config;
  ProtocolHandle handle;
  {
    Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
    handle = plugin.CreateProtocol(&config);
  }
  EXPECT_EQ(handle->GetFeature(), 7);
  handle.reset();
}

TEST(Plugin, MovedFromPluginDoesNotUnbindTheLogger) {
  Plugin first = Plugin::Load(REFUSING_PLUGIN);
  plughost::StderrLog log;
  EXPECT_TRUE(first.BindLogger(&log));
  Plugin second = std::move(first);
  EXPECT_EQ(second.SupportProtocol(), "refusing");
}
