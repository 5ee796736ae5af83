#include "manifests.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "messages.h"

namespace tessmar::nm {
namespace {

constexpr char kName[] = TESSMAR_NM_HOST_NAME;

std::string SelfPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string();
}

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

}  // namespace

int InstallManifest(const Options& options) {
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

}  // namespace tessmar::nm
