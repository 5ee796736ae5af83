// The configuration directories the library reads, as the tools name them.
#ifndef TESSMAR_TOOLS_COMMON_CONFIG_DIRECTORY_H_
#define TESSMAR_TOOLS_COMMON_CONFIG_DIRECTORY_H_

#include <cstdlib>
#include <string>

#include "tessmar/host_protocol.h"

namespace tessmar::tools {

// The system directory this build was configured with.
inline constexpr char kSystemConfigDirectory[] = TESSMAR_SYSTEM_CONFIG_DIR;

// HOME + kUserConfigSubdirectory, or "" when HOME is unset or empty.
inline std::string UserConfigDirectory() {
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') return std::string();
  return std::string(home) + kUserConfigSubdirectory;
}

}  // namespace tessmar::tools

#endif  // TESSMAR_TOOLS_COMMON_CONFIG_DIRECTORY_H_
