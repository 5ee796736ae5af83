// The names on disk that the library and a host process must agree on.
//
// Header-only so that programs outside the library (the reference host, the
// driver, tests) use the very same constants without linking against the
// library's hidden symbols. The FIFOs live in the user's configuration
// directory, HOME + kUserConfigSubdirectory + "/".
#ifndef TESSMAR_SRC_BRIDGE_FIFO_NAMES_H
#define TESSMAR_SRC_BRIDGE_FIFO_NAMES_H

namespace tessmar::bridge {

// Named from the library's side: it reads ".r…" and ".cb…", writes ".w…".
inline constexpr char kReplyFifoName[] = ".rpelmoramorrowhostTessmarFirefox";
inline constexpr char kRequestFifoName[] = ".wpelmoramorrowhostTessmarFirefox";
inline constexpr char kCallbackFifoName[] =
    ".cbpelmoramorrowhostTessmarFirefox";

// The host executable, looked for in the installation directory.
inline constexpr char kHostExecutableName[] = "TessmarFirefox";

}  // namespace tessmar::bridge

#endif  // TESSMAR_SRC_BRIDGE_FIFO_NAMES_H
