// TessmarFirefox, the reference host: the process the library starts in
// tsmx_Startup. It answers every request on the request FIFO exactly as the
// library would answer it in-process, and carries the callbacks of the
// modules it loads to the library's callback FIFO.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "callback_channel.h"
#include "framed_pipe.h"
#include "posix_io.h"
#include "request_answer.h"
#include "tessmar/host_protocol.h"
#include "tessmar/modhost.h"
#include "tessmar/module.h"

namespace {

// Exit statuses; listed in the usage text.
constexpr int kExitStopped = 0;
constexpr int kExitUsage = 1;
constexpr int kExitOpenFailed = 2;
constexpr int kExitPipeBroken = 3;

constexpr char kUsage[] =
    "usage: TessmarFirefox\n"
    "       TessmarFirefox --help | --version\n"
    "\n"
    "The native host of the browser bridge. libTessmarFirefox.so starts it\n"
    "from tsmx_Startup with no arguments; it talks to the library over three\n"
    "FIFOs in $HOME/.config/Pelmora/Tessmar/morrowhost, which the library\n"
    "creates, and answers each request as the library would in-process.\n"
    "\n"
    "exit status:\n"
    "  0  the library sent the stop message (or --help, --version)\n"
    "  1  bad arguments, or HOME is unset or empty\n"
    "  2  a FIFO could not be opened or is not a FIFO\n"
    "  3  a pipe broke: a read failed, the request pipe ended without the\n"
    "     stop message, or a reply could not be written\n";

// Modules keep a pointer to this table for as long as they are loaded.
QXHostFuncs g_hostFuncs = tessmar::MakeHostFuncs(tessmar::host::SendCallback);

// Opens a FIFO, blocking until the library opens the other end. Close-on-exec
// so that programs started by modules do not hold the pipes open, which
// would keep the library from seeing end of file when this host exits.
int OpenFifo(const std::string& path, int flags) {
  const int fd = tessmar::tools::OpenRetrying(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) {
    std::fprintf(stderr, "TessmarFirefox: cannot open %s: %s\n", path.c_str(),
                 std::strerror(errno));
    return -1;
  }
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISFIFO(info.st_mode)) {
    std::fprintf(stderr, "TessmarFirefox: %s is not a FIFO\n", path.c_str());
    close(fd);
    return -1;
  }
  return fd;
}

// Answers requests until the stop message. Returns the exit status.
int Serve(int request_fd, int reply_fd) {
  std::string request;
  for (;;) {
    switch (tessmar::host::ReadMessage(request_fd, request, "request")) {
      case tessmar::host::ReadResult::kMessage:
        break;
      case tessmar::host::ReadResult::kEndOfFile:
        std::fprintf(stderr,
                     "TessmarFirefox: the request pipe ended without the stop "
                     "message\n");
        return kExitPipeBroken;
      case tessmar::host::ReadResult::kError:
        return kExitPipeBroken;
    }
    if (request.empty()) return kExitStopped;  // the stop message
    std::string reply = tessmar::host::AnswerRequest(request, &g_hostFuncs);
    if (!tessmar::host::MakeRoomForMessage(reply_fd, reply.size())) {
      // The library would read it short and fall out of step; "no reply"
      // keeps both sides in step.
      std::fprintf(stderr,
                   "TessmarFirefox: a %zu-byte reply does not fit the reply "
                   "pipe; sending no reply instead\n",
                   reply.size());
      reply.clear();
    }
    if (!tessmar::host::WriteMessage(reply_fd, reply, "reply")) {
      return kExitPipeBroken;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("TessmarFirefox %s\n", TESSMAR_TOOL_VERSION);
    return kExitStopped;
  }
  if (argc > 1) {
    const bool help = std::strcmp(argv[1], "--help") == 0 ||
                      std::strcmp(argv[1], "-h") == 0;
    std::fputs(kUsage, help ? stdout : stderr);
    return help ? kExitStopped : kExitUsage;
  }

  // A reader that went away must show up as EPIPE on our write, reported
  // and handled, not as a silent death by SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);

  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') {
    std::fprintf(stderr,
                 "TessmarFirefox: HOME is not set; the FIFOs live under "
                 "$HOME%s\n",
                 tessmar::kUserConfigSubdirectory);
    return kExitUsage;
  }
  const std::string directory =
      std::string(home) + tessmar::kUserConfigSubdirectory + "/";

  // The library opens the request FIFO for writing first, then the reply
  // and callback FIFOs for reading, each open blocking until this side opens
  // the other end; any other order deadlocks both processes.
  const int request_fd =
      OpenFifo(directory + tessmar::bridge::kRequestFifoName, O_RDONLY);
  if (request_fd < 0) return kExitOpenFailed;
  const int reply_fd =
      OpenFifo(directory + tessmar::bridge::kReplyFifoName, O_WRONLY);
  if (reply_fd < 0) {
    close(request_fd);
    return kExitOpenFailed;
  }
  const int callback_fd =
      OpenFifo(directory + tessmar::bridge::kCallbackFifoName, O_WRONLY);
  if (callback_fd < 0) {
    close(reply_fd);
    close(request_fd);
    return kExitOpenFailed;
  }
  tessmar::host::OpenCallbackChannel(callback_fd);

  const int status = Serve(request_fd, reply_fd);

  // Modules stop their threads in Terminate, so no callback can be under way
  // once they are unloaded. Closing the callback pipe then ends the library's
  // reader thread, which tsmx_End joins.
  UnloadQxClient();
  tessmar::host::CloseCallbackChannel();
  close(reply_fd);
  close(request_fd);
  return status;
}
