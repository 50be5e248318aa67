// The memory plug-in's own promises beyond the shared contract: a transfer
// that fails, is cancelled or races another leaves the old content or the
// complete new one; the capacity is kept; callbacks may call back in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/plugin.h"

namespace {

using plughost::CacheAdapter;
using plughost::CollectingFileList;
using plughost::FetchAdapter;

constexpr long long kChunk = 524288;

std::string Bytes(long long size, char seed) {
  std::string data(static_cast<size_t>(size), '\0');
  for (size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>(seed + i * 7 + i / 251);
  return data;
}

class MemoryPlugin : public testing::Test {
 protected:
  void SetUp() override {
    plugin_.emplace(plughost::Plugin::Load(MEMORY_PLUGIN));
    protocol_ = plugin_->CreateProtocol(&config_);
    ASSERT_TRUE(protocol_);
  }

  // Uploads `content` as /name; `fail_at`/`cancel_at` pick a request.
  AERROR Put(const std::string& name, const std::string& content, int fail_at = -1,
             int cancel_at = -1) {
    auto handle = std::make_shared<_FS_HANDLE>();
    int request = 0;
    CacheAdapter source([&](long long offset, char* buffer, long long capacity) -> long long {
      const int index = request++;
      if (index == fail_at) return -1;
      if (index == cancel_at) handle->state.store(FS_HANDLE_STOP);
      long long n = std::min<long long>(capacity, static_cast<long long>(content.size()) - offset);
      std::memcpy(buffer, content.data() + offset, static_cast<size_t>(n));
      return n;
    });
    _FS_FILE_V2 file;
    file.name = name;
    file.size = static_cast<long long>(content.size());
    char* msg = nullptr;
    AERROR code = protocol_->Upload("/", handle, &source, &file, UPLOAD_FLAG_NONE, &msg);
    protocol_->FreeMsg(msg);
    return code;
  }

  std::string Get(const std::string& path, long long length, AERROR* code = nullptr) {
    std::string data;
    auto handle = std::make_shared<_FS_HANDLE>();
    FetchAdapter sink([&](long long, const char* bytes, long long n) { data.append(bytes, n); });
    AERROR result = protocol_->Read(path.c_str(), 0, length, handle, &sink, nullptr);
    if (code != nullptr) *code = result;
    return data;
  }

  bool Exists(const std::string& path) {
    _FS_FILE_V2 file;
    return protocol_->GetFileInfo(path.c_str(), &file, nullptr) == SUCCESS;
  }

  std::optional<plughost::Plugin> plugin_;
  plughost::MemoryConfiguration config_;
  plughost::ProtocolHandle protocol_;
};

TEST_F(MemoryPlugin, CancelledUploadKeepsTheOldContent) {
  const std::string old_content = Bytes(1000, 'a');
  ASSERT_EQ(Put("f", old_content), SUCCESS);
  EXPECT_EQ(Put("f", Bytes(3 * kChunk, 'b'), -1, 1), UPLOAD_CANCELED);
  EXPECT_EQ(Get("/f", 1000), old_content);
}

TEST_F(MemoryPlugin, FailedUploadKeepsTheOldContentOrLeavesNothing) {
  const std::string old_content = Bytes(1000, 'a');
  ASSERT_EQ(Put("f", old_content), SUCCESS);
  EXPECT_EQ(Put("f", Bytes(3 * kChunk, 'b'), 2), FAILED);
  EXPECT_EQ(Get("/f", 1000), old_content);
  EXPECT_EQ(Put("g", Bytes(3 * kChunk, 'c'), 1), FAILED);
  EXPECT_FALSE(Exists("/g"));
}

TEST_F(MemoryPlugin, CapacityIsKept) {
  ASSERT_EQ(protocol_->SetOpt("capacity", "2000"), SUCCESS);
  ASSERT_EQ(Put("a", Bytes(1500, 'a')), SUCCESS);
  EXPECT_EQ(Put("b", Bytes(600, 'b')), FAILED);
  EXPECT_FALSE(Exists("/b"));
  // Replacing a file counts its old size as free.
  EXPECT_EQ(Put("a", Bytes(2000, 'c')), SUCCESS);
  unsigned long long total = 0;
  unsigned long long used = 0;
  ASSERT_EQ(protocol_->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(total, 2000u);
  EXPECT_EQ(used, 2000u);
  _FS_FILE_V2 file;
  file.id = "/a";
  ASSERT_EQ(protocol_->Delete(&file, nullptr), SUCCESS);
  ASSERT_EQ(protocol_->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(used, 0u);
}

TEST_F(MemoryPlugin, ReaderKeepsItsSnapshotWhileTheFileIsReplaced) {
  const std::string old_content = Bytes(3 * kChunk, 'a');
  ASSERT_EQ(Put("f", old_content), SUCCESS);
  std::string data;
  bool replaced = false;
  auto handle = std::make_shared<_FS_HANDLE>();
  // The callback calls back into the object: no lock is held meanwhile.
  FetchAdapter sink([&](long long, const char* bytes, long long n) {
    data.append(bytes, n);
    if (!replaced) replaced = Put("f", Bytes(10, 'z')) == SUCCESS;
  });
  ASSERT_EQ(protocol_->Read("/f", 0, 3 * kChunk, handle, &sink, nullptr), SUCCESS);
  sink.RethrowIfFailed();
  EXPECT_TRUE(replaced);
  EXPECT_EQ(data, old_content);
  EXPECT_EQ(Get("/f", 10), Bytes(10, 'z'));
}

TEST_F(MemoryPlugin, ListingCallbackMayCallBackIn) {
  ASSERT_EQ(Put("f", "x"), SUCCESS);
  int infos = 0;
  plughost::FileListAdapter list([&](const _FS_FILE_V2& file) {
    _FS_FILE_V2 info;
    if (protocol_->GetFileInfo(file.id.c_str(), &info, nullptr) == SUCCESS) ++infos;
  });
  ASSERT_EQ(protocol_->GetFileList("/", &list, nullptr), SUCCESS);
  EXPECT_EQ(infos, 1);
}

TEST_F(MemoryPlugin, ReadStopsAtTheEndOfTheFile) {
  ASSERT_EQ(Put("f", "hello"), SUCCESS);
  AERROR code = FAILED;
  EXPECT_EQ(Get("/f", 100, &code), "hello");
  EXPECT_EQ(code, SUCCESS);
}

TEST_F(MemoryPlugin, DirectoryCannotMoveIntoItself) {
  _FS_FILE_V2 dir;
  dir.name = "d";
  ASSERT_EQ(protocol_->CreateDirectory("/", &dir, nullptr), SUCCESS);
  _FS_FILE_V2 sub;
  sub.name = "s";
  ASSERT_EQ(protocol_->CreateDirectory("/d", &sub, nullptr), SUCCESS);
  _FS_FILE_V2 moved;
  moved.name = "d2";
  char* msg = nullptr;
  EXPECT_EQ(protocol_->Move("/d", "/d/s", &moved, &msg), ACCESS_DENIED);
  ASSERT_NE(msg, nullptr);
  EXPECT_NE(std::string(msg).find("into itself"), std::string::npos) << msg;
  protocol_->FreeMsg(msg);
  EXPECT_TRUE(Exists("/d/s"));
}

TEST_F(MemoryPlugin, RacingUploadsLeaveOneWholeContent) {
  const std::string a = Bytes(2 * kChunk + 5, 'a');
  const std::string b = Bytes(2 * kChunk + 5, 'b');
  for (int round = 0; round < 5; ++round) {
    std::thread first([&] { EXPECT_EQ(Put("race", a), SUCCESS); });
    std::thread second([&] { EXPECT_EQ(Put("race", b), SUCCESS); });
    first.join();
    second.join();
    std::string got = Get("/race", static_cast<long long>(a.size()));
    EXPECT_TRUE(got == a || got == b) << "round " << round << ": a mix of both uploads";
  }
}

TEST_F(MemoryPlugin, NamesThatCannotNameAnEntryAreRefused) {
  for (const char* name : {"", ".", "..", "a/b"}) {
    _FS_FILE_V2 dir;
    dir.name = name;
    EXPECT_EQ(protocol_->CreateDirectory("/", &dir, nullptr), INVALID_NAME) << name;
  }
  CollectingFileList list;
  ASSERT_EQ(protocol_->GetFileList("/", &list, nullptr), SUCCESS);
  EXPECT_TRUE(list.files().empty());
}

}  // namespace
