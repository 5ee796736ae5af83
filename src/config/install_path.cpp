// The framework's installation directory, as config.json names it.
#include <string>

#include "config/json_file.h"
#include "tessmar/config.h"

std::string GetTessmarInstallPath() {
  return tessmar::ReadJsonFile(_GetConfigPath()).String("Tessmar");
}
