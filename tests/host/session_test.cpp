// Opening a storage through the core session, and the operations both
// front ends use, over the real localdisk plug-in and real directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "host/core/adapters.h"
#include "host/core/errors.h"
#include "host/core/listing.h"
#include "host/core/operations.h"
#include "host/core/session.h"
#include "tests/support/files.h"

using namespace plughost;
using ::testing::HasSubstr;

namespace {

class CapturingLog final : public ILog {
 public:
  void Write(LOGLEVEL, const char* text) override { lines += text; }
  void WriteFormat(LOGLEVEL, const char* format, ...) override { lines += format; }
  void WriteLog(LOGLEVEL, const char* format, va_list) override { lines += format; }
  std::string lines;
};

std::unique_ptr<Session> OpenOn(const std::string& root, std::vector<std::string> options = {}) {
  SessionOptions setup;
  setup.plugin = LOCALDISK_PLUGIN;
  setup.root = root;
  setup.plugin_options = std::move(options);
  return Session::Open(setup);
}

class Operations : public ::testing::Test {
 protected:
  void SetUp() override {
    mkdir((dir_ / "docs").c_str(), 0755);
    test_support::WriteFile(dir_ / "docs/a.txt", "0123456789");
    session_ = OpenOn(dir_.path());
  }
  Client& client() { return session_->client(); }
  const PathMapper& paths() { return session_->paths(); }

  test_support::TempDir dir_;
  std::unique_ptr<Session> session_;
};

std::string ReadRange(Client& client, const PathMapper& paths, const std::string& relative,
                      Range range) {
  std::string out;
  CopyRangeOut(client, paths, relative, range, std::make_shared<_FS_HANDLE>(),
               [&](const char* data, long long n) { out.append(data, static_cast<size_t>(n)); },
               {"cat", relative});
  return out;
}

}  // namespace

TEST(Session, OpensOnTheCanonicalRootAndSetsOptionsInOrder) {
  test_support::TempDir dir;
  auto session = OpenOn(dir.path() + "/./", {"pid=first", "PID=second"});
  EXPECT_EQ(session->root_id(), dir.path());
  EXPECT_EQ(session->client().Pid(), "second");
  EXPECT_EQ(session->paths().Protocol("a/b"), dir.path() + "/a/b");
}

TEST(Session, ServesALocalDirectoryOnlyWhenThePluginsRootIsIt) {
  test_support::TempDir dir, other;
  EXPECT_EQ(OpenOn(dir.path())->served_root(), dir.path());
  EXPECT_EQ(OpenOn(dir.path(), {"root_path=" + other.path()})->served_root(), other.path())
      << "the root_path option comes last";
  EXPECT_EQ(OpenOn("")->served_root(), "") << "no directory given: nothing to compare with";
  // A plug-in that takes the option without serving the directory.
  SessionOptions setup;
  setup.plugin = MEMORY_PLUGIN;
  setup.root = dir.path();
  EXPECT_EQ(Session::Open(setup)->served_root(), "");
}

TEST(Session, MistakesOfTheUserAreUsageErrorsBeforeAnythingLoads) {
  test_support::TempDir dir;
  test_support::WriteFile(dir / "file", "");
  SessionOptions setup;
  setup.plugin = dir / "no-such-plugin.so";  // never loaded: the root is checked first
  setup.root = dir / "missing";
  EXPECT_THROW(Session::Open(setup), UsageError);
  setup.root = dir / "file";
  EXPECT_THROW(Session::Open(setup), UsageError);
  setup.root = dir.path();
  setup.plugin_options = {"novalue"};
  EXPECT_THROW(Session::Open(setup), UsageError);
  setup.plugin_options = {};
  EXPECT_THROW(Session::Open(setup), LoadError);
}

TEST(Session, BindsTheLoggerForItsLifeOnly) {
  test_support::TempDir dir;
  CapturingLog log;
  {
    SessionOptions setup;
    setup.plugin = LOCALDISK_PLUGIN;
    setup.root = dir.path();
    setup.logger = &log;
    auto session = Session::Open(setup);
    auto cache = std::make_unique<FileCache>(LOCALDISK_PLUGIN);
    UploadFrom(session->client(), session->paths(), "", "copy", *cache, cache->size(),
               std::make_shared<_FS_HANDLE>(), UPLOAD_FLAG_OVERWRITE, {"put", "copy"});
  }
  EXPECT_THAT(log.lines, HasSubstr("Upload"));
}

