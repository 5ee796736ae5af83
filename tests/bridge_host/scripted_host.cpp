// The scripted host's side of HostScript, and main.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <cstring>
#include <sstream>

#include "bridge_host/host_fixture.h"
#include "posix_io.h"

namespace tessmar::testing {

// Steps travel as "<op><argument in hex>", separated by spaces.
HostScript& HostScript::Step(char op, const std::string& argument) {
  text_ += op;
  for (unsigned char c : argument) {
    text_ += "0123456789abcdef"[c >> 4];
    text_ += "0123456789abcdef"[c & 15];
  }
  text_ += ' ';
  return *this;
}

namespace {

bool WriteAll(int fd, const std::string& bytes) {
  return tools::WriteFully(fd, bytes.data(), bytes.size());
}

// Exactly `size` bytes, or fewer at end of file.
std::string ReadUpTo(int fd, std::size_t size) {
  std::string bytes(size, '\0');
  const ssize_t got = tools::ReadFully(fd, &bytes[0], size);
  bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return bytes;
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
  bool ok = request >= 0 && reply >= 0 && callback >= 0 && input >= 0;
  std::istringstream steps(std::getenv(kScriptVariable));
  for (std::string step; ok && steps >> step;) {
    std::string arg;
    for (std::size_t i = 1; i + 1 < step.size(); i += 2) {
      arg += static_cast<char>(std::stoi(step.substr(i, 2), nullptr, 16));
    }
    if (step[0] == 'r') {
      const std::string length = ReadUpTo(request, 4);
      uint32_t n = 0;
      if (length.size() == 4) std::memcpy(&n, length.data(), 4);
      ok = WriteAll(input, length + ReadUpTo(request, n));
    } else if (step[0] == 'd') {
      for (std::string part; ok && !(part = ReadUpTo(request, 4096)).empty();) {
        ok = WriteAll(input, part);
      }
    } else if (step[0] == 'x') {
      int unread = 0;
      for (int i = 0; i < 1000 && ioctl(request, FIONREAD, &unread) == 0 &&
                      unread < std::stoi(arg);
           ++i) {
        std::this_thread::sleep_for(milliseconds(5));
      }
      close(request);
      request = -1;
    } else if (step[0] == 's') {
      std::this_thread::sleep_for(milliseconds(std::stoi(arg)));
    } else if (step[0] == 'w') {
      // Not checked: after a reply the library gave up on, it may have
      // closed the pipe, and the script still reads the stop message.
      WriteAll(reply, arg);
    } else {
      ok = WriteAll(callback, arg);
    }
    if (!ok) std::fprintf(stderr, "scripted host: step %s failed\n", step.c_str());
  }
  for (int fd : {callback, reply, request, input}) close(fd);
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
