// Reads and uploads: chunking, cancellation, progress, cleanup and logging.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "backend_support.h"
#include "localdisk/local_disk.h"
#include "protocol/log.h"
#include "protocol/plugin.h"

namespace {

using namespace backend_test;

constexpr long long kChunk = 524288;

class Transfer : public ::testing::Test {
 protected:
  TempDir dir;
  SpyDisk disk;
};

TEST_F(Transfer, ReadOfLengthZeroMakesNoCallbackEvenWhenCancelled) {
  WriteFile(dir / "f", "abc");
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  handle->state.store(5);
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 0, handle, &sink, nullptr), SUCCESS);
  EXPECT_TRUE(sink.chunks.empty());
  EXPECT_TRUE(progress.empty());
}

TEST_F(Transfer, ReadDeliversThreeChunksAtTheirPositions) {
  const std::string content = Pattern(1048577);
  WriteFile(dir / "big", content);
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  CollectingSink sink;
  ASSERT_EQ(disk.Read((dir / "big").c_str(), 0, 1048577, handle, &sink, nullptr), SUCCESS);
  ASSERT_EQ(sink.chunks.size(), 3u);
  EXPECT_EQ(sink.chunks[0].offset, 0);
  EXPECT_EQ(sink.chunks[0].length, 524288);
  EXPECT_EQ(sink.chunks[1].offset, 524288);
  EXPECT_EQ(sink.chunks[1].length, 524288);
  EXPECT_EQ(sink.chunks[2].offset, 1048576);
  EXPECT_EQ(sink.chunks[2].length, 1);
  ASSERT_EQ(progress.size(), 3u);
  EXPECT_EQ(progress[0].done, 524288);
  EXPECT_EQ(progress[1].done, 1048576);
  EXPECT_EQ(progress[2].done, 1048577);
  for (const auto& p : progress) {
    EXPECT_EQ(p.total, 1048577);
    EXPECT_EQ(p.rate, 0.0);
  }
  EXPECT_TRUE(sink.data == content);
}

TEST_F(Transfer, ReadOfARangeInTheMiddle) {
  const std::string content = Pattern(3 * kChunk);
  WriteFile(dir / "f", content);
  CollectingSink sink;
  ASSERT_EQ(disk.Read((dir / "f").c_str(), 1000, kChunk + 10, MakeHandle(), &sink, nullptr),
            SUCCESS);
  ASSERT_EQ(sink.chunks.size(), 2u);
  EXPECT_EQ(sink.chunks[0].offset, 1000);
  EXPECT_EQ(sink.chunks[0].length, kChunk);
  EXPECT_EQ(sink.chunks[1].offset, 1000 + kChunk);
  EXPECT_EQ(sink.chunks[1].length, 10);
  EXPECT_TRUE(sink.data == content.substr(1000, kChunk + 10));
}

TEST_F(Transfer, ReadOfExactlyOneChunkSizeIsOneChunk) {
  WriteFile(dir / "f", Pattern(kChunk + 1));
  CollectingSink sink;
  ASSERT_EQ(disk.Read((dir / "f").c_str(), 0, kChunk, MakeHandle(), &sink, nullptr), SUCCESS);
  ASSERT_EQ(sink.chunks.size(), 1u);
  EXPECT_EQ(sink.chunks[0].length, kChunk);
}

TEST_F(Transfer, ReadCancelledBeforeTheFirstChunk) {
  WriteFile(dir / "f", "abc");
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  handle->state.store(3);
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 3, handle, &sink, nullptr), READ_CANCELED);
  EXPECT_TRUE(sink.chunks.empty());
  EXPECT_TRUE(progress.empty());
}

TEST_F(Transfer, ReadStateBelowThreeDoesNotCancel) {
  WriteFile(dir / "f", "abc");
  auto handle = MakeHandle();
  handle->state.store(2);
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 3, handle, &sink, nullptr), SUCCESS);
  EXPECT_EQ(sink.data, "abc");
}

TEST_F(Transfer, ReadCancelledMidway) {
  WriteFile(dir / "f", Pattern(3 * kChunk));
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  CollectingSink sink;
  sink.handle = handle;
  sink.cancel_after = 1;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 3 * kChunk, handle, &sink, nullptr), READ_CANCELED);
  ASSERT_EQ(sink.chunks.size(), 1u);
  // Progress of the delivered chunk is still reported before the check.
  ASSERT_EQ(progress.size(), 1u);
  EXPECT_EQ(progress[0].done, kChunk);
}