TEST(Session, ParsesPluginOptions) {
  auto pairs = ParsePluginOptions({"a=1", "b==2", "c="});
  ASSERT_EQ(pairs.size(), 3u);
  EXPECT_EQ(pairs[1].second, "=2");
  EXPECT_EQ(pairs[2].second, "");
  EXPECT_THROW(ParsePluginOptions({"=x"}), UsageError);
}

TEST(PathMapper, MapsUserAndKernelPathsAlike) {
  PathMapper paths("/srv/root");
  EXPECT_EQ(paths.Relative("/docs//a/", "ls"), "docs/a");
  EXPECT_EQ(paths.Relative("docs/./a", "ls"), "docs/a");
  EXPECT_EQ(paths.ProtocolOf("/"), "/srv/root");
  EXPECT_EQ(paths.ProtocolOf("/docs/a"), "/srv/root/docs/a");
  EXPECT_EQ(paths.ProtocolOf("/../etc"), std::nullopt);
  try {
    paths.Relative("a/../../x", "cat");
    FAIL();
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "cat a/../../x: path escapes the storage root");
  }
  EXPECT_EQ(SplitPath("a/b/c"), std::make_pair(std::string("a/b"), std::string("c")));
  EXPECT_EQ(SplitPath("c"), std::make_pair(std::string(), std::string("c")));
  EXPECT_EQ(ChildPath("", "x"), "x");
  EXPECT_EQ(ChildPath("a", "x"), "a/x");
}

TEST(ClampRange, NeverReachesPastTheEnd) {
  EXPECT_EQ(ClampRange(10, 0, std::nullopt).length, 10);
  EXPECT_EQ(ClampRange(10, 4, 3).length, 3);
  EXPECT_EQ(ClampRange(10, 8, 5).length, 2);
  EXPECT_EQ(ClampRange(10, 100, std::nullopt).offset, 10);
  EXPECT_EQ(ClampRange(10, 100, std::nullopt).length, 0);
  EXPECT_EQ(ClampRange(0, 0, 5).length, 0);
}

TEST_F(Operations, CopiesARangeOut) {
  EXPECT_EQ(ReadRange(client(), paths(), "docs/a.txt", {2, 5}), "23456");
  EXPECT_EQ(ReadRange(client(), paths(), "docs/a.txt", {0, 0}), "");
}

TEST_F(Operations, AFileThatShrankEndsTheCopyWithAFailure) {
  // The caller sized the range before the file was cut short.
  test_support::WriteFile(dir_ / "docs/a.txt", "0123");
  try {
    ReadRange(client(), paths(), "docs/a.txt", {0, 10});
    FAIL();
  } catch (const Failure& error) {
    EXPECT_STREQ(error.what(), "cat docs/a.txt: the file ended early");
  }
}

TEST_F(Operations, AStoppedHandleCancels) {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state.store(FS_HANDLE_STOP);
  EXPECT_THROW(CopyRangeOut(client(), paths(), "docs/a.txt", {0, 10}, handle,
                            [](const char*, long long) {}, {"cat", "a"}),
               Cancelled);
}

TEST_F(Operations, ASinkThatCannotWriteIsAFailureWithItsErrno) {
  try {
    CopyRangeOut(client(), paths(), "docs/a.txt", {0, 10}, std::make_shared<_FS_HANDLE>(),
                 [](const char*, long long) {
                   throw std::system_error(ENOSPC, std::generic_category(), "cannot write x");
                 },
                 {"get", "a"});
    FAIL();
  } catch (const Failure& error) {
    EXPECT_EQ(error.error(), ENOSPC);
    EXPECT_THAT(error.what(), HasSubstr("get a: cannot write x"));
  }
}

