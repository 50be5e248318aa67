// The C++ face of a protocol object over the real localdisk plug-in and the
// counting test plug-in: errors with names and messages, texts from
// buffer-and-length calls, transfers through the adapters.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/plugin.h"
#include "tests/support/files.h"

using plughost::Client;
using plughost::Plugin;
using plughost::ProtocolError;
using ::testing::HasSubstr;

namespace {

int Counter(const char* name) {
  void* library = dlopen(COUNTING_PLUGIN, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
  if (library == nullptr) return -1;
  auto function = reinterpret_cast<int (*)()>(dlsym(library, name));
  int value = function != nullptr ? function() : -1;
  dlclose(library);
  return value;
}

class LocalDiskClient : public ::testing::Test {
 protected:
  void SetUp() override {
    plugin_ = std::make_unique<Plugin>(Plugin::Load(LOCALDISK_PLUGIN));
    client_ = std::make_unique<Client>(*plugin_, plugin_->CreateProtocol(&config_));
    client_->SetOpt("root_path", dir_.path());
  }
  void TearDown() override {
    client_.reset();
    plugin_.reset();
  }

  test_support::TempDir dir_;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<Plugin> plugin_;
  std::unique_ptr<Client> client_;
};

void CountProgress(long long total, long long done, std::uint64_t context, double) {
  auto* seen = reinterpret_cast<std::vector<std::pair<long long, long long>>*>(context);
  seen->emplace_back(done, total);
}

}  // namespace

TEST_F(LocalDiskClient, RootIdIsTheConfiguredDirectory) {
  EXPECT_EQ(client_->RootId(), dir_.path());
}

TEST_F(LocalDiskClient, MissingEntryThrowsWithOperationPathAndName) {
  try {
    client_->Info(dir_ / "docs", {"ls", "docs"});
    FAIL() << "no error";
  } catch (const ProtocolError& error) {
    EXPECT_EQ(error.code(), FILE_NOT_FOUND);
    EXPECT_EQ(error.name(), "AERROR::FILE_NOT_FOUND");
    EXPECT_STREQ(error.what(), "ls docs: no such file or directory (AERROR::FILE_NOT_FOUND)");
  }
}

TEST_F(LocalDiskClient, TryInfoDescribesOrSaysNotFound) {
  test_support::WriteFile(dir_ / "a.txt", "hello");
  _FS_FILE_V2 file;
  ASSERT_EQ(client_->TryInfo(dir_ / "a.txt", &file), SUCCESS);
  EXPECT_EQ(file.name, "a.txt");
  EXPECT_EQ(file.size, 5);
  EXPECT_EQ(client_->TryInfo(dir_ / "missing", &file), FILE_NOT_FOUND);
}

TEST_F(LocalDiskClient, ListsAndDescribes) {
  test_support::WriteFile(dir_ / "a.txt", "hello");
  std::vector<_FS_FILE_V2> files = client_->List(dir_.path(), {"ls", "/"});
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].name, "a.txt");
  EXPECT_EQ(files[0].size, 5);
  _FS_FILE_V2 file = client_->Info(dir_ / "a.txt", {"stat", "a.txt"});
  EXPECT_EQ(file.type, 1);
  EXPECT_EQ(file.id, dir_ / "a.txt");
}

TEST_F(LocalDiskClient, UploadFromAFileCacheAndReadBack) {
  std::string content(1300000, '\0');
  for (size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<char>(i * 7 % 251);
  test_support::TempDir local;
  test_support::WriteFile(local / "source.bin", content);
  plughost::FileCache cache(local / "source.bin");
  ASSERT_EQ(cache.size(), static_cast<long long>(content.size()));

  std::vector<std::pair<long long, long long>> progress;
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->progress = CountProgress;
  handle->progress_context = reinterpret_cast<std::uintptr_t>(&progress);
  _FS_FILE_V2 file;
  file.name = "copy.bin";
  file.size = cache.size();
  std::string message;
  ASSERT_EQ(client_->Upload(dir_.path(), handle, &cache, &file, UPLOAD_FLAG_OVERWRITE, &message),
            SUCCESS);
  EXPECT_EQ(file.size, static_cast<long long>(content.size()));
  EXPECT_EQ(test_support::ReadFile(dir_ / "copy.bin"), content);
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back().first, static_cast<long long>(content.size()));

  std::ostringstream out;
  auto read_handle = std::make_shared<_FS_HANDLE>();
  plughost::StreamFetch sink(out, read_handle);
  ASSERT_EQ(client_->Read(dir_ / "copy.bin", 0, cache.size(), read_handle, &sink, &message),
            SUCCESS);
  EXPECT_EQ(sink.bytes(), cache.size());
  EXPECT_EQ(out.str(), content);
}

