// Confinement through core's session and path mapper, with the real
// localdisk plug-in: the mapper refuses links out of the root before the
// plug-in sees them, and once the session is confined the kernel stops the
// plug-in even when a path bypasses the mapper.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "host/core/adapters.h"
#include "host/core/confine.h"
#include "host/core/errors.h"
#include "host/core/operations.h"
#include "host/core/paths.h"
#include "host/core/session.h"
#include "tests/host/confine/child.h"
#include "tests/support/files.h"

namespace {

using confine_test::Failures;
using confine_test::RunInChild;
using plughost::Failure;
using plughost::PathMapper;
using plughost::UsageError;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::WriteFile;

class SessionConfineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = base_ / "root";
    outside_ = base_ / "outside";
    ASSERT_EQ(mkdir(root_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((root_ + "/sub").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(outside_.c_str(), 0755), 0);
    WriteFile(root_ + "/file", "inside");
    WriteFile(outside_ + "/secret", "SECRET");
    ASSERT_EQ(symlink(outside_.c_str(), (root_ + "/out").c_str()), 0);
    ASSERT_EQ(symlink("../outside/secret", (root_ + "/out-file").c_str()), 0);
    ASSERT_EQ(symlink("sub", (root_ + "/in").c_str()), 0);
  }

  TempDir base_;
  std::string root_;
  std::string outside_;
};

// The error a mapper call throws, or "" when it returns.
template <typename Call>
std::string FailureOf(Call call, int* error) {
  try {
    call();
  } catch (const Failure& failure) {
    *error = failure.error();
    return failure.what();
  }
  return "";
}

TEST_F(SessionConfineTest, MapperRefusesLinksOutOfTheRoot) {
  PathMapper paths(root_, root_);
  int error = 0;
  EXPECT_EQ(FailureOf([&] { paths.Relative("out/secret", "cat"); }, &error),
            "cat out/secret: a symbolic link leads outside the storage root");
  EXPECT_EQ(error, EACCES);
  EXPECT_EQ(FailureOf([&] { paths.Relative("/out-file", "stat"); }, &error),
            "stat /out-file: a symbolic link leads outside the storage root");
  EXPECT_EQ(FailureOf(
                [&] {
                  paths.CheckLinks("out/new", {"put", "/out/new"});
                },
                &error),
            "put /out/new: a symbolic link leads outside the storage root");
  EXPECT_EQ(paths.ProtocolOf("out/secret"), std::nullopt);
  EXPECT_EQ(paths.ProtocolOf("in/x"), root_ + "/in/x");
  EXPECT_EQ(paths.Relative("in/x", "ls"), "in/x");
  EXPECT_EQ(paths.Relative("/file", "cat"), "file");
  // Climbing out by its text stays a usage error.
  EXPECT_THROW(paths.Relative("../x", "cat"), UsageError);
}

TEST_F(SessionConfineTest, MapperWithoutLocalRootChecksTextOnly) {
  PathMapper paths(root_);
  EXPECT_EQ(paths.Relative("out/secret", "cat"), "out/secret");
  EXPECT_THROW(paths.Relative("a/../../x", "cat"), UsageError);
}

TEST_F(SessionConfineTest, NoFollowLinksRefusesEveryLink) {
  PathMapper paths(root_, root_, true);
  int error = 0;
  EXPECT_EQ(FailureOf([&] { paths.Relative("in", "ls"); }, &error),
            "ls in: the path goes through a symbolic link (refused with --no-follow-links)");
  EXPECT_EQ(error, ELOOP);
  EXPECT_EQ(paths.Relative("sub", "ls"), "sub");
}

TEST_F(SessionConfineTest, SessionMapperChecksLinks) {
  plughost::SessionOptions options;
  options.plugin = LOCALDISK_PLUGIN;
  options.root = root_;
  std::unique_ptr<plughost::Session> session = plughost::Session::Open(options);
  EXPECT_THROW(session->paths().Relative("out/secret", "cat"), Failure);
  EXPECT_EQ(session->paths().Relative("in", "ls"), "in");
  EXPECT_FALSE(session->confinement().has_value());
}

// The plug-in itself, driven past the mapper, cannot read or write outside
// once the session is confined.
TEST_F(SessionConfineTest, ConfinedSessionStopsThePluginItself) {
  if (!plughost::LandlockAvailable()) GTEST_SKIP() << "this kernel has no Landlock";
  std::string local_dir = base_ / "local";
  ASSERT_EQ(mkdir(local_dir.c_str(), 0755), 0);
  auto result = RunInChild([&](Failures& f) {
    unsetenv(plughost::kConfineEnvironment);
    plughost::SessionOptions options;
    options.plugin = LOCALDISK_PLUGIN;
    options.root = root_;
    std::unique_ptr<plughost::Session> session = plughost::Session::Open(options);
    const plughost::ConfineResult& confined = session->Confine({}, {local_dir});
    f.Expect(confined.mode == plughost::ConfineMode::kLandlock, "not confined");
    f.Expect(session->confinement().has_value(), "confinement not remembered");
    plughost::Client& client = session->client();
    const PathMapper& paths = session->paths();

    auto read = [&](const std::string& relative) {
      std::string content;
      try {
        plughost::CopyRangeOut(
            client, paths, relative, {0, 6}, std::make_shared<_FS_HANDLE>(),
            [&](const char* data, long long n) { content.append(data, static_cast<size_t>(n)); },
            {"cat", relative});
      } catch (const std::exception&) {
        return std::string("<failed>");
      }
      return content;
    };
    f.Expect(read("file") == "inside", "read inside: " + read("file"));
    f.Expect(read("out/secret") == "<failed>", "read out/secret: " + read("out/secret"));
    f.Expect(read("out-file") == "<failed>", "read out-file: " + read("out-file"));

    plughost::CacheAdapter source([](long long offset, char* buffer, long long capacity) {
      static const std::string kData = "OVERWRITTEN";
      long long n = std::min<long long>(capacity, static_cast<long long>(kData.size()) - offset);
      if (n <= 0) return 0LL;
      kData.copy(buffer, static_cast<size_t>(n), static_cast<size_t>(offset));
      return n;
    });
    bool uploaded = true;
    try {
      plughost::UploadFrom(client, paths, "out", "secret", source, 11,
                           std::make_shared<_FS_HANDLE>(), UPLOAD_FLAG_OVERWRITE,
                           {"put", "out/secret"});
    } catch (const std::exception&) {
      uploaded = false;
    }
    f.Expect(!uploaded, "uploaded through the link out of the root");
    // The local directory named for the command stays writable.
    f.ExpectOk(access(local_dir.c_str(), W_OK), "local directory");
    FILE* local = std::fopen((local_dir + "/got").c_str(), "w");
    f.Expect(local != nullptr, "cannot write in the local directory");
    if (local != nullptr) std::fclose(local);
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
  EXPECT_EQ(ReadFile(outside_ + "/secret"), "SECRET");
  EXPECT_TRUE(std::filesystem::exists(local_dir + "/got"));
}

}  // namespace
