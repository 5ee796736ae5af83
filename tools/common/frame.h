// Framed messages as the FIFOs and the browsers' native messaging carry
// them: a 4-byte length in the machine's byte order, then the body
// (tessmar/host_protocol.h).
#ifndef TESSMAR_TOOLS_COMMON_FRAME_H_
#define TESSMAR_TOOLS_COMMON_FRAME_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tessmar::tools {

enum class FrameRead {
  kMessage,    // a whole message was read (its body may be empty)
  kEndOfFile,  // the input ended before a new message began
  kError,      // a read failed or the input ended inside a message
};

// Reads one message into `body`, however its bytes are split across reads.
FrameRead ReadFrame(int fd, std::string& body);

// Reads only the length of the next message.
FrameRead ReadFrameLength(int fd, std::uint32_t& length);

// The length and then the body, each written whole; false on an error.
bool WriteFrame(int fd, const std::string& body);

// The bytes of one message, for writing in one call.
std::string Frame(const std::string& body);

}  // namespace tessmar::tools

#endif  // TESSMAR_TOOLS_COMMON_FRAME_H_