TEST_F(Transfer, ReadIsNotCancelledAfterTheLastChunk) {
  WriteFile(dir / "f", Pattern(2 * kChunk));
  auto handle = MakeHandle();
  CollectingSink sink;
  sink.handle = handle;
  sink.cancel_after = 2;  // cancels during the last chunk
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 2 * kChunk, handle, &sink, nullptr), SUCCESS);
  EXPECT_EQ(sink.chunks.size(), 2u);
}

TEST_F(Transfer, ReadBeyondTheEndDeliversEmptyChunksUntilCancelled) {
  WriteFile(dir / "f", "short");
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  CollectingSink sink;
  sink.handle = handle;
  sink.cancel_after = 4;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 100, 10, handle, &sink, nullptr), READ_CANCELED);
  ASSERT_EQ(sink.chunks.size(), 4u);
  for (const auto& c : sink.chunks) {
    EXPECT_EQ(c.offset, 100);
    EXPECT_EQ(c.length, 0);
  }
  ASSERT_EQ(progress.size(), 4u);
  EXPECT_EQ(progress[3].done, 0);
}

TEST_F(Transfer, ReadPastTheEndOfAShortFileKeepsGoingUntilCancelled) {
  WriteFile(dir / "f", "12345");
  auto handle = MakeHandle();
  CollectingSink sink;
  sink.handle = handle;
  sink.cancel_after = 3;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 10, handle, &sink, nullptr), READ_CANCELED);
  ASSERT_EQ(sink.chunks.size(), 3u);
  EXPECT_EQ(sink.chunks[0].length, 5);
  EXPECT_EQ(sink.chunks[1].offset, 5);
  EXPECT_EQ(sink.chunks[1].length, 0);
  EXPECT_EQ(sink.data, "12345");
}

TEST_F(Transfer, ReadOfAMissingFileIsNotFound) {
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "none").c_str(), 0, 1, MakeHandle(), &sink, nullptr), FILE_NOT_FOUND);
}

TEST_F(Transfer, ReadWithANegativeOffsetIsAccessDenied) {
  WriteFile(dir / "f", "abc");
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), -1, 1, MakeHandle(), &sink, nullptr), ACCESS_DENIED);
  EXPECT_TRUE(sink.chunks.empty());
}

TEST_F(Transfer, ReadOfADirectoryFailsToRead) {
  ASSERT_EQ(mkdir((dir / "d").c_str(), 0755), 0);
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "d").c_str(), 0, 10, MakeHandle(), &sink, nullptr), FILE_READ_FAILED);
  EXPECT_TRUE(sink.chunks.empty());
}

TEST_F(Transfer, ReadMapsThePath) {
  WriteFile(dir / "f", "mapped");
  CollectingSink sink;
  const std::string path = dir.path() + "//x/../f";
  EXPECT_EQ(disk.Read(path.c_str(), 0, 6, MakeHandle(), &sink, nullptr), SUCCESS);
  EXPECT_EQ(sink.data, "mapped");
}

TEST_F(Transfer, ReadWithANullProgressIsAllowed) {
  WriteFile(dir / "f", "abc");
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "f").c_str(), 0, 3, handle, &sink, nullptr), SUCCESS);
  EXPECT_EQ(sink.data, "abc");
}

TEST_F(Transfer, ReadAtAnOffsetPastFourGibibytes) {
  const std::string path = dir / "sparse";
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  const off_t five_gib = 5LL << 30;
  ASSERT_EQ(ftruncate(fd, five_gib), 0);
  const off_t at = (4LL << 30) + 12345;
  ASSERT_EQ(pwrite(fd, "needle", 6, at), 6);
  close(fd);
  CollectingSink sink;
  std::vector<ProgressCall> progress;
  ASSERT_EQ(disk.Read(path.c_str(), at - 2, 10, MakeHandle(&progress), &sink, nullptr), SUCCESS);
  ASSERT_EQ(sink.chunks.size(), 1u);
  EXPECT_EQ(sink.chunks[0].offset, at - 2);
  EXPECT_EQ(sink.data, std::string("\0\0needle\0\0", 10));
  CollectingSink tail;
  ASSERT_EQ(disk.Read(path.c_str(), five_gib - 3, 3, MakeHandle(), &tail, nullptr), SUCCESS);
  EXPECT_EQ(tail.chunks.at(0).offset, five_gib - 3);
  EXPECT_EQ(tail.data, std::string(3, '\0'));
}

