// What the library and a host process agree on: where the three FIFOs
// are, how a message is framed on them, the stop message, and the text of
// a callback. Header-only, so that a host (the reference host, a test host)
// uses these very definitions without linking the library.
//
// Framing: every message is a 4-byte length in the machine's byte order,
// then that many bytes of body. A zero length is the stop message on the
// request FIFO, "no reply" on the reply FIFO and the end on the callback
// FIFO.
#ifndef TESSMAR_HOST_PROTOCOL_H
#define TESSMAR_HOST_PROTOCOL_H

#include <cstdint>
#include <string>

namespace tessmar {

// Appended to HOME: the user's configuration directory, which also holds
// the FIFOs.
inline constexpr char kUserConfigSubdirectory[] =
    "/.config/Pelmora/Tessmar/morrowhost";

namespace bridge {

// Named from the library's side: it reads ".r…" and ".cb…", writes ".w…".
inline constexpr char kReplyFifoName[] = ".rpelmoramorrowhostTessmarFirefox";
inline constexpr char kRequestFifoName[] = ".wpelmoramorrowhostTessmarFirefox";
inline constexpr char kCallbackFifoName[] = ".cbpelmoramorrowhostTessmarFirefox";

// The host executable, looked for in the installation directory.
inline constexpr char kHostExecutableName[] = "TessmarFirefox";

// The length that precedes every body.
using FrameLength = std::uint32_t;
inline constexpr std::size_t kFrameHeaderSize = sizeof(FrameLength);

// The frame of the stop message: a zero length and no body.
inline std::string StopFrame() { return std::string(kFrameHeaderSize, '\0'); }

//   {"response":{"id":"setcallback", "tabid":"TAB", "callback":"CB",
//    "reply":REPLY}}
// with these exact separators and no escaping; REPLY must itself be a JSON
// value and is inserted as it stands ({} when null or empty). `tabid` and
// `callback` must not be null.
inline std::string SetCallbackMessage(const char* tabid, const char* callback,
                                      const char* reply) {
  std::string text = "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"";
  text += tabid;
  text += "\", \"callback\":\"";
  text += callback;
  text += "\", \"reply\":";
  text += (reply != nullptr && *reply != '\0') ? reply : "{}";
  text += "}}";
  return text;
}

}  // namespace bridge
}  // namespace tessmar

#endif  // TESSMAR_HOST_PROTOCOL_H
