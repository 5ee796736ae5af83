// Locating the configuration files: the user's directory under HOME first,
// then the system directory. Existence only is tested (access F_OK), so a
// directory or an unreadable file with the right name still hides the
// system file; reading it then fails and the caller gets "".
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "config/build_identity.h"
#include "config/config_location.h"
#include "tessmar/config.h"

namespace tessmar {

std::string UserConfigDirectory() {
  const char* home = std::getenv("HOME");
  if (home == nullptr) return std::string();
  return std::string(home) + kUserConfigSubdirectory;
}

namespace {

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

std::string LocateConfigFile(const std::string& name) {
  const std::string user_directory = UserConfigDirectory();
  if (!user_directory.empty()) {
    std::string user = user_directory + "/" + name;
    if (Exists(user)) return user;
  }
  std::string system =
      std::string(ThisBuild().system_config_directory) + "/" + name;
  return Exists(system) ? system : std::string();
}

}  // namespace
}  // namespace tessmar

std::string _GetConfigPath() { return tessmar::LocateConfigFile("config.json"); }

std::string _GetModuleConfigPath(const char* module) {
  if (module == nullptr || *module == '\0') return std::string();
  // A module's file is its name + ".json" inside the configuration directory,
  // and a file name holds no "/": a name with one has no module file, so a
  // page cannot point the loader at a file elsewhere on the disk.
  if (std::strchr(module, '/') != nullptr) return std::string();
  return tessmar::LocateConfigFile(std::string(module) + ".json");
}
