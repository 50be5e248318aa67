// Reads whose source fails or shrinks mid-way: a read error after good
// chunks ends with FILE_READ_FAILED; a file that gets shorter (truncated by
// another thread) or a /proc file shorter than asked for turns into
// zero-byte chunks that end, without a hang, as soon as the host cancels.
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <string>
#include <thread>

#include "hardening_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace hardening;
using namespace std::chrono_literals;

// Runs the read on its own thread; if it has not ended after `limit`, the
// handle is cancelled so that the test can report the hang instead of
// hanging itself.
struct Outcome {
  AERROR result;
  bool needed_watchdog;
};

Outcome ReadWithWatchdog(LocalDisk& disk, const std::string& path, long long offset,
                         long long length, const std::shared_ptr<_FS_HANDLE>& handle,
                         CollectingSink& sink, std::chrono::seconds limit = 30s) {
  auto future = std::async(std::launch::async, [&] {
    return disk.Read(path.c_str(), offset, length, handle, &sink, nullptr);
  });
  bool needed = false;
  if (future.wait_for(limit) != std::future_status::ready) {
    needed = true;
    handle->state.store(FS_HANDLE_STOP);
  }
  return {future.get(), needed};
}

TEST(ReadFault, ErrorAfterGoodChunksEndsWithReadFailed) {
  // /proc/self/mem reads this process's memory: a mapped chunk reads fine,
  // the unmapped one after it fails with EIO.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t mapped = static_cast<size_t>(kChunk);
  void* area =
      mmap(nullptr, mapped + 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(area, MAP_FAILED);
  const std::string content = Pattern(mapped, 3);
  std::memcpy(area, content.data(), mapped);
  ASSERT_EQ(munmap(static_cast<char*>(area) + mapped, 4 * page), 0);

  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  const auto address = static_cast<long long>(reinterpret_cast<std::uintptr_t>(area));
  Outcome outcome = ReadWithWatchdog(disk, "/proc/self/mem", address, 3 * kChunk, handle, sink);
  munmap(area, mapped);

  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, FILE_READ_FAILED);
  ASSERT_GE(sink.chunks.size(), 1u);
  EXPECT_EQ(sink.chunks[0].offset, address);
  // What was delivered is the mapped memory, nothing else.
  EXPECT_LE(sink.data.size(), mapped);
  EXPECT_TRUE(sink.data == content.substr(0, sink.data.size()));
}

TEST(ReadFault, ErrorOnTheFirstChunkEndsWithReadFailed) {
  // Offset 0 of /proc/self/mem is never mapped.
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  Outcome outcome = ReadWithWatchdog(disk, "/proc/self/mem", 0, 100, handle, sink);
  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, FILE_READ_FAILED);
  EXPECT_TRUE(sink.chunks.empty());
}

// The host's side of a shrinking source: cancel once a zero-byte chunk shows
// that the file has ended.
void CancelOnEmptyChunk(CollectingSink& sink, const std::shared_ptr<_FS_HANDLE>& handle) {
  sink.on_chunk = [handle](const CollectingSink::Chunk& chunk) {
    if (chunk.length == 0) handle->state.store(FS_HANDLE_STOP);
  };
}

