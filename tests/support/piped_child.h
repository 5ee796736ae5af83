// A child process on two pipes, as a browser keeps its native-messaging
// host: the parent writes framed messages to its standard input, reads
// framed messages from its standard output and watches the process. Shared
// by the adapter's tests and its benchmark.
#ifndef TESSMAR_TESTS_SUPPORT_PIPED_CHILD_H
#define TESSMAR_TESTS_SUPPORT_PIPED_CHILD_H

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "frame.h"
#include "posix_io.h"

namespace tessmar::testing {

class PipedChild {
 public:
  // Runs `argv`, after `prepare` in the forked child.
  explicit PipedChild(std::vector<std::string> argv,
                      const std::function<void()>& prepare = [] {})
      : PipedChild([&argv, &prepare] {
          prepare();
          std::vector<char*> args;
          for (std::string& arg : argv) args.push_back(&arg[0]);
          args.push_back(nullptr);
          execv(args[0], args.data());
        }) {}

  // Runs `body` in the forked child, which then exits.
  explicit PipedChild(const std::function<void()>& body) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      close(in[1]);  // a child that does not exec would keep its own input open
      close(out[0]);
      body();
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  ~PipedChild() {
    if (in_ >= 0) close(in_);
    close(out_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  PipedChild(const PipedChild&) = delete;
  PipedChild& operator=(const PipedChild&) = delete;

  void Write(const std::string& bytes) {
    tools::WriteFully(in_, bytes.data(), bytes.size());
  }
  void CloseInput() {
    close(in_);
    in_ = -1;
  }

  // The next message's body, or "<none>" when its output ends (a child that
  // hangs is left to the test's time limit).
  std::string Read() {
    std::string body;
    return tools::ReadFrame(out_, body) == tools::FrameRead::kMessage ? body : "<none>";
  }

  // Context switches of all its threads so far: every wake-up is one.
  long ContextSwitches() const {
    long total = 0;
    std::error_code gone;  // a thread that ends meanwhile counts no more
    for (const auto& task : std::filesystem::directory_iterator(
             "/proc/" + std::to_string(pid_) + "/task", gone)) {
      std::ifstream status(task.path() / "status");
      for (std::string line; std::getline(status, line);) {
        if (line.find("ctxt_switches:") != std::string::npos) {
          total += std::stol(line.substr(line.find(':') + 1));
        }
      }
    }
    return total;
  }

  // Waits for its exit (after CloseInput): its status as waitpid gives it,
  // and in `usage` what it used.
  int Wait(rusage& usage) {
    int status = -1;
    wait4(pid_, &status, 0, &usage);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
};

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_PIPED_CHILD_H