TEST_F(Transfer, ReadNeverWritesAMessage) {
  char* msg = nullptr;
  CollectingSink sink;
  EXPECT_EQ(disk.Read((dir / "none").c_str(), 0, 1, MakeHandle(), &sink, &msg), FILE_NOT_FOUND);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(Transfer, UploadWritesTheContentAndRefillsTheRecord) {
  const std::string content = Pattern(2 * kChunk + 77, 3);
  MemoryCache cache(content);
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  _FS_FILE_V2 file;
  file.name = "up.bin";
  file.size = static_cast<long long>(content.size());
  ASSERT_EQ(disk.Upload(dir.path().c_str(), handle, &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  EXPECT_TRUE(ReadFile(dir / "up.bin") == content);
  EXPECT_EQ(file.id, dir / "up.bin");
  EXPECT_EQ(file.size, static_cast<long long>(content.size()));
  EXPECT_EQ(file.type, 1);
  ASSERT_EQ(cache.requests.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(cache.requests[i].offset, static_cast<long long>(i) * kChunk);
    EXPECT_EQ(cache.requests[i].capacity, kChunk);
    EXPECT_EQ(cache.requests[i].length_in, 0);
    EXPECT_EQ(cache.requests[i].total, file.size);
    // The request holds its own reference besides ours and the call's.
    EXPECT_GE(cache.requests[i].use_count, 3);
    EXPECT_EQ(cache.requests[i].reserved[0], 0);
    EXPECT_EQ(cache.requests[i].reserved[1], 0);
    EXPECT_EQ(cache.requests[i].reserved[2], 0);
  }
  ASSERT_EQ(progress.size(), 3u);
  EXPECT_EQ(progress[0].done, kChunk);
  EXPECT_EQ(progress[1].done, 2 * kChunk);
  EXPECT_EQ(progress[2].done, 2 * kChunk + 77);
  for (const auto& p : progress) {
    EXPECT_EQ(p.total, 2 * kChunk + 77);
    EXPECT_EQ(p.rate, 0.0);
  }
  // The request's reference is dropped again.
  EXPECT_EQ(handle.use_count(), 1);
}

TEST_F(Transfer, UploadIdIsTheJoinOfTheParentAsPassed) {
  ASSERT_EQ(mkdir((dir / "docs").c_str(), 0755), 0);
  MemoryCache cache("A");
  _FS_FILE_V2 file;
  file.name = "a.txt";
  file.size = 1;
  const std::string parent = dir.path() + "/docs/";
  ASSERT_EQ(
      disk.Upload(parent.c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_OVERWRITE, nullptr),
      SUCCESS);
  EXPECT_EQ(ReadFile(dir / "docs/a.txt"), "A");
  ASSERT_EQ(disk.info_paths.size(), 1u);
  EXPECT_EQ(disk.info_paths[0], disk.JoinPath(parent, "a.txt"));
  EXPECT_EQ(disk.info_paths[0], dir / "docs/a.txt");

  const std::string plain = dir.path() + "/docs";
  file.name = "b.txt";
  ASSERT_EQ(disk.Upload(plain.c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  EXPECT_EQ(disk.info_paths.at(1), dir / "docs/b.txt");
}

TEST_F(Transfer, UploadReturnsWhatGetFileInfoReturns) {
  MemoryCache cache("xyz");
  _FS_FILE_V2 file;
  file.name = "f";
  file.size = 3;
  disk.info_result = ACCESS_DENIED;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            ACCESS_DENIED);
  EXPECT_EQ(ReadFile(dir / "f"), "xyz");
  EXPECT_EQ(file.id, dir / "f");
}

TEST_F(Transfer, UploadOfSizeZeroTruncatesWithoutAskingTheCache) {
  WriteFile(dir / "existing", "old content");
  MemoryCache cache("never read");
  std::vector<ProgressCall> progress;
  _FS_FILE_V2 file;
  file.name = "existing";
  file.size = 0;
  ASSERT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(&progress), &cache, &file, UPLOAD_FLAG_NONE,
                        nullptr),
            SUCCESS);
  EXPECT_TRUE(cache.requests.empty());
  EXPECT_TRUE(progress.empty());
  EXPECT_EQ(ReadFile(dir / "existing"), "");
  EXPECT_EQ(file.size, 0);
  EXPECT_EQ(file.type, 1);

  _FS_FILE_V2 fresh;
  fresh.name = "fresh";
  ASSERT_EQ(
      disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &fresh, UPLOAD_FLAG_NONE, nullptr),
      SUCCESS);
  EXPECT_TRUE(Exists(dir / "fresh"));
  EXPECT_EQ(ReadFile(dir / "fresh"), "");
}

TEST_F(Transfer, UploadWhoseCacheFailsOnTheSecondChunkLeavesNoFile) {
  MemoryCache cache(Pattern(3 * kChunk));
  cache.fail_at = 2;
  std::vector<ProgressCall> progress;
  _FS_FILE_V2 file;
  file.name = "broken";
  file.size = 3 * kChunk;
  file.id = "untouched";
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(&progress), &cache, &file, UPLOAD_FLAG_NONE,
                        nullptr),
            FAILED);
  EXPECT_FALSE(Exists(dir / "broken"));
  EXPECT_EQ(cache.requests.size(), 2u);
  EXPECT_EQ(progress.size(), 1u);
  EXPECT_EQ(file.id, "untouched");
  EXPECT_TRUE(disk.info_paths.empty());
}

