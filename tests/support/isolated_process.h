// Test support: runs one scenario in a forked child process.
//
// The module registry, the callback queue and the bridge's start flag live
// for the whole process and cannot be reset, so every scenario that loads
// modules (or changes bridge state) runs in a fresh child:
//
//   EXPECT_TRUE(RunIsolated([] {
//     ASSERT_EQ(LoadQxClient("a", nullptr), 0);
//     ...
//   }));
//
// GoogleTest assertions work as usual inside the scenario: a failure is
// printed by the child as it happens and turns into a non-zero exit status,
// which RunIsolated reports to the parent. The child ends with _exit() right
// after the scenario, so it runs no exit handlers: no static destructors and
// no LeakSanitizer pass over the module records that the library keeps on
// purpose for the life of the process. A scenario that does not finish within
// the timeout is killed and reported as a failure.
#ifndef TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H
#define TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>

namespace tessmar::testing {

namespace isolated_detail {

// Failed assertions recorded so far in the current test.
inline int FailedParts() {
  const ::testing::TestInfo* info =
      ::testing::UnitTest::GetInstance()->current_test_info();
  if (info == nullptr) return 0;
  const ::testing::TestResult* result = info->result();
  int failed = 0;
  for (int i = 0; i < result->total_part_count(); ++i) {
    if (result->GetTestPartResult(i).failed()) ++failed;
  }
  return failed;
}

inline pid_t WaitForChild(pid_t pid, int* status) {
  pid_t done;
  do {
    done = waitpid(pid, status, 0);
  } while (done < 0 && errno == EINTR);
  return done;
}

}  // namespace isolated_detail

template <typename Scenario>
::testing::AssertionResult RunIsolated(Scenario scenario,
                                       int timeout_seconds = 30) {
  // The child's end of this pipe is never written; the parent sees it close
  // when the child (and with it every thread a module started) is gone.
  int done_pipe[2];
  if (pipe(done_pipe) != 0) {
    return ::testing::AssertionFailure() << "pipe failed, errno " << errno;
  }
  // Unwritten output would otherwise be printed by both processes.
  std::fflush(nullptr);

  const pid_t pid = fork();
  if (pid < 0) {
    close(done_pipe[0]);
    close(done_pipe[1]);
    return ::testing::AssertionFailure() << "fork failed, errno " << errno;
  }
  if (pid == 0) {
    close(done_pipe[0]);
    const int failed_before = isolated_detail::FailedParts();
    scenario();
    const bool failed = isolated_detail::FailedParts() != failed_before;
    std::fflush(nullptr);
    _exit(failed ? 1 : 0);
  }

  close(done_pipe[1]);
  pollfd watch = {done_pipe[0], POLLIN, 0};
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  bool timed_out = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timed_out = true;
      break;
    }
    const int ready = poll(&watch, 1, static_cast<int>(left.count()));
    if (ready > 0) break;  // closed: the child has ended
    if (ready < 0 && errno != EINTR) break;
  }
  close(done_pipe[0]);
  if (timed_out) kill(pid, SIGKILL);

  int status = 0;
  if (isolated_detail::WaitForChild(pid, &status) != pid) {
    return ::testing::AssertionFailure() << "waitpid failed, errno " << errno;
  }
  if (timed_out) {
    return ::testing::AssertionFailure()
           << "scenario did not finish within " << timeout_seconds
           << " s and was killed";
  }
  if (WIFSIGNALED(status)) {
    return ::testing::AssertionFailure()
           << "scenario ended by signal " << WTERMSIG(status);
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return ::testing::AssertionFailure()
           << "scenario failed (exit status " << WEXITSTATUS(status)
           << "); its failures are printed above";
  }
  return ::testing::AssertionSuccess();
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_ISOLATED_PROCESS_H
