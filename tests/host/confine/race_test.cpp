// A link swapped in while a confined process reads and writes: the kernel
// checks where each open lands, so no swap leads outside, however it falls.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "host/core/confine.h"
#include "tests/host/confine/child.h"
#include "tests/support/files.h"

namespace {

using confine_test::Failures;
using confine_test::RunInChild;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::WriteFile;

// Replaces `name` in `dir` over and over: a regular file, then a link to
// `outside_target`, each put in place with one rename.
class Swapper {
 public:
  Swapper(std::string dir, std::string name, std::string inside, std::string outside_target)
      : dir_(std::move(dir)),
        name_(std::move(name)),
        inside_(std::move(inside)),
        outside_(std::move(outside_target)) {}

  void Start() {
    thread_ = std::thread([this] {
      std::string file_tmp = dir_ + "/.swap-file-" + name_;
      std::string link_tmp = dir_ + "/.swap-link-" + name_;
      std::string final_path = dir_ + "/" + name_;
      while (!stop_.load(std::memory_order_relaxed)) {
        WriteFile(file_tmp, inside_);
        rename(file_tmp.c_str(), final_path.c_str());
        unlink(link_tmp.c_str());
        if (symlink(outside_.c_str(), link_tmp.c_str()) == 0) {
          rename(link_tmp.c_str(), final_path.c_str());
        }
        swaps_.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  void Stop() {
    stop_.store(true, std::memory_order_relaxed);
    if (thread_.joinable()) thread_.join();
  }
  ~Swapper() { Stop(); }
  long swaps() const { return swaps_.load(std::memory_order_relaxed); }

 private:
  std::string dir_, name_, inside_, outside_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<long> swaps_{0};
};

TEST(ConfineRace, SwappedLinksNeverLeadOutside) {
  if (!plughost::LandlockAvailable()) GTEST_SKIP() << "this kernel has no Landlock";
  TempDir base;
  std::string root = base / "root";
  std::string outside = base / "outside";
  ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
  WriteFile(outside + "/secret", "SECRET");
  WriteFile(outside + "/victim", "VICTIM");
  WriteFile(root + "/read-me", "inside");
  WriteFile(root + "/write-me", "inside");

  // The child confines itself first, then tells the parent to start the
  // swappers (the parent's threads are not the child's: it stays
  // single-threaded until confined).
  int ready[2], go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  Swapper reads(root, "read-me", "inside", outside + "/secret");
  Swapper writes(root, "write-me", "inside", outside + "/victim");
  // The fork must not catch the starter halfway through its own start (it
  // could hold the allocator's lock, and the child would wait on it for
  // ever): the child is forked once the starter waits in read().
  std::atomic<bool> starter_running{false};
  std::thread starter([&] {
    starter_running.store(true);
    char byte;
    if (read(ready[0], &byte, 1) == 1) {
      reads.Start();
      writes.Start();
    }
    if (write(go[1], "g", 1) != 1) return;
  });
  while (!starter_running.load())
    std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // into its read()

  auto result = RunInChild([&](Failures& f) {
    unsetenv(plughost::kConfineEnvironment);
    plughost::ConfineRequest request;
    request.root = root;
    f.Expect(plughost::Confine(request).mode == plughost::ConfineMode::kLandlock, "not confined");
    char byte = 'r';
    if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1) {
      f.Expect(false, "no start signal");
      return;
    }
    long escapes = 0, inside = 0, denied = 0, written = 0, write_denied = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int i = 0; i < 200000; ++i) {
      if (i >= 2000 && denied >= 20 && inside >= 20 && written >= 20 && write_denied >= 20) break;
      if (std::chrono::steady_clock::now() > deadline) break;
      int fd = open((root + "/read-me").c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0) {
        char buffer[16] = {};
        ssize_t n = read(fd, buffer, sizeof buffer - 1);
        close(fd);
        std::string content(buffer, n > 0 ? static_cast<size_t>(n) : 0);
        if (content == "SECRET") ++escapes;
        if (content == "inside") ++inside;
      } else if (errno == EACCES) {
        ++denied;
      }
      fd = open((root + "/write-me").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
      if (fd >= 0) {
        if (write(fd, "ESCAPED", 7) == 7) ++written;
        close(fd);
      } else if (errno == EACCES) {
        ++write_denied;
      }
    }
    f.Expect(escapes == 0, std::to_string(escapes) + " reads of the outside file");
    // The race really ran: both forms of each name were met.
    f.Expect(inside > 0 && denied > 0,
             "reads: " + std::to_string(inside) + " inside, " + std::to_string(denied) + " denied");
    f.Expect(written > 0 && write_denied > 0, "writes: " + std::to_string(written) + " inside, " +
                                                  std::to_string(write_denied) + " denied");
  });
  close(ready[1]);  // a child that never got ready releases the starter
  starter.join();
  reads.Stop();
  writes.Stop();
  close(ready[0]);
  close(go[0]);
  close(go[1]);
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.failures, "");
  EXPECT_GT(reads.swaps(), 0);
  EXPECT_EQ(ReadFile(outside + "/victim"), "VICTIM");
  EXPECT_EQ(ReadFile(outside + "/secret"), "SECRET");
}

}  // namespace
