// tessmar-nm-host: the native-messaging host through which a browser
// extension of today's Firefox or Chromium reaches libTessmarFirefox.so.
// The browser starts it and talks to it over stdin and stdout (messages.h);
// it loads the library with dlopen, resolves the tsmx_ functions by name as
// an extension that loads the library itself would, serves one request at a
// time with tsmx_Invoke and forwards every queued callback from tsmx_Pop.
// Installed as "TessmarChrome" in the installation directory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "config/config_location.h"
#include "config/json_document.h"
#include "bridge_loader.h"
#include "messages.h"

namespace {

using tessmar::nm::kMaxIncoming;
using tessmar::nm::kMaxOutgoing;
using tessmar::tools::Bridge;

constexpr char kProgram[] = "tessmar-nm-host";

constexpr int kExitOk = 0;
constexpr int kExitLoadFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoHost = 3;
constexpr int kExitStartupFailed = 4;
constexpr int kExitBrowserGone = 5;

// How long the queue of callbacks may wait while no request comes.
constexpr std::chrono::milliseconds kPollInterval(5);

constexpr char kName[] = TESSMAR_NM_HOST_NAME;
constexpr char kLibraryName[] = "libTessmarFirefox.so";

constexpr char kUsage[] =
    "usage: tessmar-nm-host [--library PATH] [--host] [CALLER...]\n"
    "       tessmar-nm-host --install-manifests firefox|chromium|chrome\n"
    "                       [--extension-id ID] [--dir DIR]\n"
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
    "                   of config.json, else the build tree's)\n"
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
    "  --dir DIR        write the manifest into DIR instead\n"
    "  -h, --help       show this text\n"
    "  --version        show the program's version\n"
    "\n"
    "exit status:\n"
    "  0  standard input ended, or the manifest was written\n"
    "  1  the library or one of its functions could not be loaded, or the\n"
    "     manifest could not be written\n"
    "  2  bad arguments\n"
    "  3  --host, but the host executable is missing or not executable\n"
    "  4  --host, but tsmx_Startup failed or the host could not be started\n"
    "  5  standard output was closed by the browser\n";

// --- Options -----------------------------------------------------------------

struct Options {
  std::string library;  // empty: the default
  bool host = false;
  std::string install_manifests;  // the browser, when asked for
  std::string extension_id;
  std::string dir;
  bool help = false;
  bool version = false;
};

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
  const bool manifest_only =
      !options.extension_id.empty() || !options.dir.empty();
  if (options.install_manifests.empty() && manifest_only) {
    std::fprintf(stderr,
                 "tessmar-nm-host: --extension-id and --dir go with "
                 "--install-manifests\n");
    return false;
  }
  if (!options.install_manifests.empty() &&
      (options.host || !options.library.empty())) {
    std::fprintf(stderr,
                 "tessmar-nm-host: --install-manifests takes no --host or "
                 "--library; a manifest cannot pass options\n");
    return false;
  }
  return true;
}

// --- Where things are ----------------------------------------------------------

std::string SelfPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The "Tessmar" directory of the configuration file the library reads: the
// user's config.json when it exists, else the system one.
std::string ConfiguredInstallDir() {
  const char* home = std::getenv("HOME");
  std::string path = home != nullptr ? std::string(home) +
                                           tessmar::kUserConfigSubdirectory +
                                           "/config.json"
                                     : std::string();
  if (path.empty() || !Exists(path)) {
    path = std::string(tessmar::kSystemConfigDirectory) + "/config.json";
  }
  return tessmar::ReadJsonFile(path).String("Tessmar");
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
  return TESSMAR_NM_HOST_LIBRARY;
}

// --- The manifests ---------------------------------------------------------------

// Writes `text` to `path` through a temporary file and a rename.
bool WriteFileAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                      0644);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) ==
            static_cast<ssize_t>(text.size());
  ok = fsync(fd) == 0 && ok;
  ok = close(fd) == 0 && ok;
  if (ok && rename(temporary.c_str(), path.c_str()) == 0) return true;
  unlink(temporary.c_str());
  return false;
}

