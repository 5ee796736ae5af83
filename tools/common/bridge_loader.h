// The bridge library as the browser extension sees it: loaded by path,
// its functions resolved by name, and its host started. Shared by the
// programs that play the extension's part (tessmar-drive, tessmar-nm-host).
// Every failure is reported on stderr, prefixed with the program's name.
#ifndef TESSMAR_TOOLS_COMMON_BRIDGE_LOADER_H_
#define TESSMAR_TOOLS_COMMON_BRIDGE_LOADER_H_

#include <string>

namespace tessmar::tools {

struct Bridge {
  int (*Startup)(void) = nullptr;
  void (*End)(void) = nullptr;
  char* (*Invoke)(const char*) = nullptr;
  char* (*Pop)(void) = nullptr;
  void (*Free)(char*) = nullptr;
  int (*CallbackDescriptor)(void) = nullptr;
  std::string (*InstallPath)() = nullptr;  // GetTessmarInstallPath()
  void (*Unload)() = nullptr;               // UnloadQxClient()
};

// Loads the library at `path` for good (module threads may run its code
// until exit) and resolves every member of `bridge`.
bool LoadBridge(const char* program, const std::string& path, Bridge& bridge);

// tsmx_Startup blocks until a host opens the FIFOs, so a host that cannot
// run would hang it for ever: true when the installation's host executable
// exists and is executable.
bool HostIsRunnable(const char* program, const Bridge& bridge);

// Starts the host with tsmx_Startup; false, after cleaning up, when it did
// not start.
bool StartHost(const char* program, const Bridge& bridge);

}  // namespace tessmar::tools

#endif  // TESSMAR_TOOLS_COMMON_BRIDGE_LOADER_H_
