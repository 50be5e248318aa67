// Runs a piece of a test in a forked child so that a crash fails that piece
// instead of ending the whole test binary. The child hands back two integers.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

namespace test_support {

struct ChildOutcome {
  bool exited = false;  // the child came back on its own and reported
  std::string how;      // otherwise: how it ended
  int report[2] = {0, 0};
};

// `body` fills report[0..1]; the child leaves with _exit, so no atexit
// handler or test-framework state of the parent runs twice.
inline ChildOutcome RunForked(const std::function<void(int report[2])>& body) {
  ChildOutcome outcome;
  int fds[2];
  if (pipe(fds) != 0) {
    outcome.how = "pipe failed";
    return outcome;
  }
  const pid_t child = fork();
  if (child < 0) {
    close(fds[0]);
    close(fds[1]);
    outcome.how = "fork failed";
    return outcome;
  }
  if (child == 0) {
    close(fds[0]);
    int report[2] = {-1, 0};
    try {
      body(report);
    } catch (...) {
      _exit(4);
    }
    const ssize_t written = write(fds[1], report, sizeof report);
    _exit(written == static_cast<ssize_t>(sizeof report) ? 0 : 3);
  }
  close(fds[1]);
  int report[2] = {0, 0};
  const ssize_t got = read(fds[0], report, sizeof report);
  close(fds[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
  }
  if (WIFSIGNALED(status)) {
    outcome.how = std::string("killed by signal ") + strsignal(WTERMSIG(status));
  } else if (WEXITSTATUS(status) == 4) {
    outcome.how = "an exception escaped";
  } else if (WEXITSTATUS(status) != 0 || got != static_cast<ssize_t>(sizeof report)) {
    outcome.how = "exit status " + std::to_string(WEXITSTATUS(status)) + " without a report";
  } else {
    outcome.exited = true;
    outcome.report[0] = report[0];
    outcome.report[1] = report[1];
  }
  return outcome;
}

}  // namespace test_support
