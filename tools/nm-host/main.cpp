// tessmar-nm-host: the native-messaging host through which a browser
// extension of today's Firefox or Chromium reaches libTessmarFirefox.so.
// The browser starts it and talks to it over stdin and stdout (messages.h);
// it loads the library with dlopen, resolves the tsmx_ functions by name as
// an extension that loads the library itself would, and serves one request
// at a time from one thread (server.h). Installed as "TessmarChrome" in the
// installation directory.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bridge_loader.h"
#include "config_directory.h"
#include "fallback_library.h"
#include "manifests.h"
#include "options.h"
#include "posix_io.h"
#include "server.h"
#include "tessmar/json_document.h"

namespace {

using namespace tessmar::nm;

constexpr char kProgram[] = "tessmar-nm-host";
constexpr char kLibraryName[] = "libTessmarFirefox.so";

// Descriptors 0 to 2 that are closed are opened on /dev/null, so that no
// file opened later (the protocol's own copies, the library's FIFOs) takes
// their place and receives what is written to them.
void OpenStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) continue;
    const int null = open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (null >= 0 && null != fd) {
      dup2(null, fd);
      close(null);
    }
  }
}

std::string SelfPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The "Tessmar" directory of the configuration file the library reads: the
// user's config.json when it exists, else the system one.
std::string ConfiguredInstallDir() {
  const std::string user = tessmar::tools::UserConfigDirectory();
  std::string path = user.empty() ? user : user + "/config.json";
  if (path.empty() || !Exists(path)) {
    path = std::string(tessmar::tools::kSystemConfigDirectory) + "/config.json";
  }
  std::string text;
  tessmar::tools::ReadRegularFile(path, 1 << 20, &text);
  return tessmar::JsonDocument(text).String("Tessmar");
}

std::string DefaultLibrary() {
  const std::string self = SelfPath();
  if (!self.empty()) {
    const std::string beside = self.substr(0, self.rfind('/') + 1) + kLibraryName;
    if (Exists(beside)) return beside;
  }
  const std::string dir = ConfiguredInstallDir();
  if (!dir.empty() && Exists(dir + "/" + kLibraryName)) {
    return dir + "/" + kLibraryName;
  }
  // Set per executable: the installation directory for the installed
  // program, the build tree's library for the build tree's.
  return std::string(kFallbackLibrary);
}

// The name this program was started as, for its usage lines.
std::string ProgramName(const char* argv0) {
  const std::string name = argv0 != nullptr ? argv0 : "";
  const std::string base = name.substr(name.rfind('/') + 1);
  return base.empty() ? kProgram : base;
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardDescriptors();
  // Standard output carries the protocol alone: keep a private descriptor
  // for it and send whatever else writes to descriptor 1 (modules, the
  // library, the host) to stderr. The input gets the same treatment, so that
  // nothing started from here holds the browser's pipes.
  const int in = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  const int out = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, STDIN_FILENO);
    close(null);
  }

  const std::string usage = Usage(ProgramName(argc > 0 ? argv[0] : nullptr));
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fputs(usage.c_str(), stderr);
    return kExitUsage;
  }
  // --help, --version and the manifest path are for a person: they go to
  // the real standard output.
  if (options.help || options.version || !options.install_manifests.empty() ||
      !options.uninstall_manifests.empty()) {
    dup2(out, STDOUT_FILENO);
    if (options.help) std::fputs(usage.c_str(), stdout);
    if (options.version) std::printf("tessmar-nm-host %s\n", TESSMAR_TOOL_VERSION);
    if (!options.install_manifests.empty()) return InstallManifest(options);
    if (!options.uninstall_manifests.empty()) return UninstallManifest(options);
    return kExitOk;
  }
  if (in < 0 || out < 0) {
    std::fprintf(stderr, "tessmar-nm-host: no standard input or output\n");
    return kExitUsage;
  }

  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error to handle
  tessmar::tools::Bridge bridge;
  if (!tessmar::tools::LoadBridge(
          kProgram, options.library.empty() ? DefaultLibrary() : options.library,
          bridge)) {
    return kExitLoadFailed;
  }
  if (options.host) {
    if (!tessmar::tools::HostIsRunnable(kProgram, bridge)) return kExitNoHost;
    if (!tessmar::tools::StartHost(kProgram, bridge)) return kExitStartupFailed;
  }
  return Serve(bridge, in, out, options.host);
}
