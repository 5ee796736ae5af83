// Where a client module's library is: its module file's "Path", and, for
// the loader, only once the library matches the module file's "Sig".
#include <string>

#include "config/json_file.h"
#include "config/module_file.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {
constexpr char kBlockClient[] = "BLOCK:CLIENT";
}

std::string GetClientInstallPathModule(const char* module, bool verify) {
  const tessmar::ModuleFile file = tessmar::ReadModuleFile(module);
  if (file.name.empty() || file.path.empty()) return std::string();
  if (!verify) return file.path;
  // A verified lookup never hands out a path that carries no signature.
  if (file.sig.empty() ||
      !CheckQXClientModuleSignature(file.path.c_str(), file.sig.c_str())) {
    return kBlockClient;
  }
  return file.path;
}

std::string GetClientInstallPath() {
  // "BLOCK:CLIENT" is deliberately passed on in place of a path.
  std::string client = GetClientInstallPathModule("morrowhost", true);
  if (!client.empty()) return client;
  return tessmar::ReadJsonFile(_GetConfigPath()).String("TessmarClient");
}