TEST(ReadFault, FileTruncatedByAnotherThreadEndsWhenTheHostCancels) {
  TempDir dir;
  const std::string path = dir / "shrinking";
  const std::string content = Pattern(4 * kChunk, 5);
  WriteFile(path, content);

  // After the first chunk another thread cuts the file in the middle of the
  // second chunk; the reader goes on only once that has happened.
  std::mutex lock;
  std::condition_variable changed;
  bool cut_wanted = false;
  bool cut_done = false;
  std::thread truncator([&] {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, [&] { return cut_wanted; });
    EXPECT_EQ(truncate(path.c_str(), kChunk + 1000), 0);
    cut_done = true;
    changed.notify_all();
  });

  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  sink.on_chunk = [&](const CollectingSink::Chunk& chunk) {
    if (chunk.length == 0) {
      handle->state.store(FS_HANDLE_STOP);
      return;
    }
    std::unique_lock<std::mutex> guard(lock);
    if (!cut_wanted) {
      cut_wanted = true;
      changed.notify_all();
      changed.wait(guard, [&] { return cut_done; });
    }
  };
  Outcome outcome = ReadWithWatchdog(disk, path, 0, 4 * kChunk, handle, sink);
  truncator.join();

  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, READ_CANCELED);
  EXPECT_TRUE(sink.data == content.substr(0, kChunk + 1000));
  ASSERT_GE(sink.chunks.size(), 3u);
  EXPECT_EQ(sink.chunks[0].length, kChunk);
  EXPECT_EQ(sink.chunks[1].offset, kChunk);
  EXPECT_EQ(sink.chunks[1].length, 1000);
  EXPECT_EQ(sink.chunks.back().length, 0);
}

TEST(ReadFault, FileTruncatedToNothingWhileReadingEndsWhenTheHostCancelsLater) {
  // The host notices only after a while; the zero-byte chunks go on until
  // then, and the read ends as soon as it cancels.
  TempDir dir;
  const std::string path = dir / "emptied";
  WriteFile(path, Pattern(3 * kChunk, 9));
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  sink.on_chunk = [&](const CollectingSink::Chunk& chunk) {
    if (chunk.offset == 0 && chunk.length > 0) {
      EXPECT_EQ(truncate(path.c_str(), 0), 0);
    }
  };
  std::atomic<bool> finished{false};
  std::thread host([&] {
    while (sink.zero_chunks.load() < 1000 && !finished.load())
      std::this_thread::yield();
    handle->state.store(FS_HANDLE_STOP);
  });
  Outcome outcome = ReadWithWatchdog(disk, path, 0, 3 * kChunk, handle, sink);
  finished.store(true);
  host.join();
  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, READ_CANCELED);
  EXPECT_EQ(sink.data.size(), static_cast<size_t>(kChunk));
  EXPECT_GE(sink.zero_chunks.load(), 1000);
}

TEST(ReadFault, ProcFileShorterThanAskedEndsWhenTheHostCancels) {
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  CancelOnEmptyChunk(sink, handle);
  Outcome outcome = ReadWithWatchdog(disk, "/proc/self/status", 0, 4 * kChunk, handle, sink);
  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, READ_CANCELED);
  EXPECT_EQ(sink.data.rfind("Name:", 0), 0u) << sink.data.substr(0, 40);
  EXPECT_EQ(sink.chunks.back().length, 0);
}

TEST(ReadFault, ProcFileReadExactlyToItsLengthSucceeds) {
  // A /proc file reports size 0; asking for no more than it holds works.
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  Outcome outcome = ReadWithWatchdog(disk, "/proc/self/cmdline", 0, 1, handle, sink);
  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, SUCCESS);
  EXPECT_EQ(sink.data.size(), 1u);
}

TEST(ReadFault, CancelFromAnotherThreadStopsAnEndlessSource) {
  // /dev/zero never ends: only the host's cancel stops the read.
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  std::atomic<bool> finished{false};
  std::thread host([&] {
    while (!finished.load()) {
      {
        std::lock_guard<std::mutex> guard(sink.lock);
        if (sink.chunks.size() >= 3) break;
      }
      std::this_thread::yield();
    }
    handle->state.store(FS_HANDLE_STOP);
  });
  Outcome outcome = ReadWithWatchdog(disk, "/dev/zero", 0, 1LL << 40, handle, sink);  // a terabyte
  finished.store(true);
  host.join();
  EXPECT_FALSE(outcome.needed_watchdog);
  EXPECT_EQ(outcome.result, READ_CANCELED);
  for (const auto& chunk : sink.chunks)
    EXPECT_EQ(chunk.length, kChunk);
}

}  // namespace
