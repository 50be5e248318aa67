// Host-side callback adapters: exceptions never cross into the plug-in, the
// file cache serves exact ranges, the logger formats, the stores follow the
// buffer-and-length convention.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>

#include "host/core/adapters.h"
#include "tests/support/files.h"

using plughost::CacheAdapter;
using plughost::FetchAdapter;
using plughost::FileCache;
using plughost::FileListAdapter;

namespace {

_FS_CACHE_READ Request(char* buffer, long long offset, long long capacity) {
  _FS_CACHE_READ request;
  request.buffer = buffer;
  request.offset = offset;
  request.capacity = capacity;
  return request;
}

}  // namespace

TEST(FileListAdapter, HandsOutEachRecordAndKeepsExceptions) {
  std::vector<std::string> names;
  FileListAdapter list([&](const _FS_FILE_V2& file) {
    if (file.name == "bad") throw std::runtime_error("callback failed");
    names.push_back(file.name);
  });
  _FS_FILE_V2 a;
  a.name = "a";
  _FS_FILE_V2 bad;
  bad.name = "bad";
  EXPECT_EQ(list.OnFile(&a), SUCCESS);
  EXPECT_FALSE(list.failed());
  EXPECT_EQ(list.OnFile(&bad), FAILED);
  EXPECT_TRUE(list.failed());
  EXPECT_THROW(list.RethrowIfFailed(), std::runtime_error);
  EXPECT_EQ(names, std::vector<std::string>{"a"});
}

TEST(CollectingFileList, CopiesRecords) {
  plughost::CollectingFileList list;
  {
    _FS_FILE_V2 file;
    file.name = "gone";
    list.OnFile(&file);
  }
  ASSERT_EQ(list.files().size(), 1u);
  EXPECT_EQ(list.files()[0].name, "gone");
}

TEST(FetchAdapter, AThrowingFunctionStopsTheTransfer) {
  auto handle = std::make_shared<_FS_HANDLE>();
  long long seen = 0;
  FetchAdapter sink(
      [&](long long offset, const char*, long long length) {
        if (offset > 0) throw std::runtime_error("disk full");
        seen += length;
      },
      handle);
  long long out = 0;
  EXPECT_EQ(sink.OnFetch(0, "abc", 3, &out), SUCCESS);
  EXPECT_EQ(handle->state.load(), 0);
  EXPECT_EQ(sink.OnFetch(3, "def", 3, &out), FAILED);
  EXPECT_EQ(handle->state.load(), FS_HANDLE_STOP);
  EXPECT_EQ(seen, 3);
  EXPECT_THROW(sink.RethrowIfFailed(), std::runtime_error);
}

TEST(StreamFetch, WritesChunksAndStopsOnStreamFailure) {
  std::ostringstream out;
  plughost::StreamFetch sink(out);
  long long ignored = 0;
  EXPECT_EQ(sink.OnFetch(0, "hel", 3, &ignored), SUCCESS);
  EXPECT_EQ(sink.OnFetch(3, "lo", 2, &ignored), SUCCESS);
  EXPECT_EQ(sink.OnFetch(5, "", 0, &ignored), SUCCESS);
  EXPECT_EQ(out.str(), "hello");
  EXPECT_EQ(sink.bytes(), 5);

  std::ostringstream broken;
  broken.setstate(std::ios::badbit);
  auto handle = std::make_shared<_FS_HANDLE>();
  plughost::StreamFetch failing(broken, handle);
  EXPECT_EQ(failing.OnFetch(0, "x", 1, &ignored), FAILED);
  EXPECT_EQ(handle->state.load(), FS_HANDLE_STOP);
  EXPECT_TRUE(failing.failed());
}

TEST(CacheAdapter, NegativeResultAbortsAndExceptionsAreKept) {
  char buffer[8];
  CacheAdapter ok([](long long offset, char* data, long long capacity) {
    data[0] = static_cast<char>('a' + offset);
    return capacity > 0 ? 1LL : 0LL;
  });
  _FS_CACHE_READ request = Request(buffer, 2, sizeof buffer);
  EXPECT_EQ(ok.ReadCache(&request), SUCCESS);
  EXPECT_EQ(request.length, 1);
  EXPECT_EQ(buffer[0], 'c');

  CacheAdapter negative([](long long, char*, long long) { return -1LL; });
  EXPECT_EQ(negative.ReadCache(&request), FAILED);

  CacheAdapter throwing(
      [](long long, char*, long long) -> long long { throw std::runtime_error("no"); });
  EXPECT_EQ(throwing.ReadCache(&request), FAILED);
  EXPECT_THROW(throwing.RethrowIfFailed(), std::runtime_error);
}