TEST_F(Transfer, UploadFailureRemovesAnExistingTargetToo) {
  WriteFile(dir / "old", "old");
  MemoryCache cache("new");
  cache.fail_at = 1;
  _FS_FILE_V2 file;
  file.name = "old";
  file.size = 3;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            FAILED);
  EXPECT_FALSE(Exists(dir / "old"));
}

TEST_F(Transfer, UploadCancelledBeforeTheFirstRequest) {
  MemoryCache cache("abc");
  auto handle = MakeHandle();
  handle->state.store(3);
  _FS_FILE_V2 file;
  file.name = "c";
  file.size = 3;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), handle, &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            UPLOAD_CANCELED);
  EXPECT_TRUE(cache.requests.empty());
  // Created (empty) and kept.
  EXPECT_TRUE(Exists(dir / "c"));
  EXPECT_EQ(ReadFile(dir / "c"), "");
}

TEST_F(Transfer, UploadCancelledMidwayKeepsThePartialFile) {
  const std::string content = Pattern(3 * kChunk, 7);
  MemoryCache cache(content);
  cache.cancel_at = 1;
  std::vector<ProgressCall> progress;
  auto handle = MakeHandle(&progress);
  _FS_FILE_V2 file;
  file.name = "partial";
  file.size = 3 * kChunk;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), handle, &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            UPLOAD_CANCELED);
  EXPECT_EQ(cache.requests.size(), 1u);
  // The chunk in hand is still written and reported.
  ASSERT_EQ(progress.size(), 1u);
  EXPECT_EQ(progress[0].done, kChunk);
  EXPECT_TRUE(ReadFile(dir / "partial") == content.substr(0, kChunk));
  EXPECT_TRUE(disk.info_paths.empty());
}

TEST_F(Transfer, UploadIntoAMissingDirectoryLogsThenIsNotFound) {
  RecordingLog log;
  ASSERT_TRUE(BindLogger(&log));
  MemoryCache cache("abc");
  _FS_FILE_V2 file;
  file.name = "a.txt";
  file.size = 3;
  const std::string parent = dir.path() + "/missing/";
  const AERROR result =
      disk.Upload(parent.c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr);
  UnbindLogger();
  EXPECT_EQ(result, FILE_NOT_FOUND);
  EXPECT_TRUE(cache.requests.empty());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].level, LOGLEVEL_INFO);
  EXPECT_EQ(log.lines[0].text, "[PROTOCOL  ] Upload " + parent + "/a.txt");
}

