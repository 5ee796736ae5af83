#include "bridge_loader.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tessmar/host_protocol.h"

namespace tessmar::tools {
namespace {

constexpr char kInstallPathSymbol[] = "_Z21GetTessmarInstallPathB5cxx11v";
constexpr char kUnloadSymbol[] = "_Z14UnloadQxClientv";

template <typename Function>
bool Resolve(const char* program, void* library, const char* name,
             Function& out) {
  dlerror();
  void* symbol = dlsym(library, name);
  if (symbol == nullptr) {
    const char* error = dlerror();
    std::fprintf(stderr, "%s: cannot resolve %s: %s\n", program, name,
                 error != nullptr ? error : "null symbol");
    return false;
  }
  out = reinterpret_cast<Function>(symbol);
  return true;
}

// In the child of tsmx_Startup whose exec failed (the library returns into
// its caller there): tells the parent, and opens and closes the other ends of
// the FIFOs in the host's order so that the parent's blocking opens return.
[[noreturn]] void ReleaseParentAndExit(int failure_pipe) {
  const char failed = 1;
  if (write(failure_pipe, &failed, 1) != 1) {
    // The parent then takes the host for started; its requests get null.
  }
  const char* home = std::getenv("HOME");
  const std::string dir = std::string(home != nullptr ? home : "") +
                          tessmar::kUserConfigSubdirectory + "/";
  const struct {
    const char* name;
    int flags;
  } ends[] = {{tessmar::bridge::kRequestFifoName, O_RDONLY},
              {tessmar::bridge::kReplyFifoName, O_WRONLY},
              {tessmar::bridge::kCallbackFifoName, O_WRONLY}};
  for (const auto& end : ends) {
    const int fd = open((dir + end.name).c_str(), end.flags);
    if (fd >= 0) close(fd);
  }
  _exit(127);
}

}  // namespace

bool LoadBridge(const char* program, const std::string& path, Bridge& bridge) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "%s: cannot load %s: %s\n", program, path.c_str(),
                 dlerror());
    return false;
  }
  return Resolve(program, library, "tsmx_Startup", bridge.Startup) &&
         Resolve(program, library, "tsmx_End", bridge.End) &&
         Resolve(program, library, "tsmx_Invoke", bridge.Invoke) &&
         Resolve(program, library, "tsmx_Pop", bridge.Pop) &&
         Resolve(program, library, "tsmx_Free", bridge.Free) &&
         Resolve(program, library, "tsmx_CallbackDescriptor",
                 bridge.CallbackDescriptor) &&
         Resolve(program, library, kInstallPathSymbol, bridge.InstallPath) &&
         Resolve(program, library, kUnloadSymbol, bridge.Unload);
}

bool HostIsRunnable(const char* program, const Bridge& bridge) {
  const std::string host =
      bridge.InstallPath() + "/" + tessmar::bridge::kHostExecutableName;
  struct stat info;
  if (stat(host.c_str(), &info) != 0) {
    std::fprintf(stderr,
                 "%s: no host executable at %s (%s); check \"Tessmar\" in "
                 "config.json\n",
                 program, host.c_str(), std::strerror(errno));
    return false;
  }
  if (!S_ISREG(info.st_mode) || access(host.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "%s: %s is not an executable file\n", program,
                 host.c_str());
    return false;
  }
  return true;
}

bool StartHost(const char* program, const Bridge& bridge) {
  // A close-on-exec pipe tells whether the child's exec succeeded: the exec
  // closes the child's write end unseen; a failed child writes one byte.
  int failure[2];
  if (pipe2(failure, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "%s: pipe: %s\n", program, std::strerror(errno));
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
                 "%s: tsmx_Startup failed (the FIFOs could not be created or "
                 "the process could not fork)\n",
                 program);
    return false;
  }
  if (got == 1) {
    std::fprintf(stderr, "%s: the host could not be executed\n", program);
    bridge.End();  // removes the FIFOs and reaps the failed child
    return false;
  }
  return true;
}

}  // namespace tessmar::tools
