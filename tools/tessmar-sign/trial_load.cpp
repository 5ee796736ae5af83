// The trial load of verify-module: a forked child does what LoadQxClient
// does with the module and reports the outcome through a pipe.
#include "trial_load.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tessmar/module.h"

namespace tessmar::sign {
namespace {

// In the child: one line of outcome, "" for success.
std::string LoadHere(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY);
  if (handle == nullptr) {
    const char* error = dlerror();
    return std::string("cannot be loaded: ") + (error ? error : "dlopen failed");
  }
  auto initialize =
      reinterpret_cast<QxInitializeFunc>(dlsym(handle, "Initialize"));
  if (initialize == nullptr) return "exports no Initialize";
  // The host's table is malloc()ed and not cleared.
  auto* funcs = static_cast<QxClientFuncs*>(std::malloc(sizeof(QxClientFuncs)));
  const int result = initialize(funcs);
  if (result != 0) return "Initialize returned " + std::to_string(result);
  return std::string();
}

void WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

std::string TrialLoadProblem(const std::string& path, int timeout_ms) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) {
    return std::string("trial load: pipe: ") + std::strerror(errno);
  }
  const pid_t child = fork();
  if (child < 0) {
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    return std::string("trial load: fork: ") + std::strerror(errno);
  }
  if (child == 0) {
    close(pipe_fds[0]);
    // The module's output is not the tool's.
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
      dup2(null_fd, STDOUT_FILENO);
      close(null_fd);
    }
    // "ok" or the problem; no exit handlers: the module's threads and static
    // objects are not ours to wind down.
    const std::string problem = LoadHere(path);
    WriteAll(pipe_fds[1], problem.empty() ? "ok" : problem);
    _exit(0);
  }
  close(pipe_fds[1]);

  std::string report;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  bool timed_out = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timed_out = true;
      break;
    }
    pollfd readable{pipe_fds[0], POLLIN, 0};
    const int ready = poll(&readable, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      timed_out = ready == 0;
      break;
    }
    char buffer[512];
    const ssize_t n = read(pipe_fds[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the child is done
    report.append(buffer, static_cast<std::size_t>(n));
  }
  close(pipe_fds[0]);
  if (timed_out) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (timed_out) {
    return "Initialize did not return within " + std::to_string(timeout_ms) +
           " ms";
  }
  if (WIFSIGNALED(status)) {
    return std::string("loading it crashed the process (") +
           strsignal(WTERMSIG(status)) + ")";
  }
  if (report == "ok") return std::string();
  if (report.empty()) return "loading it ended the process";
  return report;
}

}  // namespace tessmar::sign
