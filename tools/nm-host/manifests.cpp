#include "manifests.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "file_write.h"
#include "posix_io.h"

namespace tessmar::nm {
namespace {

constexpr char kName[] = TESSMAR_NM_HOST_NAME;

std::string SelfPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string();
}


// A Chromium extension id: 32 letters a to p.
bool IsChromiumId(const std::string& id) {
  if (id.size() != 32) return false;
  for (char c : id) {
    if (c < 'a' || c > 'p') return false;
  }
  return true;
}

// The manifest naming `path`, laid out as the installed ones are.
std::string Manifest(const std::string& path, const char* allowed_name,
                     const std::string& allowed) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 2);
  writer.SetFormatOptions(rapidjson::kFormatSingleLineArray);
  const auto text = [&writer](const std::string& value) {
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  writer.StartObject();
  writer.Key("name");
  writer.String(kName);
  writer.Key("description");
  writer.String("Tessmar native-messaging host");
  writer.Key("path");
  text(path);
  writer.Key("type");
  writer.String("stdio");
  writer.Key(allowed_name);
  writer.StartArray();
  text(allowed);
  writer.EndArray();
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

// True for a browser this program writes manifests for; false after a
// message otherwise.
bool KnownBrowser(const std::string& browser, const char* option) {
  if (browser == "firefox" || browser == "chromium" || browser == "chrome") {
    return true;
  }
  std::fprintf(stderr,
               "tessmar-nm-host: %s wants firefox, chromium or chrome, not "
               "\"%s\"\n",
               option, browser.c_str());
  return false;
}

// The user's manifest directory of `browser`, or --dir; "" after a message
// when neither is known.
std::string ManifestDirectory(const std::string& browser, const Options& options) {
  if (!options.dir.empty()) return options.dir;
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') {
    std::fprintf(stderr, "tessmar-nm-host: HOME is not set; give --dir\n");
    return std::string();
  }
  return std::string(home) +
         (browser == "firefox"    ? "/.mozilla/native-messaging-hosts"
          : browser == "chromium" ? "/.config/chromium/NativeMessagingHosts"
                                  : "/.config/google-chrome/NativeMessagingHosts");
}

}  // namespace

int InstallManifest(const Options& options) {
  const std::string& browser = options.install_manifests;
  if (!KnownBrowser(browser, "--install-manifests")) return kExitUsage;
  const bool firefox = browser == "firefox";
  std::string id = options.extension_id;
  if (id.empty()) id = firefox ? TESSMAR_NM_FIREFOX_ID : TESSMAR_NM_CHROMIUM_ID;
  if (!firefox && !IsChromiumId(id)) {
    std::fprintf(stderr,
                 "tessmar-nm-host: \"%s\" is not an extension id (32 letters "
                 "a to p)\n",
                 id.c_str());
    return kExitUsage;
  }
  const std::string dir = ManifestDirectory(browser, options);
  if (dir.empty()) return kExitUsage;
  const std::string manifest = Manifest(
      SelfPath(), firefox ? "allowed_extensions" : "allowed_origins",
      firefox ? id : "chrome-extension://" + id + "/");
  const std::string path = dir + "/" + kName + ".json";
  std::string error;
  if (!tools::MakeDirectories(dir)) {
    error = dir + ": " + std::strerror(errno);
  } else {
    tessmar::tools::WriteFileAtomically(path, manifest, &error);
  }
  if (!error.empty()) {
    std::fprintf(stderr, "tessmar-nm-host: cannot write the manifest: %s\n",
                 error.c_str());
    return kExitLoadFailed;
  }
  std::printf("%s\n", path.c_str());
  return kExitOk;
}

int UninstallManifest(const Options& options) {
  const std::string& browser = options.uninstall_manifests;
  if (!KnownBrowser(browser, "--uninstall-manifests")) return kExitUsage;
  const std::string dir = ManifestDirectory(browser, options);
  if (dir.empty()) return kExitUsage;
  const std::string path = dir + "/" + kName + ".json";
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return kExitOk;  // nothing to remove
    std::fprintf(stderr, "tessmar-nm-host: %s: %s\n", path.c_str(),
                 std::strerror(errno));
    return kExitLoadFailed;
  }
  // --install-manifests writes a regular file; anything else is not ours.
  if (!S_ISREG(info.st_mode)) {
    std::fprintf(stderr,
                 "tessmar-nm-host: %s is not a manifest this program wrote "
                 "(%s); left in place\n",
                 path.c_str(),
                 S_ISLNK(info.st_mode) ? "a symbolic link" : "not a regular file");
    return kExitLoadFailed;
  }
  if (unlink(path.c_str()) != 0) {
    std::fprintf(stderr, "tessmar-nm-host: cannot remove %s: %s\n",
                 path.c_str(), std::strerror(errno));
    return kExitLoadFailed;
  }
  std::printf("%s\n", path.c_str());
  return kExitOk;
}

}  // namespace tessmar::nm
