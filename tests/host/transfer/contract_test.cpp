// ReplaceFile, DownloadFile and CopyRangeOut over every plug-in of the
// project, in process: what they promise rests on the shared contract alone.
// The two plug-ins end a read differently at the end of a file (localdisk
// hands out empty chunks until cancelled, memory stops and succeeds); the
// host must work with both.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>

#include "host/core/errors.h"
#include "host/core/operations.h"
#include "host/core/session.h"
#include "host/core/transfer.h"
#include "tests/host/transfer/transfer_test_support.h"

namespace {

using namespace transfer_test;
using plughost::DownloadFile;
using plughost::DownloadRequest;
using plughost::DownloadResult;
using plughost::ReplaceFile;
using plughost::ReplaceRequest;
using plughost::TransferStatus;

struct PluginCase {
  const char* name;
  const char* path;
  bool needs_root;
};

void PrintTo(const PluginCase& plugin, std::ostream* out) {
  *out << plugin.name;
}

class Contract : public ::testing::TestWithParam<PluginCase> {
 protected:
  void SetUp() override {
    plughost::SessionOptions options;
    options.plugin = GetParam().path;
    if (GetParam().needs_root) {
      options.root = dir_ / "root";
      mkdir(options.root.c_str(), 0755);
    }
    session_ = plughost::Session::Open(options);
    local_ = dir_ / "local";
    mkdir(local_.c_str(), 0755);
  }

  plughost::Client& client() { return session_->client(); }
  std::string Protocol(const std::string& relative) const {
    return session_->paths().Protocol(relative);
  }

  plughost::ReplaceResult Put(const std::string& name, const std::string& content) {
    Source source(content);
    ReplaceRequest request;
    request.parent = Protocol("");
    request.name = name;
    request.source = &source;
    request.size = static_cast<long long>(content.size());
    return ReplaceFile(client(), request);
  }

  // Downloads `name` to local/`name`; `size` is the size the caller believes
  // the file has (its real size when negative).
  DownloadResult Get(const std::string& name, long long size = -1,
                     std::shared_ptr<_FS_HANDLE> handle = nullptr) {
    DownloadRequest request;
    request.path = Protocol(name);
    request.size = size >= 0 ? size : client().Info(request.path, {"get", name}).size;
    request.local_path = local_ + "/" + name;
    request.sync = false;
    request.handle = std::move(handle);
    return DownloadFile(client(), request);
  }

  std::string Cat(const std::string& name, plughost::Range range) {
    std::string out;
    plughost::CopyRangeOut(
        client(), session_->paths(), name, range, std::make_shared<_FS_HANDLE>(),
        [&](const char* data, long long n) { out.append(data, static_cast<size_t>(n)); },
        {"cat", name});
    return out;
  }

