// The scripted host, and main.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <cstring>

#include "bridge_host/host_fixture.h"
#include "posix_io.h"

namespace tessmar::testing {
namespace {

bool WriteAll(int fd, const std::string& bytes) {
  return tools::WriteFully(fd, bytes.data(), bytes.size());
}

int RunScriptedHost(int argc, char** argv) {
  const std::string record = std::getenv("HOME");
  std::string arguments;
  for (int i = 0; i < argc; ++i) arguments += std::string(argv[i]) + '\0';
  WriteFile(record + "/argv", arguments);
  // The library's order: request for reading, then reply and callback.
  int request = open(RequestFifo().c_str(), O_RDONLY);
  // One page, so that a test can fill the request pipe; set before the
  // library's start-up can return, which waits for the reply end below.
  fcntl(request, F_SETPIPE_SZ, 4096);
  const int reply = open(ReplyFifo().c_str(), O_WRONLY);
  const int callback = open(CallbackFifo().c_str(), O_WRONLY);
  const int input = open((record + "/input").c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
  const int script = open(std::getenv(kScriptVariable), O_RDONLY);
  bool ok = request >= 0 && reply >= 0 && callback >= 0 && input >= 0 && script >= 0;
  char step = 0;
  for (std::string arg, body; ok && read(script, &step, 1) == 1 &&
                              tools::ReadFrame(script, arg) == tools::FrameRead::kMessage;) {
    if (step == 'r') {
      ok = tools::ReadFrame(request, body) == tools::FrameRead::kMessage &&
           WriteAll(input, Frame(body));
    } else if (step == 'd') {
      char part[4096];
      for (ssize_t n; ok && (n = tools::ReadFully(request, part, sizeof part)) > 0;) {
        ok = WriteAll(input, std::string(part, static_cast<std::size_t>(n)));
      }
    } else if (step == 'x') {
      int unread = 0;
      for (int i = 0; i < 1000 && ioctl(request, FIONREAD, &unread) == 0 &&
                      unread < std::stoi(arg);
           ++i) {
        std::this_thread::sleep_for(milliseconds(5));
      }
      close(request);
      request = -1;
    } else if (step == 's') {
      std::this_thread::sleep_for(milliseconds(std::stoi(arg)));
    } else if (step == 'w') {
      // Not checked: after a reply the library gave up on, it may have
      // closed the pipe, and the script still reads the stop message.
      WriteAll(reply, arg);
    } else {
      ok = WriteAll(callback, arg);
    }
    if (!ok) std::fprintf(stderr, "scripted host: step %c failed\n", step);
  }
  for (int fd : {callback, reply, request, input, script}) close(fd);
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace tessmar::testing

int main(int argc, char** argv) {
  const char* slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
  if (slash != nullptr &&
      std::strcmp(slash + 1, tessmar::bridge::kHostExecutableName) == 0 &&
      std::getenv(tessmar::testing::kScriptVariable) != nullptr) {
    return tessmar::testing::RunScriptedHost(argc, argv);
  }
  // A host that is gone must fail the library's writes, not kill the test.
  signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
