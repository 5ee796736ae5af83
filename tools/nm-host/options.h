// The command line of tessmar-nm-host and its exit statuses.
#ifndef TESSMAR_TOOLS_NM_HOST_OPTIONS_H
#define TESSMAR_TOOLS_NM_HOST_OPTIONS_H

#include <string>

namespace tessmar::nm {

enum ExitStatus {
  kExitOk = 0,
  kExitLoadFailed = 1,
  kExitUsage = 2,
  kExitNoHost = 3,
  kExitStartupFailed = 4,
  kExitBrowserGone = 5,
};

// The help text, with `program` (the name this program was started as)
// in its usage lines.
std::string Usage(const std::string& program);

struct Options {
  std::string library;  // empty: the default
  bool host = false;
  std::string install_manifests;    // the browser, when asked for
  std::string uninstall_manifests;  // the browser, when asked for
  std::string extension_id;
  std::string dir;
  bool help = false;
  bool version = false;
};

// Fills `options` from argv; false, after a message on stderr, on bad
// arguments. Arguments that are not options are the browser's and ignored.
bool ParseOptions(int argc, char** argv, Options& options);

}  // namespace tessmar::nm

#endif  // TESSMAR_TOOLS_NM_HOST_OPTIONS_H
