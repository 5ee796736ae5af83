// A client module's configuration file, module name + ".json", as read by
// the version and install-path lookups. Missing keys read as "".
#ifndef TESSMAR_SRC_CONFIG_MODULE_FILE_H
#define TESSMAR_SRC_CONFIG_MODULE_FILE_H

#include <string>

#include "config/json_file.h"
#include "tessmar/config.h"

namespace tessmar {

struct ModuleFile {
  std::string name;
  std::string path;
  std::string sig;
  std::string version;
};

// The module's file, located user directory first; all fields "" when it
// is missing, unreadable or not a JSON object.
inline ModuleFile ReadModuleFile(const char* module) {
  const std::string config = _GetModuleConfigPath(module);
  if (config.empty()) return ModuleFile();
  const JsonDocument file = ReadJsonFile(config);
  return ModuleFile{file.String("Name"), file.String("Path"),
                    file.String("Sig"), file.String("Version")};
}

}  // namespace tessmar

#endif  // TESSMAR_SRC_CONFIG_MODULE_FILE_H