bool MakeDirectories(const std::string& path) {
  for (std::size_t at = 1; at != std::string::npos;) {
    at = path.find('/', at + 1);
    const std::string prefix = path.substr(0, at);
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// A Chromium extension id: 32 letters a to p.
bool IsChromiumId(const std::string& id) {
  if (id.size() != 32) return false;
  for (char c : id) {
    if (c < 'a' || c > 'p') return false;
  }
  return true;
}

int InstallManifest(const Options& options) {
  using tessmar::nm::Quote;
  const std::string& browser = options.install_manifests;
  const bool firefox = browser == "firefox";
  if (!firefox && browser != "chromium" && browser != "chrome") {
    std::fprintf(stderr,
                 "tessmar-nm-host: --install-manifests wants firefox, "
                 "chromium or chrome, not \"%s\"\n",
                 browser.c_str());
    return kExitUsage;
  }
  std::string id = options.extension_id;
  if (id.empty()) id = firefox ? TESSMAR_NM_FIREFOX_ID : TESSMAR_NM_CHROMIUM_ID;
  if (!firefox && !IsChromiumId(id)) {
    std::fprintf(stderr,
                 "tessmar-nm-host: \"%s\" is not an extension id (32 letters "
                 "a to p)\n",
                 id.c_str());
    return kExitUsage;
  }
  std::string dir = options.dir;
  if (dir.empty()) {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
      std::fprintf(stderr, "tessmar-nm-host: HOME is not set; give --dir\n");
      return kExitUsage;
    }
    dir = std::string(home) +
          (firefox ? "/.mozilla/native-messaging-hosts"
                   : browser == "chromium"
                         ? "/.config/chromium/NativeMessagingHosts"
                         : "/.config/google-chrome/NativeMessagingHosts");
  }
  const std::string self = SelfPath();
  const std::string allowed =
      firefox ? "  \"allowed_extensions\": [" + Quote(id) + "]\n"
              : "  \"allowed_origins\": [" +
                    Quote("chrome-extension://" + id + "/") + "]\n";
  const std::string manifest =
      std::string("{\n  \"name\": \"") + kName + "\",\n" +
      "  \"description\": \"Tessmar native-messaging host\",\n" +
      "  \"path\": " + Quote(self) + ",\n" + "  \"type\": \"stdio\",\n" +
      allowed + "}\n";
  const std::string path = dir + "/" + kName + ".json";
  if (!MakeDirectories(dir) || !WriteFileAtomically(path, manifest)) {
    std::fprintf(stderr, "tessmar-nm-host: cannot write %s: %s\n", path.c_str(),
                 std::strerror(errno));
    return kExitLoadFailed;
  }
  std::printf("%s\n", path.c_str());
  return kExitOk;
}

// --- The browser's side ------------------------------------------------------------

// Reads exactly `size` bytes; false at end of input or on an error.
bool ReadExactly(int fd, char* buffer, std::size_t size) {
  while (size > 0) {
    const ssize_t n = read(fd, buffer, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// What the reader thread hands to the request loop, in arrival order.
struct Item {
  enum Kind { kRequest, kError, kEnd } kind;
  tessmar::nm::Incoming message;
};

class Inbox {
 public:
  void Push(Item item) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
    ready_.notify_one();
  }
  // The next item, or false when none came within `wait`.
  bool Pop(Item& item, std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!ready_.wait_for(lock, wait, [this] { return !items_.empty(); })) {
      return false;
    }
    item = std::move(items_.front());
    items_.pop_front();
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Item> items_;
};

// volatile: the store must stay, so the inbox stays reachable to leak checkers.
Inbox* volatile g_inbox = nullptr;

// Reads the extension's messages until the end of input. Runs detached: at
// exit it may still wait in read(), so what it uses is never destroyed.
void ReadMessages(int fd, Inbox* inbox) {
  std::string body;
  for (;;) {
    std::uint32_t length = 0;
    if (!ReadExactly(fd, reinterpret_cast<char*>(&length), sizeof length)) {
      break;
    }
    if (length > kMaxIncoming) {
      // Skipped whole, so that the next message is read from its start.
      char chunk[65536];
      std::size_t left = length;
      while (left > 0) {
        const std::size_t n = left < sizeof chunk ? left : sizeof chunk;
        if (!ReadExactly(fd, chunk, n)) break;
        left -= n;
      }
      Item item{Item::kError, {}};
      item.message.error = "message too large (" + std::to_string(length) +
                           " bytes, at most " + std::to_string(kMaxIncoming) +
                           ")";
      inbox->Push(std::move(item));
      if (left > 0) break;
      continue;
    }
    body.resize(length);
    if (!ReadExactly(fd, &body[0], length)) {
      std::fprintf(stderr,
                   "tessmar-nm-host: input ended inside a message of %u "
                   "bytes\n",
                   static_cast<unsigned>(length));
      break;
    }
    tessmar::nm::Incoming message = tessmar::nm::ParseIncoming(body.data(), length);
    const Item::Kind kind = message.error.empty() ? Item::kRequest : Item::kError;
    inbox->Push({kind, std::move(message)});
  }
  inbox->Push({Item::kEnd, {}});
}

class Server {
 public:
  Server(const Bridge& bridge, int out, bool host)
      : bridge_(bridge), out_(out), host_(host) {}

  // Serves until the end of input; returns the exit status.
  int Run(Inbox& inbox) {
    for (;;) {
      Item item;
      if (inbox.Pop(item, kPollInterval)) {
        if (item.kind == Item::kEnd) break;
        if (item.kind == Item::kError) {
          Send(tessmar::nm::ErrorMessage(item.message.has_seq, item.message.seq,
                                         item.message.error));
        } else {
          Serve(item.message);
        }
      }
      DrainCallbacks();
      if (browser_gone_) break;
    }
    // Stop the modules (the host's, or those loaded in this process), so
    // that none is left running threads, then pass on what they sent
    // before they stopped.
    if (host_) {
      bridge_.End();
    } else {
      bridge_.Unload();
    }
    DrainCallbacks();
    return browser_gone_ ? kExitBrowserGone : kExitOk;
  }

 private:
  void Serve(const tessmar::nm::Incoming& message) {
    if (host_ && message.request.empty()) {
      // A zero-length message is the host's stop message.
      Send(tessmar::nm::ErrorMessage(true, message.seq,
                                     "an empty request is not sent to the host"));
      return;
    }
    char* reply = bridge_.Invoke(message.request.c_str());
    std::string text = tessmar::nm::ReplyMessage(message.seq, reply);
    const std::size_t reply_size = reply != nullptr ? std::strlen(reply) : 0;
    bridge_.Free(reply);
    if (text.size() > kMaxOutgoing) {
      std::fprintf(stderr,
                   "tessmar-nm-host: reply of %zu bytes to request %lld is "
                   "too large for the browser\n",
                   reply_size, static_cast<long long>(message.seq));
      text = tessmar::nm::ErrorMessage(true, message.seq, "reply too large");
    }
    Send(text);
  }

  void DrainCallbacks() {
    while (!browser_gone_) {
      char* text = bridge_.Pop();
      if (text == nullptr) return;
      const std::string callback = text;
      bridge_.Free(text);
      if (callback.empty()) return;  // "" is the empty queue
      const std::string message = tessmar::nm::CallbackMessage(callback);
      if (message.size() > kMaxOutgoing) {
        std::fprintf(stderr,
                     "tessmar-nm-host: callback of %zu bytes dropped: too "
                     "large for the browser\n",
                     callback.size());
        continue;
      }
      Send(message);
    }
  }

  void Send(const std::string& message) {
    if (browser_gone_) return;
    const std::uint32_t length = static_cast<std::uint32_t>(message.size());
    std::string frame(reinterpret_cast<const char*>(&length), sizeof length);
    frame += message;
    if (!WriteAll(out_, frame.data(), frame.size())) {
      std::fprintf(stderr, "tessmar-nm-host: cannot write to the browser: %s\n",
                   std::strerror(errno));
      browser_gone_ = true;
    }
  }

  const Bridge& bridge_;
  const int out_;
  const bool host_;
  bool browser_gone_ = false;
};

}  // namespace

int main(int argc, char** argv) {
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

  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  // --help, --version and the manifest path are for a person: they go to
  // the real standard output.
  if (options.help || options.version || !options.install_manifests.empty()) {
    dup2(out, STDOUT_FILENO);
    if (options.help) std::fputs(kUsage, stdout);
    if (options.version) std::printf("tessmar-nm-host %s\n", TESSMAR_TOOL_VERSION);
    return options.install_manifests.empty() ? kExitOk : InstallManifest(options);
  }
  if (in < 0 || out < 0) {
    std::fprintf(stderr, "tessmar-nm-host: no standard input or output\n");
    return kExitUsage;
  }

  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error to handle
  Bridge bridge;
  if (!tessmar::tools::LoadBridge(
          kProgram, options.library.empty() ? DefaultLibrary() : options.library,
          bridge)) {
    return kExitLoadFailed;
  }
  // The host is started before any thread: tsmx_Startup forks.
  if (options.host) {
    if (!tessmar::tools::HostIsRunnable(kProgram, bridge)) return kExitNoHost;
    if (!tessmar::tools::StartHost(kProgram, bridge)) return kExitStartupFailed;
  }

  // Never destroyed: the detached reader may use it until the very exit.
  g_inbox = new Inbox;
  std::thread(ReadMessages, in, g_inbox).detach();
  return Server(bridge, out, options.host).Run(*g_inbox);
}
