// Helpers of the transfer tests: the real localdisk plug-in over a temporary
// root, a private tmpfs of a chosen size (probed: mounting needs root), and
// upload sources that cancel or fail at a chosen chunk.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/core/adapters.h"
#include "host/core/client.h"
#include "host/core/plugin.h"
#include "host/core/transfer.h"
#include "tests/support/cache_content.h"
#include "tests/support/files.h"
#include "tests/support/tmpfs.h"

namespace transfer_test {

constexpr long long kChunk = 524288;

using test_support::Exists;
using test_support::FillUp;
using test_support::Names;
using test_support::Pattern;
using test_support::ReadFile;
using test_support::WriteFile;

class TempDir : public test_support::TempDir {
 public:
  TempDir() : test_support::TempDir("plughost-transfer") {}
};

// A tmpfs whose root any user may write to.
class Tmpfs : public test_support::Tmpfs {
 public:
  Tmpfs(const std::string& parent, long long bytes) : test_support::Tmpfs(parent, bytes, "0777") {}
};

// The localdisk plug-in over a fresh root directory.
class LocalDiskTest : public ::testing::Test {
 protected:
  void SetUp() override { Open(dir_ / "root"); }
  void TearDown() override {
    client_.reset();
    plugin_.reset();
  }

  void Open(const std::string& root) {
    root_ = root;
    mkdir(root_.c_str(), 0755);
    client_.reset();
    if (!plugin_)
      plugin_ = std::make_unique<plughost::Plugin>(plughost::Plugin::Load(LOCALDISK_PLUGIN));
    client_ = std::make_unique<plughost::Client>(*plugin_, plugin_->CreateProtocol(&config_));
    client_->SetOpt("root_path", root_);
    root_id_ = client_->RootId();
  }

  std::string Local(const std::string& name) const { return root_ + "/" + name; }

  // Names in the root that are temporary files of ours.
  std::vector<std::string> Temporaries(const std::string& dir = {}) const {
    std::vector<std::string> found;
    for (const std::string& name : Names(dir.empty() ? root_ : dir))
      if (plughost::IsTemporaryName(name)) found.push_back(name);
    return found;
  }

  // ReplaceFile of `content` as `name` in protocol directory `parent`
  // (which need not exist).
  plughost::ReplaceResult PutInto(const std::string& parent, const std::string& name,
                                  const std::string& content);

  TempDir dir_;
  plughost::MemoryConfiguration config_;
  std::unique_ptr<plughost::Plugin> plugin_;
  std::unique_ptr<plughost::Client> client_;
  std::string root_;
  std::string root_id_;
};

// An upload source serving `content`; it can ask the transfer to stop, or
// fail, when the request at `at_offset` (or later) comes.
class Source : public ICacheIO {
 public:
  enum Mode { kServe, kCancelAt, kFailAt };
  Source(std::string content, std::shared_ptr<_FS_HANDLE> handle = nullptr, Mode mode = kServe,
         long long at_offset = 0)
      : content_(std::move(content)), handle_(std::move(handle)), mode_(mode), at_(at_offset) {}

  AERROR ReadCache(_FS_CACHE_READ* request) override {
    ++requests;
    if (mode_ == kFailAt && request->offset >= at_) return FAILED;
    const long long n = test_support::CopyWindow(content_, request);
    request->length = n;
    if (mode_ == kCancelAt && request->offset >= at_ && handle_) {
      handle_->state.store(FS_HANDLE_STOP);
    }
    return SUCCESS;
  }
  int requests = 0;

 private:
  std::string content_;
  std::shared_ptr<_FS_HANDLE> handle_;
  Mode mode_;
  long long at_;
};

inline plughost::ReplaceResult LocalDiskTest::PutInto(const std::string& parent,
                                                      const std::string& name,
                                                      const std::string& content) {
  Source source(content);
  plughost::ReplaceRequest request;
  request.parent = parent;
  request.name = name;
  request.source = &source;
  request.size = static_cast<long long>(content.size());
  return plughost::ReplaceFile(*client_, request);
}

}  // namespace transfer_test