  TempDir dir_;
  std::unique_ptr<plughost::Session> session_;
  std::string local_;
};

TEST_P(Contract, PutThenGetIsByteExactAtEverySize) {
  for (long long size : {0LL, 1LL, kChunk - 1, kChunk, kChunk + 1, 3 * kChunk + 17}) {
    SCOPED_TRACE(size);
    const std::string content = Pattern(static_cast<size_t>(size), static_cast<unsigned>(size));
    const std::string name = "f" + std::to_string(size);
    ASSERT_TRUE(Put(name, content).ok());
    DownloadResult result = Get(name);
    ASSERT_TRUE(result.ok()) << result.Describe();
    EXPECT_EQ(result.bytes, size);
    EXPECT_EQ(ReadFile(local_ + "/" + name), content);
  }
}

TEST_P(Contract, GetReplacesAnExistingLocalFileWhole) {
  WriteFile(local_ + "/a", Pattern(3 * kChunk, 9));
  const std::string content = Pattern(kChunk / 2, 4);
  ASSERT_TRUE(Put("a", content).ok());
  DownloadResult result = Get("a");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_EQ(result.Describe(), "replaced");
  EXPECT_EQ(ReadFile(local_ + "/a"), content);
  EXPECT_EQ(Names(local_), std::vector<std::string>{"a"});
}

// The size the caller saw is stale (the file changed since): the file is
// read again at its new size, shorter or longer.
TEST_P(Contract, GetOfAFileOfAnotherSizeThanExpectedReadsItAgain) {
  const std::string content = Pattern(kChunk + 5, 2);
  ASSERT_TRUE(Put("b", content).ok());
  for (long long believed : {0LL, 7LL, kChunk + 4, kChunk + 6, 4 * kChunk}) {
    SCOPED_TRACE(believed);
    DownloadResult result = Get("b", believed);
    ASSERT_TRUE(result.ok()) << result.Describe();
    EXPECT_EQ(result.bytes, static_cast<long long>(content.size()));
    EXPECT_EQ(ReadFile(local_ + "/b"), content);
  }
}

TEST_P(Contract, GetCancelledBeforeTheStartKeepsTheLocalFile) {
  ASSERT_TRUE(Put("c", Pattern(kChunk, 3)).ok());
  WriteFile(local_ + "/c", "old");
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state.store(FS_HANDLE_STOP);
  DownloadResult result = Get("c", -1, handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_EQ(ReadFile(local_ + "/c"), "old");
  EXPECT_EQ(Names(local_), std::vector<std::string>{"c"});
}

TEST_P(Contract, CatReadsWholeFilesAndRanges) {
  const std::string content = Pattern(2 * kChunk + 3, 5);
  ASSERT_TRUE(Put("d", content).ok());
  const long long size = static_cast<long long>(content.size());
  EXPECT_EQ(Cat("d", {0, size}), content);
  EXPECT_EQ(Cat("d", {kChunk - 1, 5}), content.substr(kChunk - 1, 5));
  EXPECT_EQ(Cat("d", {size - 1, 1}), content.substr(static_cast<size_t>(size - 1)));
  EXPECT_EQ(Cat("d", {0, 0}), "");
}

// The record said more than the file holds (it shrank since): cat fails
// rather than print a short file as if it were whole.
TEST_P(Contract, CatOfAFileShorterThanItsRecordSaysItEndedEarly) {
  ASSERT_TRUE(Put("e", Pattern(10, 6)).ok());
  for (plughost::Range range : {plughost::Range{0, 20}, plughost::Range{5, 6},
                                plughost::Range{10, 1}, plughost::Range{30, 4}}) {
    SCOPED_TRACE(std::to_string(range.offset) + "+" + std::to_string(range.length));
    try {
      Cat("e", range);
      ADD_FAILURE() << "a short file was read as whole";
    } catch (const plughost::Failure& failure) {
      EXPECT_EQ(std::string(failure.what()), "cat e: the file ended early");
    }
  }
  EXPECT_EQ(Cat("e", {5, 5}), Pattern(10, 6).substr(5));
}

TEST_P(Contract, ReplaceOverAnExistingFileKeepsOnlyTheNewContent) {
  ASSERT_TRUE(Put("g", Pattern(3 * kChunk, 1)).ok());
  plughost::ReplaceResult result = Put("g", "short");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_EQ(result.Describe(), "replaced");
  EXPECT_EQ(Cat("g", {0, 5}), "short");
  ASSERT_TRUE(Get("g").ok());
  EXPECT_EQ(ReadFile(local_ + "/g"), "short");
  bool temporary = false;
  client().ForEach(Protocol(""), {"ls", ""}, [&](const _FS_FILE_V2& file) {
    if (plughost::IsTemporaryName(file.name)) temporary = true;
  });
  EXPECT_FALSE(temporary);
}

// A get while another thread replaces the storage file: every download is
// one whole version, never a mix or a prefix.
TEST_P(Contract, GetRacingAReplaceReturnsOneCompleteVersion) {
  std::set<std::string> versions;
  for (int i = 0; i < 6; ++i)
    versions.insert(Pattern(static_cast<size_t>(kChunk / 3 + i * kChunk / 2), i + 1));
  ASSERT_TRUE(Put("shared", *versions.begin()).ok());
  std::atomic<bool> writing{true};
  std::atomic<int> failures{0};
  std::thread writer([&] {
    for (int round = 0; round < 20; ++round)
      for (const std::string& content : versions)
        if (!Put("shared", content).ok()) ++failures;
    writing.store(false);
  });
  int downloads = 0;
  int mixed = 0;
  for (int tries = 0; writing.load() || (downloads == 0 && tries < 100); ++tries) {
    DownloadRequest request;
    request.path = Protocol("shared");
    request.size = client().Info(request.path, {"get", "shared"}).size;
    request.local_path = local_ + "/copy";
    request.sync = false;
    request.attempts = 10;
    if (!DownloadFile(client(), request).ok()) continue;
    ++downloads;
    if (versions.count(ReadFile(local_ + "/copy")) == 0) ++mixed;
  }
  writer.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(downloads, 0);
  EXPECT_EQ(mixed, 0);
}

INSTANTIATE_TEST_SUITE_P(Plugins, Contract,
                         ::testing::Values(PluginCase{"localdisk", LOCALDISK_PLUGIN, true},
                                           PluginCase{"memory", MEMORY_PLUGIN, false}),
                         [](const ::testing::TestParamInfo<PluginCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
