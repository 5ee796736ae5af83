// tessmar-drive: plays the browser extension's part against a built
// libTessmarFirefox.so. It loads the library by path, resolves the tsmx_
// functions by name, optionally starts the host, sends requests one at a time
// and prints the replies and the queued callback messages.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
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

#include "bridge/fifo_names.h"
#include "config/config_location.h"

namespace {

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
    "\"callback: TEXT\".\n"
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
// the build tree's.
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

// The library's interface, resolved by name like the extension does.
struct Bridge {
  int (*Startup)(void) = nullptr;
  void (*End)(void) = nullptr;
  char* (*Invoke)(const char*) = nullptr;
  char* (*Pop)(void) = nullptr;
  void (*Free)(char*) = nullptr;
  // The exported C++ function that names the installation directory.
  std::string (*InstallPath)() = nullptr;
};

// GetTessmarInstallPath(), a C++ function returning std::string.
constexpr char kInstallPathSymbol[] = "_Z21GetTessmarInstallPathB5cxx11v";

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

template <typename Function>
bool Resolve(void* library, const char* name, Function& out) {
  dlerror();
  void* symbol = dlsym(library, name);
  if (symbol == nullptr) {
    const char* error = dlerror();
    std::fprintf(stderr, "tessmar-drive: cannot resolve %s: %s\n", name,
                 error != nullptr ? error : "null symbol");
    return false;
  }
  out = reinterpret_cast<Function>(symbol);
  return true;
}

bool LoadBridge(const std::string& path, Bridge& bridge) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "tessmar-drive: cannot load %s: %s\n", path.c_str(),
                 dlerror());
    return false;
  }
  // The library stays loaded until exit: its reader thread and any module
  // it loaded may still run code from it.
  return Resolve(library, "tsmx_Startup", bridge.Startup) &&
         Resolve(library, "tsmx_End", bridge.End) &&
         Resolve(library, "tsmx_Invoke", bridge.Invoke) &&
         Resolve(library, "tsmx_Pop", bridge.Pop) &&
         Resolve(library, "tsmx_Free", bridge.Free) &&
         Resolve(library, kInstallPathSymbol, bridge.InstallPath);
}

// tsmx_Startup blocks until a host opens the FIFOs, so a host that cannot
// run would hang it for ever; check it before starting.
bool HostIsRunnable(const Bridge& bridge) {
  const std::string host =
      bridge.InstallPath() + "/" + tessmar::bridge::kHostExecutableName;
  struct stat info;
  if (stat(host.c_str(), &info) != 0) {
    std::fprintf(stderr,
                 "tessmar-drive: no host executable at %s (%s); check "
                 "\"Tessmar\" in config.json\n",
                 host.c_str(), std::strerror(errno));
    return false;
  }
  if (!S_ISREG(info.st_mode) || access(host.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "tessmar-drive: %s is not an executable file\n",
                 host.c_str());
    return false;
  }
  return true;
}

std::string FifoPath(const char* name) {
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : "") +
         tessmar::kUserConfigSubdirectory + "/" + name;
}

// Runs in the forked child of tsmx_Startup when the host could not be
// executed: the library lets that child return into its caller. The parent
// is blocked opening the FIFOs; opening and closing their other ends in the
// host's order releases it, and it then finds the pipes already closed.
[[noreturn]] void ReleaseParentAndExit(int failure_pipe) {
  const char failed = 1;
  if (write(failure_pipe, &failed, 1) != 1) {
    // The parent then takes the host for started; its requests get <null>.
  }
  const struct {
    const char* name;
    int flags;
  } ends[] = {{tessmar::bridge::kRequestFifoName, O_RDONLY},
              {tessmar::bridge::kReplyFifoName, O_WRONLY},
              {tessmar::bridge::kCallbackFifoName, O_WRONLY}};
  for (const auto& end : ends) {
    const int fd = open(FifoPath(end.name).c_str(), end.flags);
    if (fd >= 0) close(fd);
  }
  _exit(127);
}

// Starts the host. Returns false (after cleaning up) when it did not start.
bool StartHost(const Bridge& bridge) {
  // A close-on-exec pipe tells whether the child's exec succeeded: the exec
  // closes the child's write end unseen; a failed child writes one byte.
  int failure[2];
  if (pipe2(failure, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "tessmar-drive: pipe: %s\n", std::strerror(errno));
    return false;
  }
  const pid_t self = getpid();
  const int started = bridge.Startup();
  if (getpid() != self) ReleaseParentAndExit(failure[1]);
  close(failure[1]);

  char byte = 0;
  ssize_t got;
  do {
    got = read(failure[0], &byte, 1);
  } while (got < 0 && errno == EINTR);
  close(failure[0]);
  if (started != 0) {
    std::fprintf(stderr,
                 "tessmar-drive: tsmx_Startup failed (the FIFOs could not be "
                 "created or the process could not fork)\n");
    return false;
  }
  if (got == 1) {
    std::fprintf(stderr, "tessmar-drive: the host could not be executed\n");
    bridge.End();  // removes the FIFOs and reaps the failed child
    return false;
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
  if (!LoadBridge(options.library, bridge)) return kExitLoadFailed;
  if (options.host) {
    if (!HostIsRunnable(bridge)) return kExitNoHost;
    if (!StartHost(bridge)) return kExitStartupFailed;
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
  std::cout.flush();
  return kExitOk;
}
