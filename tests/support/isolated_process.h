// Test support: runs one scenario in a forked child process, since the module
// registry, the callback queue and the bridge's start flag live for the whole
// process. GoogleTest assertions work inside the scenario; a failure makes the
// child exit non-zero. The child leaves with _exit(), so no exit handlers (nor
// the leak check over the registry kept on purpose) run; one that is still
// running after the timeout is ended by SIGALRM. With `memory_headroom`, the
// child may map at most that many bytes beyond what it has mapped at the
// fork (RLIMIT_AS), so a scenario that reads without end fails instead of
// exhausting the machine; the limit is relative because sanitizers reserve
// vast address ranges up front.
#ifndef TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H
#define TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fstream>

namespace tessmar::testing {

template <typename Scenario>
::testing::AssertionResult RunIsolated(Scenario scenario, int timeout_seconds = 30,
                                       std::size_t memory_headroom = 0) {
  std::fflush(nullptr);  // or unwritten output is printed twice
  const pid_t pid = fork();
  if (pid < 0) return ::testing::AssertionFailure() << "fork: errno " << errno;
  if (pid == 0) {
    alarm(static_cast<unsigned>(timeout_seconds));
    if (memory_headroom != 0) {
      std::size_t pages = 0;  // mapped now
      std::ifstream("/proc/self/statm") >> pages;
      const rlim_t limit = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + memory_headroom;
      const rlimit bounds{limit, limit};
      setrlimit(RLIMIT_AS, &bounds);
    }
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
