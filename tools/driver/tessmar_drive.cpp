// tessmar-drive: plays the browser extension's part against a built
// libTessmarFirefox.so. It loads the library by path, resolves the tsmx_
// functions by name, optionally starts the host, sends requests one at a time
// and prints the replies and the queued callback messages.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "bridge_loader.h"

namespace {

using tessmar::tools::Bridge;

constexpr char kProgram[] = "tessmar-drive";
constexpr int kExitOk = 0;
constexpr int kExitLoadFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoHost = 3;
constexpr int kExitStartupFailed = 4;

constexpr char kUsage[] =
    "usage: tessmar-drive [--library PATH] [--host] [--wait-ms N] "
    "[REQUEST...]\n"
    "       tessmar-drive --help | --version\n"
    "\n"
    "Loads the bridge library as the browser extension does and sends each\n"
    "REQUEST to tsmx_Invoke, or, when none is given, each non-empty line of\n"
    "standard input. Each reply is printed on a line of its own, \"<null>\"\n"
    "when there is none. After each request, and once more at the end, the\n"
    "callback queue is drained with tsmx_Pop and every message is printed as\n"
    "\"callback: TEXT\". At the end the loaded modules are unloaded.\n"
    "\n"
    "  --library PATH  the library to load (default: the installed one,\n"
    "                  " TESSMAR_DRIVE_INSTALLED " relative to this\n"
    "                  program, when it exists; else " TESSMAR_DRIVE_LIBRARY
    ")\n"
    "  --host          start the installation's host with tsmx_Startup first\n"
    "                  and stop it with tsmx_End at the end; requests then go\n"
    "                  to the host (an empty request would be its stop\n"
    "                  message and is refused)\n"
    "  --wait-ms N     wait N milliseconds before the final drain, for\n"
    "                  callbacks that arrive late\n"
    "  -h, --help      show this text\n"
    "  --version       show the program's version\n"
    "  --              end the options; what follows are requests\n"
    "\n"
    "exit status:\n"
    "  0  every request was sent (a <null> reply is not an error)\n"
    "  1  the library or one of its functions could not be loaded\n"
    "  2  bad arguments\n"
    "  3  --host, but the host executable is missing or not executable\n"
    "  4  --host, but tsmx_Startup failed or the host could not be started\n";

// The installed library when this program runs from an installation, else
// the fallback this executable was built with (tools/driver/CMakeLists.txt).
std::string DefaultLibrary() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    std::string path(self, static_cast<std::size_t>(n));
    path = path.substr(0, path.rfind('/') + 1) + TESSMAR_DRIVE_INSTALLED;
    if (access(path.c_str(), F_OK) == 0) return path;
  }
  return TESSMAR_DRIVE_LIBRARY;
}

struct Options {
  std::string library = DefaultLibrary();
  bool host = false;
  long wait_ms = 0;
  std::vector<std::string> requests;
};

// Sets `help` or `version` when one of them was asked for; the rest of the
// command line is then not looked at.
bool ParseOptions(int argc, char** argv, Options& options, bool& help,
                  bool& version) {
  help = false;
  version = false;
  bool only_requests = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (only_requests || arg.empty() || arg[0] != '-') {
      options.requests.push_back(arg);
    } else if (arg == "--") {
      only_requests = true;
    } else if (arg == "--help" || arg == "-h") {
      help = true;
      return true;
    } else if (arg == "--version") {
      version = true;
      return true;
    } else if (arg == "--host") {
      options.host = true;
    } else if (arg == "--library" || arg == "--wait-ms") {
      if (i + 1 == argc) {
        std::fprintf(stderr, "tessmar-drive: %s needs a value\n", arg.c_str());
        return false;
      }
      const char* value = argv[++i];
      if (arg == "--library") {
        options.library = value;
        continue;
      }
      char* end = nullptr;
      errno = 0;
      options.wait_ms = std::strtol(value, &end, 10);
      if (errno != 0 || end == value || *end != '\0' || options.wait_ms < 0) {
        std::fprintf(stderr,
                     "tessmar-drive: --wait-ms wants a count of milliseconds, "
                     "not \"%s\"\n",
                     value);
        return false;
      }
    } else {
      std::fprintf(stderr, "tessmar-drive: unknown option %s\n", arg.c_str());
      return false;
    }
  }
  if (options.host) {
    for (const std::string& request : options.requests) {
      if (request.empty()) {
        std::fprintf(stderr,
                     "tessmar-drive: an empty request would stop the host; "
                     "refused\n");
        return false;
      }
    }
  }
  return true;
}

void DrainCallbacks(const Bridge& bridge) {
  for (;;) {
    char* message = bridge.Pop();
    if (message == nullptr) return;
    const bool empty = *message == '\0';
    if (!empty) std::cout << "callback: " << message << '\n';
    bridge.Free(message);
    if (empty) return;  // "" is the empty queue
  }
}

void Send(const Bridge& bridge, const std::string& request) {
  char* reply = bridge.Invoke(request.c_str());
  if (reply == nullptr) {
    std::cout << "<null>\n";
  } else {
    std::cout << reply << '\n';
    bridge.Free(reply);
  }
  DrainCallbacks(bridge);
  std::cout.flush();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  bool help = false;
  bool version = false;
  if (!ParseOptions(argc, argv, options, help, version)) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  if (help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  if (version) {
    std::printf("tessmar-drive %s\n", TESSMAR_TOOL_VERSION);
    return kExitOk;
  }

  // A host that is gone must turn a request into <null>, not kill us.
  std::signal(SIGPIPE, SIG_IGN);

  Bridge bridge;
  if (!tessmar::tools::LoadBridge(kProgram, options.library, bridge)) {
    return kExitLoadFailed;
  }
  if (options.host) {
    if (!tessmar::tools::HostIsRunnable(kProgram, bridge)) return kExitNoHost;
    if (!tessmar::tools::StartHost(kProgram, bridge)) return kExitStartupFailed;
  }

  if (!options.requests.empty()) {
    for (const std::string& request : options.requests) Send(bridge, request);
  } else {
    std::string line;
    while (std::getline(std::cin, line)) {
      if (!line.empty()) Send(bridge, line);
    }
  }

  if (options.wait_ms > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(options.wait_ms));
  }
  DrainCallbacks(bridge);
  if (options.host) bridge.End();
  // As the browser adapter and the reference host do: every module's
  // Terminate runs, so module threads end before the process does.
  bridge.Unload();
  std::cout.flush();
  return kExitOk;
}
