#include "bridge_host/host_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <cstdio>
#include <thread>

#include "bridge/fifo_names.h"
#include "config/config_location.h"
#include "tessmar/bridge.h"

namespace tessmar::testing {
namespace {

constexpr int kTimedOut = -1;
constexpr int kWaitFailed = -2;

// Waits for `pid` until the deadline; on timeout kills its whole process
// group (the host it started included). Returns the wait status, kTimedOut
// or kWaitFailed.
int WaitWithDeadline(pid_t pid, milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) return kWaitFailed;
    if (std::chrono::steady_clock::now() >= end) {
      kill(-pid, SIGKILL);
      waitpid(pid, &status, 0);
      return kTimedOut;
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
  // Whatever the scenario left behind (a host still blocked in a read after
  // a failed assertion) goes with its group.
  kill(-pid, SIGKILL);
  return status;
}

std::string Describe(int status) {
  if (status == kTimedOut) return "timed out";
  if (status == kWaitFailed) return "could not be waited for";
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status) == 0
               ? ""
               : "failed (exit " + std::to_string(WEXITSTATUS(status)) + ")";
  }
  if (WIFSIGNALED(status)) {
    return "killed by signal " + std::to_string(WTERMSIG(status));
  }
  return "ended oddly";
}

std::string FifoPath(const char* name) {
  return std::string(std::getenv("HOME")) + kUserConfigSubdirectory + "/" +
         name;
}

}  // namespace

void RunScenario(const std::function<void()>& body, milliseconds deadline) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0) << "fork: " << std::strerror(errno);
  if (pid == 0) {
    setpgid(0, 0);
    signal(SIGPIPE, SIG_IGN);
    body();
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  setpgid(pid, pid);  // both sides set it, so the kill never races the child
  const std::string outcome = Describe(WaitWithDeadline(pid, deadline));
  if (!outcome.empty()) ADD_FAILURE() << "the scenario's process " << outcome;
}

ProgramResult RunProgram(const std::vector<std::string>& argv,
                         const std::string& input,
                         const std::vector<std::string>& unset,
                         milliseconds deadline) {
  ProgramResult result;
  const char* tmp = std::getenv("TMPDIR");
  std::string dir =
      std::string(tmp != nullptr ? tmp : "/tmp") + "/tessmar-run-XXXXXX";
  if (mkdtemp(&dir[0]) == nullptr) return result;
  const std::string in_path = dir + "/in";
  const std::string out_path = dir + "/out";
  const std::string err_path = dir + "/err";
  WriteFile(in_path, input);

  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    const int in = open(in_path.c_str(), O_RDONLY);
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    for (const std::string& name : unset) unsetenv(name.c_str());
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid > 0) {
    setpgid(pid, pid);
    const int status = WaitWithDeadline(pid, deadline);
    result.timed_out = status == kTimedOut;
    if (status >= 0 && WIFEXITED(status)) {
      result.exit_code = WEXITSTATUS(status);
    }
  }
  result.out = ReadFile(out_path);
  result.err = ReadFile(err_path);
  for (const std::string& path : {in_path, out_path, err_path}) {
    unlink(path.c_str());
  }
  rmdir(dir.c_str());
  return result;
}

std::string SelfExecutable() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return std::string(path, n > 0 ? static_cast<std::size_t>(n) : 0);
}

std::string ReplyFifo() { return FifoPath(tessmar::bridge::kReplyFifoName); }
std::string RequestFifo() {
  return FifoPath(tessmar::bridge::kRequestFifoName);
}
std::string CallbackFifo() {
  return FifoPath(tessmar::bridge::kCallbackFifoName);
}

std::string LinkHost(const std::string& install_dir, const std::string& host) {
  MakeDirectories(install_dir);
  const std::string path =
      install_dir + "/" + tessmar::bridge::kHostExecutableName;
  unlink(path.c_str());
  EXPECT_EQ(0, symlink(host.c_str(), path.c_str())) << path;
  return path;
}

std::string InstallHost(const TempHome& home, const std::string& host,
                        const std::string& extra) {
  const std::string install = home.path() + "/install";
  home.WriteConfig("config.json",
                   "{" + extra + "\"Tessmar\":\"" + install + "\"}");
  return LinkHost(install, host);
}

std::vector<std::string> PopMessages(std::size_t count, milliseconds deadline) {
  std::vector<std::string> messages;
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (messages.size() < count && std::chrono::steady_clock::now() < end) {
    char* text = tsmx_Pop();
    if (text != nullptr && *text != '\0') {
      messages.emplace_back(text);
    } else {
      std::this_thread::sleep_for(milliseconds(2));
    }
    tsmx_Free(text);
  }
  return messages;
}

std::string InvokeText(const std::string& request) {
  char* reply = tsmx_Invoke(request.c_str());
  if (reply == nullptr) return "<null>";
  std::string text = reply;
  tsmx_Free(reply);
  return text;
}

bool Absent(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) != 0 && errno == ENOENT;
}

}  // namespace tessmar::testing
