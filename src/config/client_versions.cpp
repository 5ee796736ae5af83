// Versions of the framework and of the installed client modules.
#include <unistd.h>

#include <cstring>
#include <string>

#include "config/build_identity.h"
#include "config/json_document.h"
#include "tessmar/config.h"

std::string GetCurrentVersion(void* /*context*/) {
  return tessmar::ReadJsonFile(_GetConfigPath()).String("Version");
}

std::string GetClientVersion(const char* module) {
  const std::string config = _GetModuleConfigPath(module);
  if (config.empty()) return std::string();
  const tessmar::JsonDocument file = tessmar::ReadJsonFile(config);
  const std::string name = file.String("Name");
  const std::string path = file.String("Path");
  const std::string sig = file.String("Sig");
  std::string version = file.String("Version");
  // A module file without a signature reports no version, although the
  // signature itself is not verified here.
  if (name.empty() || path.empty() || sig.empty() || version.empty()) {
    return std::string();
  }
  if (tessmar::BuildRequiresClientFile() &&
      access(path.c_str(), F_OK) != 0) {
    return std::string();
  }
  return version;
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
