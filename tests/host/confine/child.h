// Runs a test body in a forked child, so that confining it leaves the test
// process as it was. The body returns its failures as text ("" when all
// held); the parent reads them back through a pipe.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "tests/support/files.h"

namespace confine_test {

struct ChildResult {
  bool exited = false;  // ended through _exit, not by a signal
  std::string failures;
};

// Collects failed expectations inside the child.
class Failures {
 public:
  void Expect(bool condition, const std::string& what) {
    if (!condition) text_ += what + "\n";
  }
  // An errno result: `call` returned -1 with `error`.
  void ExpectErrno(long result, int error, const std::string& what) {
    int seen = errno;
    if (result != -1 || seen != error) {
      text_ += what + ": expected " + std::strerror(error) + ", got " +
               (result == -1 ? std::string(std::strerror(seen)) : "success") + "\n";
    }
  }
  void ExpectOk(long result, const std::string& what) {
    int seen = errno;
    if (result == -1) text_ += what + ": " + std::strerror(seen) + "\n";
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

inline ChildResult RunInChild(const std::function<void(Failures&)>& body) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return {false, "pipe failed"};
  pid_t pid = fork();
  if (pid < 0) return {false, "fork failed"};
  if (pid == 0) {
    // A child stuck for good (a lock held at the fork) fails its test by
    // SIGALRM instead of hanging it until the test runner's timeout.
    alarm(240);
    close(fds[0]);
    Failures failures;
    try {
      body(failures);
    } catch (const std::exception& error) {
      failures.Expect(false, std::string("exception: ") + error.what());
    }
    const std::string& text = failures.text();
    size_t done = 0;
    while (done < text.size()) {
      ssize_t n = write(fds[1], text.data() + done, text.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    // No exit handlers: the child shares the parent's gtest state.
    _exit(0);
  }
  close(fds[1]);
  ChildResult result;
  result.failures = test_support::ReadFd(fds[0]);
  close(fds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exited = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return result;
}

}  // namespace confine_test
