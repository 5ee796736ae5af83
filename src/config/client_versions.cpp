// Versions of the framework and of the installed client modules.
#include <unistd.h>

#include <cstring>
#include <string>

#include "config/build_identity.h"
#include "config/json_file.h"
#include "config/module_file.h"
#include "tessmar/config.h"

std::string GetCurrentVersion(void* /*context*/) {
  return tessmar::ReadJsonFile(_GetConfigPath()).String("Version");
}

std::string GetClientVersion(const char* module) {
  const tessmar::ModuleFile file = tessmar::ReadModuleFile(module);
  // A module file without a signature reports no version, although the
  // signature itself is not verified here.
  if (file.name.empty() || file.path.empty() || file.sig.empty() ||
      file.version.empty()) {
    return std::string();
  }
  if (tessmar::BuildRequiresClientFile() &&
      access(file.path.c_str(), F_OK) != 0) {
    return std::string();
  }
  return file.version;
}

std::string GetClientVersions(const char* list) {
  if (list == nullptr) return "[]";
  std::string body;
  // The caller's buffer is tokenized in place, as the interface promises.
  char* buffer = const_cast<char*>(list);
  for (char* name = std::strtok(buffer, ","); name != nullptr;
       name = std::strtok(nullptr, ",")) {
    if (!body.empty()) body += ",";
    body += "{\"name\":\"";
    body += name;
    body += "\",\"version\":\"";
    body += GetClientVersion(name);
    body += "\"}";
  }
  return "[" + body + "]";
}
