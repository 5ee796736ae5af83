// Test support: runs one scenario in a forked child process, since the module
// registry, the callback queue and the bridge's start flag live for the whole
// process. GoogleTest assertions work inside the scenario; a failure makes the
// child exit non-zero. The child leaves with _exit(), so no exit handlers (nor
// the leak check over the registry kept on purpose) run; one that is still
// running after the timeout is ended by SIGALRM.
#ifndef TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H
#define TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tessmar::testing {

template <typename Scenario>
::testing::AssertionResult RunIsolated(Scenario scenario, int timeout_seconds = 30) {
  std::fflush(nullptr);  // or unwritten output is printed twice
  const pid_t pid = fork();
  if (pid < 0) return ::testing::AssertionFailure() << "fork: errno " << errno;
  if (pid == 0) {
    alarm(static_cast<unsigned>(timeout_seconds));
    scenario();
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return ::testing::AssertionFailure() << "waitpid";
  }
  if (WIFSIGNALED(status)) {
    return ::testing::AssertionFailure()
           << (WTERMSIG(status) == SIGALRM ? "scenario timed out, signal " : "signal ")
           << WTERMSIG(status);
  }
  if (WEXITSTATUS(status) == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "scenario failed (see above)";
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H
