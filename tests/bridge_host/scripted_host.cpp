#include "scripted_host.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "bridge/fifo_names.h"
#include "config/config_location.h"

namespace tessmar::testing {
namespace {

std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += kDigits[c >> 4];
    hex += kDigits[c & 15];
  }
  return hex;
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

bool Fail(const std::string& what) {
  std::fprintf(stderr, "scripted host: %s: %s\n", what.c_str(),
               std::strerror(errno));
  return false;
}

bool WriteAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Exactly `size` bytes, or fewer at end of file.
std::string ReadUpTo(int fd, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, &bytes[done], size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

// A message in the bridge's framing, length and body in separate writes.
bool WriteMessage(int fd, const std::string& body) {
  const uint32_t length = static_cast<uint32_t>(body.size());
  if (write(fd, &length, 4) != 4) return false;
  return body.empty() ||
         write(fd, body.data(), body.size()) ==
             static_cast<ssize_t>(body.size());
}

struct Pipes {
  int request = -1;
  int reply = -1;
  int callback = -1;
  int record = -1;
};

bool RunStep(const std::string& op, const std::string& argument,
             const Pipes& pipes) {
  if (op == "read") {
    std::string frame = ReadUpTo(pipes.request, 4);
    if (frame.size() == 4) {
      uint32_t length;
      std::memcpy(&length, frame.data(), 4);
      frame += ReadUpTo(pipes.request, length);
    }
    return WriteAll(pipes.record, frame) || Fail("record");
  }
  if (op == "drain") {
    for (std::string chunk; !(chunk = ReadUpTo(pipes.request, 4096)).empty();) {
      if (!WriteAll(pipes.record, chunk)) return Fail("record");
    }
    return true;
  }
  if (op == "reply") return WriteMessage(pipes.reply, argument) || Fail(op);
  if (op == "raw") {
    return write(pipes.reply, argument.data(), argument.size()) ==
               static_cast<ssize_t>(argument.size()) ||
           Fail(op);
  }
  if (op == "callback") {
    return WriteMessage(pipes.callback, argument) || Fail(op);
  }
  if (op == "sleep") {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(argument)));
    return true;
  }
  errno = EINVAL;
  return Fail("unknown step " + op);
}

int OpenOrDie(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) Fail("open " + path);
  return fd;
}

}  // namespace

HostScript& HostScript::Step(const char* op, const std::string& argument) {
  if (!text_.empty()) text_ += ' ';
  text_ += op;
  text_ += '=';
  text_ += op == std::string("sleep") ? argument : ToHex(argument);
  return *this;
}

bool IsScriptedHostRole(const char* argv0) {
  const char* slash = std::strrchr(argv0, '/');
  const char* base = slash != nullptr ? slash + 1 : argv0;
  return std::strcmp(base, tessmar::bridge::kHostExecutableName) == 0 &&
         std::getenv(kScriptVariable) != nullptr;
}

int RunScriptedHost(int argc, char** argv) {
  const char* record_dir = std::getenv(kRecordVariable);
  const std::string record = record_dir != nullptr ? record_dir : ".";
  std::string arguments;
  for (int i = 0; i < argc; ++i) arguments += std::string(argv[i]) + '\0';
  {
    const int fd = OpenOrDie(record + "/argv", O_WRONLY | O_CREAT | O_TRUNC);
    if (fd < 0 || !WriteAll(fd, arguments)) return 1;
    close(fd);
  }

  // The library's order: request for reading, then reply and callback for
  // writing.
  const char* home = std::getenv("HOME");
  const std::string dir =
      std::string(home != nullptr ? home : "") + kUserConfigSubdirectory + "/";
  Pipes pipes;
  pipes.request = OpenOrDie(dir + tessmar::bridge::kRequestFifoName, O_RDONLY);
  pipes.reply = OpenOrDie(dir + tessmar::bridge::kReplyFifoName, O_WRONLY);
  pipes.callback =
      OpenOrDie(dir + tessmar::bridge::kCallbackFifoName, O_WRONLY);
  pipes.record =
      OpenOrDie(record + "/input", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
  int status = pipes.request < 0 || pipes.reply < 0 || pipes.callback < 0 ||
                       pipes.record < 0
                   ? 1
                   : 0;

  std::istringstream steps(std::getenv(kScriptVariable));
  for (std::string step; status == 0 && steps >> step;) {
    const std::size_t equals = step.find('=');
    const std::string op = step.substr(0, equals);
    const std::string argument = step.substr(equals + 1);
    if (!RunStep(op, op == "sleep" ? argument : FromHex(argument), pipes)) {
      status = 1;
    }
  }
  for (int fd : {pipes.callback, pipes.reply, pipes.request, pipes.record}) {
    if (fd >= 0) close(fd);
  }
  return status;
}

}  // namespace tessmar::testing