TEST_F(Transfer, UploadLogsTheParentExactlyAsPassed) {
  RecordingLog log;
  ASSERT_TRUE(BindLogger(&log));
  MemoryCache cache("z");
  _FS_FILE_V2 file;
  file.name = "z";
  file.size = 1;
  const std::string parent = dir.path() + "/./";
  const AERROR result =
      disk.Upload(parent.c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr);
  UnbindLogger();
  EXPECT_EQ(result, SUCCESS);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].text, "[PROTOCOL  ] Upload " + parent + "/z");
}

TEST_F(Transfer, UploadWithoutALoggerLogsNothingAndWorks) {
  UnbindLogger();
  MemoryCache cache("q");
  _FS_FILE_V2 file;
  file.name = "q";
  file.size = 1;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
}

TEST_F(Transfer, UploadWritesWhatTheCacheDeliversEvenPastTheSize) {
  MemoryCache cache(std::string(100, 'm'));
  _FS_FILE_V2 file;
  file.name = "grown";
  file.size = 10;  // the cache delivers 100 bytes anyway
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  EXPECT_EQ(ReadFile(dir / "grown"), std::string(100, 'm'));
  EXPECT_EQ(file.size, 100);
  EXPECT_EQ(cache.requests.size(), 1u);
}

TEST_F(Transfer, UploadKeepsAskingWhileTheCacheDeliversNothing) {
  MemoryCache cache("abc");
  cache.force_length = 0;
  cache.cancel_at = 5;
  std::vector<ProgressCall> progress;
  _FS_FILE_V2 file;
  file.name = "stalled";
  file.size = 3;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(&progress), &cache, &file, UPLOAD_FLAG_NONE,
                        nullptr),
            UPLOAD_CANCELED);
  EXPECT_EQ(cache.requests.size(), 5u);
  ASSERT_EQ(progress.size(), 5u);
  EXPECT_EQ(progress[4].done, 0);
  for (const auto& r : cache.requests) {
    EXPECT_EQ(r.offset, 0);
  }
}

TEST_F(Transfer, UploadNeverWritesPastItsBufferForAnOversizedClaim) {
  // A cache that claims more than the buffer holds gets only the buffer written.
  MemoryCache cache(std::string(10, 'c'));
  cache.force_length = 10 * kChunk;
  _FS_FILE_V2 file;
  file.name = "claimed";
  file.size = 1;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  EXPECT_EQ(file.size, kChunk);
}

TEST_F(Transfer, UploadMapsTheParentForTheTarget) {
  ASSERT_EQ(mkdir((dir / "d").c_str(), 0755), 0);
  MemoryCache cache("m");
  _FS_FILE_V2 file;
  file.name = "m";
  file.size = 1;
  const std::string parent = dir.path() + "/x/../d//";
  EXPECT_EQ(disk.Upload(parent.c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  EXPECT_EQ(ReadFile(dir / "d/m"), "m");
  // The refill goes through the parent's own text; the record ends up normal.
  ASSERT_EQ(disk.info_paths.size(), 1u);
  EXPECT_EQ(disk.info_paths[0], parent + "m");
  EXPECT_EQ(file.id, dir / "d/m");
}

TEST_F(Transfer, UploadWithANullProgressIsAllowed) {
  MemoryCache cache("n");
  _FS_FILE_V2 file;
  file.name = "n";
  file.size = 1;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), std::make_shared<_FS_HANDLE>(), &cache, &file,
                        UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  EXPECT_EQ(ReadFile(dir / "n"), "n");
}

TEST_F(Transfer, UploadNeverWritesAMessageOfItsOwn) {
  char* msg = nullptr;
  MemoryCache cache("x");
  cache.fail_at = 1;
  _FS_FILE_V2 file;
  file.name = "x";
  file.size = 1;
  EXPECT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, &msg),
            FAILED);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(Transfer, UploadThenReadRoundTripsByteForByte) {
  const std::string content = Pattern(kChunk * 2 + 12345, 11);
  MemoryCache cache(content);
  _FS_FILE_V2 file;
  file.name = "round";
  file.size = static_cast<long long>(content.size());
  ASSERT_EQ(disk.Upload(dir.path().c_str(), MakeHandle(), &cache, &file, UPLOAD_FLAG_NONE, nullptr),
            SUCCESS);
  CollectingSink sink;
  ASSERT_EQ(disk.Read(file.id.c_str(), 0, file.size, MakeHandle(), &sink, nullptr), SUCCESS);
  EXPECT_TRUE(sink.data == content);
}

}  // namespace