TEST_F(Operations, MakesAndRemovesDirectories) {
  MakeDirectory(client(), paths(), "docs/new", {"mkdir", "x"});
  EXPECT_TRUE(test_support::Exists(dir_ / "docs/new"));
  // An existing directory is accepted; a file of that name is not.
  MakeDirectory(client(), paths(), "docs/new", {"mkdir", "x"});
  try {
    MakeDirectory(client(), paths(), "docs/a.txt", {"mkdir", "x"});
    FAIL();
  } catch (const Failure& error) {
    EXPECT_EQ(error.error(), EEXIST);
  }
  try {
    RemoveEmptyDirectory(client(), paths(), "docs", {"rmdir", "docs"});
    FAIL();
  } catch (const Failure& error) {
    EXPECT_EQ(error.error(), ENOTEMPTY);
  }
  try {
    RemoveEmptyDirectory(client(), paths(), "docs/a.txt", {"rmdir", "a"});
    FAIL();
  } catch (const Failure& error) {
    EXPECT_EQ(error.error(), ENOTDIR);
  }
  RemoveEmptyDirectory(client(), paths(), "docs/new", {"rmdir", "x"});
  EXPECT_FALSE(test_support::Exists(dir_ / "docs/new"));
}

TEST_F(Operations, RemovesFilesOnly) {
  try {
    RemoveFile(client(), paths(), "docs", {"rm", "docs"});
    FAIL();
  } catch (const Failure& error) {
    EXPECT_EQ(error.error(), EISDIR);
  }
  RemoveFile(client(), paths(), "docs/a.txt", {"rm", "a"});
  EXPECT_FALSE(test_support::Exists(dir_ / "docs/a.txt"));
}

TEST_F(Operations, TouchCreatesAMissingFileAndSetsTheTime) {
  _FS_FILE_V2 made = TouchOrCreate(client(), paths(), "docs/new", 1700000000, {"touch", "x"});
  EXPECT_EQ(made.size, 0);
  struct stat st {};
  ASSERT_EQ(stat((dir_ / "docs/new").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1700000000);
  TouchOrCreate(client(), paths(), "docs/a.txt", 1600000000, {"touch", "x"});
  ASSERT_EQ(stat((dir_ / "docs/a.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1600000000);
  EXPECT_EQ(test_support::ReadFile(dir_ / "docs/a.txt"), "0123456789");
  EXPECT_THROW(TouchOrCreate(client(), paths(), "missing/x", 1, {"touch", "x"}), ProtocolError);
}

TEST_F(Operations, ListsEntriesSmallAndSorted) {
  test_support::WriteFile(dir_ / "docs/b", "xy");
  mkdir((dir_ / "docs/c").c_str(), 0755);
  std::vector<Entry> entries = SortedEntries(client(), paths().Protocol("docs"), {"ls", "docs"});
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].name, "a.txt");
  EXPECT_EQ(entries[0].size, 10);
  EXPECT_EQ(entries[1].name, "b");
  EXPECT_TRUE(entries[2].directory());
  // The identifier is the directory's joined with the name: nothing kept.
  EXPECT_EQ(entries[0].id, "");
  EXPECT_EQ(IdOf(entries[0], paths().Protocol("docs")), dir_ / "docs/a.txt");
  _FS_FILE_V2 record = client().Info(paths().Protocol("docs/b"), {"stat", "b"});
  EXPECT_EQ(UnpackFileTimeFields(entries[1].modify), record.modify_time);
  EXPECT_EQ(UnpackFileTimeFields(entries[1].create), record.create_time);
}

TEST(PackedFileTimes, RoundTripEveryField) {
  for (const char* text :
       {"2024-10-27T02:30:00.000Z", "1969-12-31T23:59:59.000Z", "0023-11-14T22:13:20.000Z",
        "9999-12-31T23:59:59.000Z", "1970-01-01T00:00:00.000Z", "2024-02-29T12:00:00.000Z"}) {
    EXPECT_EQ(UnpackFileTimeFields(PackFileTimeFields(text)), text);
  }
  EXPECT_EQ(PackFileTimeFields("1970-01-01T00:00:10.000Z"), 10);
  EXPECT_EQ(PackFileTimeFields(""), kNoFields);
  EXPECT_EQ(UnpackFileTimeFields(kNoFields), "");
}
