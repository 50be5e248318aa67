// Refresh spacing and the lock-out after ten failures in a row. The spacing
// and failure count are process-wide, so each test runs in its own process
// (per-test discovery); these tests wait out real five-second gaps.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "tests/protocol/auth_test_support.h"

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

// Slack for scheduling on a loaded machine.
constexpr milliseconds kSlack(150);

long long Ms(Clock::duration d) {
  return duration_cast<milliseconds>(d).count();
}

class RefreshSpacing : public ::testing::Test {
 protected:
  void SetUp() override {
    for (AuthProtocol* p : {&first, &second}) {
      p->pid = "pid";
      p->refresher = &provider;
      p->auth_document = "{\"results\":{}}";
    }
  }
  SafeLog log;
  ScopedLogger bound{&log};
  SafeManager manager;
  ScriptedProvider provider;
  AuthProtocol first{&manager};
  AuthProtocol second{&manager};
};

TEST_F(RefreshSpacing, SecondRefreshWaitsFiveSecondsInWholeSecondSteps) {
  provider.answer = [](SuperProtocol*, const std::string&) {
    return ScriptedProvider::Text("{\"results\":{\"access_token\":\"t\"}}");
  };
  const auto start = Clock::now();
  ASSERT_EQ(first._RefreshAuth(), RETRY);
  const auto first_done = Clock::now();
  EXPECT_LT(first_done - start, seconds(1));  // the first refresh never waits

  ASSERT_EQ(first._RefreshAuth(), RETRY);
  const auto calls = provider.Calls();
  ASSERT_EQ(calls.size(), 2u);
  const auto gap = calls[1].when - first_done;
  EXPECT_GE(gap, seconds(5) - kSlack) << Ms(gap) << " ms";
  // Sleeping in one-second steps overshoots by less than a step.
  EXPECT_LT(calls[1].when - calls[0].when, seconds(6) + seconds(1)) << Ms(gap) << " ms";
}

TEST_F(RefreshSpacing, IsSharedByAllObjectsAndCountsFailedRefreshes) {
  provider.answer = [](SuperProtocol* asking, const std::string&) {
    (void)asking;
    return ScriptedProvider::Null();
  };
  ASSERT_EQ(first._RefreshAuth(), FAILED);
  const auto first_done = Clock::now();

  provider.answer = [](SuperProtocol*, const std::string&) {
    return ScriptedProvider::Text("{\"results\":{\"refresh_token\":\"r\"}}");
  };
  ASSERT_EQ(second._RefreshAuth(), RETRY);
  const auto calls = provider.Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].protocol, &first);
  EXPECT_EQ(calls[1].protocol, &second);
  EXPECT_GE(calls[1].when - first_done, seconds(5) - kSlack);
  EXPECT_EQ(second.auth_document, "{\"results\":{\"refresh_token\":\"r\"}}");
  EXPECT_EQ(first.auth_document, "{\"results\":{}}");
}

// Reads one byte from `fd`, waiting at most `timeout`; -1 on timeout.
int ReadByte(int fd, milliseconds timeout) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return -1;
  char c = 0;
  if (read(fd, &c, 1) != 1) return -1;
  return static_cast<unsigned char>(c);
}

TEST(RefreshLockOut, TenFailuresThenGivesUpAndKeepsTheLock) {
  SafeLog log;
  ScopedLogger bound(&log);
  SafeManager manager;
  ScriptedProvider provider;
  provider.answer = [](SuperProtocol*, const std::string&) { return ScriptedProvider::Null(); };
  AuthProtocol proto(&manager);
  proto.refresher = &provider;
  proto.auth_document = "{\"results\":{\"access_token\":\"a\"}}";

  for (int i = 0; i < 10; ++i) {
    SCOPED_TRACE(i);
    ASSERT_EQ(proto._RefreshAuth(), FAILED);
  }
  ASSERT_EQ(provider.Calls().size(), 10u);

  // The eleventh call gives up without asking the provider and logs nothing
  // after its first line.
  const std::size_t lines_before = log.Lines().size();
  EXPECT_EQ(proto._RefreshAuth(), FAILED);
  EXPECT_EQ(provider.Calls().size(), 10u);
  const auto lines = log.Texts();
  ASSERT_EQ(lines.size(), lines_before + 1);
  EXPECT_EQ(lines.back(), "[PROTOCOL  ] Refresh token called");

  // A twelfth call from another thread blocks on the lock the eleventh kept.
  // It runs in a child process so that no blocked thread stays behind here.
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    close(pipe_fds[0]);
    const int out = pipe_fds[1];
    std::thread caller([&] {
      (void)!write(out, "s", 1);
      const AERROR r = proto._RefreshAuth();
      const char done = r == RETRY ? 'r' : 'f';
      (void)!write(out, &done, 1);
    });
    caller.join();
    _exit(0);
  }
  close(pipe_fds[1]);
  EXPECT_EQ(ReadByte(pipe_fds[0], seconds(30)), 's');
  // Still blocked well after it started; the process has not ended either.
  EXPECT_EQ(ReadByte(pipe_fds[0], milliseconds(2000)), -1);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);
  kill(child, SIGKILL);
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  close(pipe_fds[0]);

  // This thread still holds the lock from the eleventh call; give it back so
  // the object is destroyed unlocked.
  proto.refresh_lock.unlock();
}

}  // namespace
