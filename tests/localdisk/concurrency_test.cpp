// One LocalDisk object driven by eight threads at once, each working on its
// own files, plus host threads cancelling transfers through their handles.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "backend_support.h"
#include "localdisk/local_disk.h"
#include "protocol/log.h"
#include "protocol/plugin.h"

namespace {

using namespace backend_test;

// A cache that never delivers anything: the upload turns until cancelled.
class StalledCache : public ICacheIO {
 public:
  std::atomic<int> requests{0};
  AERROR ReadCache(_FS_CACHE_READ* request) override {
    request->length = 0;
    requests.fetch_add(1, std::memory_order_relaxed);
    return SUCCESS;
  }
};

class DiscardingSink : public IFetchCallback {
 public:
  long long calls = 0;
  AERROR OnFetch(long long, const char*, long long, long long*) override {
    ++calls;
    return SUCCESS;
  }
};

void CountProgress(long long, long long, std::uint64_t context, double) {
  reinterpret_cast<std::atomic<long long>*>(context)->fetch_add(1, std::memory_order_relaxed);
}

std::chrono::milliseconds RunTime() {
  // LOCALDISK_CONCURRENCY_MS shortens or lengthens the run.
  if (const char* ms = std::getenv("LOCALDISK_CONCURRENCY_MS")) {
    return std::chrono::milliseconds(std::atoll(ms));
  }
  return std::chrono::milliseconds(3000);
}

struct Outcome {
  long long iterations = 0;
  std::vector<std::string> failures;
  void Check(bool ok, const std::string& what) {
    if (!ok && failures.size() < 20) failures.push_back(what);
  }
};

void Worker(LocalDisk& disk, const std::string& base, int index,
            std::chrono::steady_clock::time_point deadline, std::atomic<long long>& progress_calls,
            Outcome& outcome) {
  const std::string mine = base + "/t" + std::to_string(index);
  _FS_FILE_V2 dir_record;
  dir_record.name = "t" + std::to_string(index);
  outcome.Check(disk.CreateDirectory(base.c_str(), &dir_record, nullptr) == SUCCESS, "mkdir own");
  unsigned seed = static_cast<unsigned>(index) * 7919u + 1u;
  while (std::chrono::steady_clock::now() < deadline) {
    const long long n = outcome.iterations++;
    seed = seed * 1103515245u + 12345u;
    const size_t size = (seed >> 8) % (600 * 1024);
    const std::string content = Pattern(size, seed);
    const std::string name = "f" + std::to_string(n);

    auto handle = std::make_shared<_FS_HANDLE>();
    handle->progress = &CountProgress;
    handle->progress_context = reinterpret_cast<std::uint64_t>(&progress_calls);

    MemoryCache cache(content);
    _FS_FILE_V2 up;
    up.name = name;
    up.size = static_cast<long long>(size);
    outcome.Check(
        disk.Upload(mine.c_str(), handle, &cache, &up, UPLOAD_FLAG_NONE, nullptr) == SUCCESS,
        "upload " + name);
    outcome.Check(up.id == mine + "/" + name && up.size == static_cast<long long>(size),
                  "upload record " + name);

    CollectingSink sink;
    if (size > 0) {
      outcome.Check(disk.Read(up.id.c_str(), 0, up.size, handle, &sink, nullptr) == SUCCESS,
                    "read " + name);
      outcome.Check(sink.data == content, "read back " + name);
    }

    RecordingList list;
    outcome.Check(disk.GetFileList(mine.c_str(), &list, nullptr) == SUCCESS, "list " + name);
    outcome.Check(list.files.size() == 1 && list.Find(name) != nullptr, "listed " + name);

    _FS_FILE_V2 sub;
    sub.name = "sub";
    outcome.Check(disk.CreateDirectory(mine.c_str(), &sub, nullptr) == SUCCESS, "mkdir sub");
    _FS_FILE_V2 moved;
    moved.name = "m" + name;
    outcome.Check(disk.Move(up.id.c_str(), (mine + "/sub").c_str(), &moved, nullptr) == SUCCESS,
                  "move " + name);
    outcome.Check(moved.id == mine + "/sub/m" + name && moved.size == up.size,
                  "moved record " + name);
    outcome.Check(disk.SetFileTime(moved.id.c_str(), "", "2024-01-01T00:00:00.000Z",
                                   "2024-01-01T00:00:00.000Z", nullptr, nullptr) == SUCCESS,
                  "settime " + name);
    _FS_FILE_V2 info;
    outcome.Check(
        disk.GetFileInfo(moved.id.c_str(), &info, nullptr) == SUCCESS && info.size == up.size,
        "info " + name);
    outcome.Check(disk.Delete(&moved, nullptr) == SUCCESS, "delete " + name);
    outcome.Check(disk.DeleteDirectory(&sub, nullptr) == SUCCESS, "rmdir sub");

    // Every few rounds, a host thread cancels a stalled transfer.
    if (n % 8 == 0) {
      auto stop = std::make_shared<_FS_HANDLE>();
      StalledCache stalled;
      _FS_FILE_V2 stuck;
      stuck.name = "stuck";
      stuck.size = 10;
      std::thread canceller([stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        stop->state.store(3, std::memory_order_relaxed);
      });
      const AERROR result =
          disk.Upload(mine.c_str(), stop, &stalled, &stuck, UPLOAD_FLAG_NONE, nullptr);
      canceller.join();
      outcome.Check(result == UPLOAD_CANCELED, "stalled upload cancelled");

      auto read_stop = std::make_shared<_FS_HANDLE>();
      DiscardingSink discard;
      std::thread read_canceller([read_stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        read_stop->state.store(4, std::memory_order_relaxed);
      });
      // Past the end: empty chunks until the host stops it.
      const AERROR read_result =
          disk.Read((mine + "/stuck").c_str(), 1000, 10, read_stop, &discard, nullptr);
      read_canceller.join();
      outcome.Check(read_result == READ_CANCELED, "stalled read cancelled");
      _FS_FILE_V2 leftover;
      leftover.id = mine + "/stuck";
      outcome.Check(disk.Delete(&leftover, nullptr) == SUCCESS, "delete partial");
    }

    // Shared, read-only questions.
    char user[4096];
    int length = sizeof user;
    outcome.Check(disk.GetUserInfo(user, &length) == SUCCESS, "user info");
    unsigned long long total = 0, used = 0;
    outcome.Check(disk.GetQuota(&total, &used) == SUCCESS && total > 0, "quota");
    RecordingList shared;
    outcome.Check(disk.GetFileList(base.c_str(), &shared, nullptr) == SUCCESS &&
                      shared.Find("t" + std::to_string(index)) != nullptr,
                  "list shared");
  }
}

TEST(Concurrency, EightThreadsShareOneObject) {
  TempDir dir;
  LocalDisk disk(nullptr);
  disk.SetOpt("root_path", dir.path().c_str());
  RecordingLog log;
  ASSERT_TRUE(BindLogger(&log));
  // With TZ unset the C library reloads its zone name on every mktime, under
  // an internal lock that the thread checker cannot see; a pinned zone, loaded
  // once up front as a host does at start-up, keeps its reports meaningful.
  TzGuard zone("CST-8");
  time_t now = time(nullptr);
  tm fields;
  localtime_r(&now, &fields);
  mktime(&fields);

  const auto deadline = std::chrono::steady_clock::now() + RunTime();
  std::atomic<long long> progress_calls{0};
  std::vector<Outcome> outcomes(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back(Worker, std::ref(disk), dir.path(), i, deadline, std::ref(progress_calls),
                         std::ref(outcomes[i]));
  }
  for (auto& t : threads)
    t.join();
  UnbindLogger();

  long long iterations = 0;
  for (int i = 0; i < 8; ++i) {
    EXPECT_GT(outcomes[i].iterations, 0) << "thread " << i;
    iterations += outcomes[i].iterations;
    for (const auto& failure : outcomes[i].failures) {
      ADD_FAILURE() << "thread " << i << ": " << failure;
    }
  }
  EXPECT_GT(progress_calls.load(), 0);
  EXPECT_GE(static_cast<long long>(log.lines.size()), iterations);
  // Every thread cleaned up after itself.
  RecordingList list;
  ASSERT_EQ(disk.GetFileList(dir.path().c_str(), &list, nullptr), SUCCESS);
  EXPECT_EQ(list.files.size(), 8u);
  for (const auto& f : list.files) {
    RecordingList inner;
    ASSERT_EQ(disk.GetFileList(f.id.c_str(), &inner, nullptr), SUCCESS);
    EXPECT_TRUE(inner.files.empty()) << f.id;
  }
}

}  // namespace