TEST_F(LocalDiskClient, ACancelledHandleStopsTheRead) {
  test_support::WriteFile(dir_ / "a.txt", "hello");
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state.store(FS_HANDLE_STOP);
  std::ostringstream out;
  plughost::StreamFetch sink(out);
  EXPECT_EQ(client_->Read(dir_ / "a.txt", 0, 5, handle, &sink, nullptr), READ_CANCELED);
  EXPECT_EQ(out.str(), "");
}

TEST_F(LocalDiskClient, BoundLoggerReceivesTheUploadLine) {
  test_support::TempDir logs;
  std::FILE* out = std::fopen((logs / "log.txt").c_str(), "w+");
  ASSERT_NE(out, nullptr);
  plughost::StderrLog log("test: ", out);
  ASSERT_TRUE(plugin_->BindLogger(&log));
  plughost::CacheAdapter empty([](long long, char*, long long) { return 0LL; });
  _FS_FILE_V2 file;
  file.name = "empty.txt";
  EXPECT_EQ(client_->Upload(dir_.path(), std::make_shared<_FS_HANDLE>(), &empty, &file,
                            UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  plugin_->UnbindLogger();
  std::fclose(out);
  EXPECT_EQ(test_support::ReadFile(logs / "log.txt"),
            "test: [info] [PROTOCOL  ] Upload " + dir_.path() + "/empty.txt\n");
}

TEST_F(LocalDiskClient, UserInfoAndQuota) {
  setenv("USER", "ann", 1);
  std::string user = client_->UserInfo();
  EXPECT_THAT(user, ::testing::EndsWith("/ann"));
  std::optional<plughost::Quota> quota = client_->GetQuota();
  ASSERT_TRUE(quota.has_value());
  EXPECT_GT(quota->total, 0u);
  EXPECT_LE(quota->used, quota->total);
}

TEST(CountingClient, MessagesAreFreedWithFreeMsg) {
  Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
  plughost::MemoryConfiguration config;
  Client client(plugin, plugin.CreateProtocol(&config));
  int out = Counter("CountingMessagesOut");
  int freed = Counter("CountingMessagesFreed");
  try {
    client.Info("/x", {"stat", "x"});
    FAIL() << "no error";
  } catch (const ProtocolError& error) {
    EXPECT_STREQ(error.what(),
                 "stat x: no such file or directory (AERROR::FILE_NOT_FOUND): counting says no");
    EXPECT_EQ(error.message(), "counting says no");
  }
  EXPECT_THROW(client.List("/x", {"ls", "x"}), ProtocolError);
  // The form without an exception frees the message too.
  _FS_FILE_V2 file;
  EXPECT_EQ(client.TryInfo("/x", &file), FILE_NOT_FOUND);
  EXPECT_EQ(Counter("CountingMessagesOut"), out + 3);
  EXPECT_EQ(Counter("CountingMessagesFreed"), freed + 3);
}

TEST(CountingClient, UnterminatedTextsComeBackByLength) {
  Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
  plughost::MemoryConfiguration config;
  Client client(plugin, plugin.CreateProtocol(&config));
  EXPECT_EQ(client.UserInfo(), "box/counter");
  EXPECT_EQ(client.RootId(), "/counted");
  EXPECT_EQ(client.Type(), "counting");
  EXPECT_EQ(client.Pid(), "counting-pid");
  EXPECT_EQ(client.Feature(), 7);
  std::optional<plughost::Quota> quota = client.GetQuota();
  ASSERT_TRUE(quota.has_value());
  EXPECT_EQ(quota->total, 1000u);
  EXPECT_EQ(quota->used, 250u);
}

TEST(CountingClient, ClientReleasesItsObject) {
  Plugin plugin = Plugin::Load(COUNTING_PLUGIN);
  plughost::MemoryConfiguration config;
  int released = Counter("CountingReleased");
  { Client client(plugin, plugin.CreateProtocol(&config)); }
  EXPECT_EQ(Counter("CountingReleased"), released + 1);
}
