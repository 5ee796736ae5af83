#include "options.h"

#include <cstdio>
#include <string>

#include "messages.h"

namespace tessmar::nm {

namespace {

// "tessmar-nm-host" stands for the program's name in the usage lines.
constexpr char kUsageTemplate[] =
    "usage: tessmar-nm-host [--library PATH] [--host] [CALLER...]\n"
    "       tessmar-nm-host --install-manifests firefox|chromium|chrome\n"
    "                       [--extension-id ID] [--dir DIR]\n"
    "       tessmar-nm-host --uninstall-manifests firefox|chromium|chrome\n"
    "                       [--dir DIR]\n"
    "       tessmar-nm-host --help | --version\n"
    "\n"
    "The native-messaging host " TESSMAR_NM_HOST_NAME
    " of the Tessmar browser extension.\n"
    "The browser starts it; it reads {\"seq\":N,\"request\":TEXT} messages on\n"
    "standard input and answers {\"seq\":N,\"reply\":TEXT} on standard output,\n"
    "with every callback of the library as {\"callback\":TEXT}. It ends, with\n"
    "exit status 0, when standard input ends. CALLER arguments (the browser\n"
    "names the manifest and the extension there) are ignored.\n"
    "\n"
    "  --library PATH   the library to load (default: libTessmarFirefox.so\n"
    "                   beside this program, else in the \"Tessmar\" directory\n"
    "                   of config.json, else in " TESSMAR_NM_HOST_FALLBACK_DIR ")\n"
    "  --host           start the installation's host TessmarFirefox with\n"
    "                   tsmx_Startup and serve requests through it\n"
    "  --install-manifests BROWSER\n"
    "                   write this user's manifest for BROWSER, naming this\n"
    "                   program, print its path and exit:\n"
    "                   firefox  ~/.mozilla/native-messaging-hosts\n"
    "                   chromium ~/.config/chromium/NativeMessagingHosts\n"
    "                   chrome   ~/.config/google-chrome/NativeMessagingHosts\n"
    "  --extension-id ID  the extension allowed to connect (default: the\n"
    "                   example extension, " TESSMAR_NM_FIREFOX_ID
    " in Firefox,\n"
    "                   " TESSMAR_NM_CHROMIUM_ID " in Chromium and Chrome)\n"
    "  --uninstall-manifests BROWSER\n"
    "                   remove the manifest --install-manifests wrote for\n"
    "                   BROWSER, print its path and exit; a symbolic link or\n"
    "                   other file that is not a manifest is left in place\n"
    "  --dir DIR        use the manifest in DIR instead\n"
    "  -h, --help       show this text\n"
    "  --version        show the program's version\n"
    "\n"
    "exit status:\n"
    "  0  standard input ended, or the manifest was written or removed (or\n"
    "     there was none to remove)\n"
    "  1  the library or one of its functions could not be loaded, or the\n"
    "     manifest could not be written or removed\n"
    "  2  bad arguments\n"
    "  3  --host, but the host executable is missing or not executable\n"
    "  4  --host, but tsmx_Startup failed or the host could not be started\n"
    "  5  standard output was closed by the browser\n";

}  // namespace

std::string Usage(const std::string& program) {
  static const std::string kName = "tessmar-nm-host";
  std::string text = kUsageTemplate;
  for (std::size_t at = text.find(kName); at != std::string::npos;
       at = text.find(kName, at + program.size())) {
    text.replace(at, kName.size(), program);
  }
  return text;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.empty() || arg[0] != '-') continue;  // the browser's arguments
    if (arg == "--help" || arg == "-h") {
      options.help = true;
      return true;
    }
    if (arg == "--version") {
      options.version = true;
      return true;
    }
    if (arg == "--host") {
      options.host = true;
      continue;
    }
    std::string* value = arg == "--library"             ? &options.library
                         : arg == "--install-manifests" ? &options.install_manifests
                         : arg == "--uninstall-manifests" ? &options.uninstall_manifests
                         : arg == "--extension-id"      ? &options.extension_id
                         : arg == "--dir"               ? &options.dir
                                                        : nullptr;
    if (value == nullptr) {
      std::fprintf(stderr, "tessmar-nm-host: unknown option %s\n", arg.c_str());
      return false;
    }
    if (i + 1 == argc || argv[i + 1][0] == '\0') {
      std::fprintf(stderr, "tessmar-nm-host: %s needs a value\n", arg.c_str());
      return false;
    }
    *value = argv[++i];
  }
  const bool installing = !options.install_manifests.empty();
  const bool uninstalling = !options.uninstall_manifests.empty();
  if (installing && uninstalling) {
    std::fprintf(stderr,
                 "tessmar-nm-host: --install-manifests and "
                 "--uninstall-manifests exclude each other\n");
    return false;
  }
  if (!installing && !options.extension_id.empty()) {
    std::fprintf(stderr,
                 "tessmar-nm-host: --extension-id goes with "
                 "--install-manifests\n");
    return false;
  }
  if (!installing && !uninstalling && !options.dir.empty()) {
    std::fprintf(stderr,
                 "tessmar-nm-host: --dir goes with --install-manifests or "
                 "--uninstall-manifests\n");
    return false;
  }
  if ((installing || uninstalling) &&
      (options.host || !options.library.empty())) {
    std::fprintf(stderr,
                 "tessmar-nm-host: the manifest options take no --host or "
                 "--library; a manifest cannot pass options\n");
    return false;
  }
  return true;
}

}  // namespace tessmar::nm