TEST(FileCache, ServesRangesAndNeverMoreThanTheSize) {
  test_support::TempDir dir;
  test_support::WriteFile(dir / "f", "0123456789");
  FileCache cache(dir / "f");
  EXPECT_EQ(cache.size(), 10);
  char buffer[16] = {};
  _FS_CACHE_READ request = Request(buffer, 4, 4);
  ASSERT_EQ(cache.ReadCache(&request), SUCCESS);
  EXPECT_EQ(request.length, 4);
  EXPECT_EQ(std::string(buffer, 4), "4567");

  request = Request(buffer, 8, 16);
  ASSERT_EQ(cache.ReadCache(&request), SUCCESS);
  EXPECT_EQ(request.length, 2);
  EXPECT_EQ(std::string(buffer, 2), "89");

  // The local file grew after the size was taken: the upload keeps its size.
  test_support::WriteFile(dir / "f", "0123456789ABCDEF");
  request = Request(buffer, 8, 16);
  ASSERT_EQ(cache.ReadCache(&request), SUCCESS);
  EXPECT_EQ(request.length, 2);
}

TEST(FileCache, AFileThatShrankFailsInsteadOfDeliveringNothing) {
  test_support::TempDir dir;
  test_support::WriteFile(dir / "f", "0123456789");
  FileCache cache(dir / "f");
  ASSERT_EQ(truncate((dir / "f").c_str(), 3), 0);
  char buffer[16];
  _FS_CACHE_READ request = Request(buffer, 5, 16);
  EXPECT_EQ(cache.ReadCache(&request), FILE_READ_FAILED);
  EXPECT_NE(cache.last_error(), 0);
}

TEST(FileCache, EmptyFileAndMissingFile) {
  test_support::TempDir dir;
  test_support::WriteFile(dir / "empty", "");
  FileCache cache(dir / "empty");
  EXPECT_EQ(cache.size(), 0);
  EXPECT_THROW(FileCache(dir / "missing"), std::system_error);
  EXPECT_THROW(FileCache(dir.path()), std::system_error);
}

TEST(FileCache, SpoolsAStream) {
  std::string content(200000, 'x');
  content += "end";
  std::istringstream in(content);
  std::unique_ptr<FileCache> cache = FileCache::FromStream(in);
  ASSERT_EQ(cache->size(), static_cast<long long>(content.size()));
  std::string back(content.size(), '\0');
  _FS_CACHE_READ request = Request(back.data(), 0, static_cast<long long>(back.size()));
  ASSERT_EQ(cache->ReadCache(&request), SUCCESS);
  EXPECT_EQ(back, content);
}

TEST(StderrLog, FormatsShortAndLongLines) {
  test_support::TempDir dir;
  std::FILE* out = std::fopen((dir / "log").c_str(), "w+");
  ASSERT_NE(out, nullptr);
  plughost::StderrLog log("p: ", out);
  log.WriteFormat(LOGLEVEL_INFO, "[PROTOCOL  ] Upload %s/%s", "/docs", "a.txt");
  std::string long_text(2000, 'y');
  log.WriteFormat(LOGLEVEL_WARNING, "%s!", long_text.c_str());
  log.Write(LOGLEVEL_ERROR, "plain");
  std::fclose(out);
  EXPECT_EQ(test_support::ReadFile(dir / "log"),
            "p: [info] [PROTOCOL  ] Upload /docs/a.txt\n"
            "p: [warning] " +
                long_text +
                "!\n"
                "p: [error] plain\n");
}

TEST(MemoryConfiguration, BufferAndLengthConvention) {
  plughost::MemoryConfiguration config;
  EXPECT_EQ(config.WriteConfiguration("pid-1", "pid", "pid-1", true), SUCCESS);
  EXPECT_TRUE(config.Has("pid-1", "pid"));
  EXPECT_EQ(config.Get("pid-1", "pid"), "pid-1");
  int length = 0;
  EXPECT_EQ(config.ReadConfiguration("pid-1", "pid", nullptr, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 5);
  char small[4];
  length = sizeof small;
  EXPECT_EQ(config.ReadConfiguration("pid-1", "pid", small, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 5);
  char exact[5];
  length = sizeof exact;
  EXPECT_EQ(config.ReadConfiguration("pid-1", "pid", exact, &length), SUCCESS);
  EXPECT_EQ(std::string(exact, 5), "pid-1");
  EXPECT_EQ(config.ReadConfiguration("pid-1", "pid", exact, nullptr), INVALID_PARAMETER);
  length = sizeof exact;
  EXPECT_EQ(config.ReadConfiguration("none", "pid", exact, &length), FILE_NOT_FOUND);
}

TEST(MemoryLocalConfiguration, StoresWithoutSections) {
  plughost::MemoryLocalConfiguration config;
  EXPECT_EQ(config.WriteConfiguration("k", "value"), SUCCESS);
  char buffer[16] = {};
  int length = sizeof buffer;
  EXPECT_EQ(config.ReadConfiguration("k", buffer, &length), SUCCESS);
  EXPECT_EQ(length, 5);
  EXPECT_STREQ(buffer, "value");
  EXPECT_EQ(config.Get("k"), "value");
}
