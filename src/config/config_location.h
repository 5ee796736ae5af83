// The configuration directories of this build.
#ifndef TESSMAR_SRC_CONFIG_CONFIG_LOCATION_H
#define TESSMAR_SRC_CONFIG_CONFIG_LOCATION_H

#include <string>

#include "tessmar/host_protocol.h"

namespace tessmar {
// The system directory this build was configured with; the library itself
// takes it from its build identity (config/build_identity.h), which tests
// can replace.
inline constexpr char kSystemConfigDirectory[] = TESSMAR_SYSTEM_CONFIG_DIR;

// HOME + kUserConfigSubdirectory, or "" when HOME is unset.
std::string UserConfigDirectory();

}  // namespace tessmar

#endif  // TESSMAR_SRC_CONFIG_CONFIG_LOCATION_H
