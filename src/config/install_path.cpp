// Install paths of the framework and of client modules.
#include <string>

#include "config/json_document.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {
constexpr char kBlockClient[] = "BLOCK:CLIENT";
}

std::string GetTessmarInstallPath() {
  return tessmar::ReadJsonFile(_GetConfigPath()).String("Tessmar");
}

std::string GetClientInstallPathModule(const char* module, bool verify) {
  const std::string config = _GetModuleConfigPath(module);
  if (config.empty()) return std::string();
  const tessmar::JsonDocument file = tessmar::ReadJsonFile(config);
  const std::string name = file.String("Name");
  const std::string path = file.String("Path");
  const std::string sig = file.String("Sig");
  if (name.empty() || path.empty()) return std::string();
  if (!verify) return path;
  // A verified lookup never hands out a path that carries no signature.
  if (sig.empty() || !CheckQXClientModuleSignature(path.c_str(), sig.c_str())) {
    return kBlockClient;
  }
  return path;
}

std::string GetClientInstallPath() {
  // "BLOCK:CLIENT" is deliberately passed on in place of a path.
  std::string client = GetClientInstallPathModule("morrowhost", true);
  if (!client.empty()) return client;
  return tessmar::ReadJsonFile(_GetConfigPath()).String("TessmarClient");
}
