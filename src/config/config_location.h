// The configuration directories of this build.
#ifndef TESSMAR_SRC_CONFIG_CONFIG_LOCATION_H
#define TESSMAR_SRC_CONFIG_CONFIG_LOCATION_H

#include <string>

namespace tessmar {

// Appended to HOME for the user's configuration directory, which also holds
// the bridge's FIFOs.
inline constexpr char kUserConfigSubdirectory[] =
    "/.config/Pelmora/Tessmar/morrowhost";
inline constexpr char kSystemConfigDirectory[] =
    "/usr/share/Pelmora/Tessmar/morrowhost";

// HOME + kUserConfigSubdirectory, or "" when HOME is unset.
std::string UserConfigDirectory();

}  // namespace tessmar

#endif  // TESSMAR_SRC_CONFIG_CONFIG_LOCATION_H
