#include "frame.h"

#include "posix_io.h"
#include "tessmar/host_protocol.h"

namespace tessmar::tools {

using bridge::FrameLength;
using bridge::kFrameHeaderSize;

FrameRead ReadFrameLength(int fd, std::uint32_t& length) {
  FrameLength value = 0;
  const ssize_t got = ReadFully(fd, &value, kFrameHeaderSize);
  if (got == 0) return FrameRead::kEndOfFile;
  if (got != static_cast<ssize_t>(kFrameHeaderSize)) return FrameRead::kError;
  length = value;
  return FrameRead::kMessage;
}

FrameRead ReadFrame(int fd, std::string& body) {
  std::uint32_t length = 0;
  const FrameRead header = ReadFrameLength(fd, length);
  if (header != FrameRead::kMessage) return header;
  body.resize(length);
  if (length > 0 && ReadFully(fd, &body[0], length) != static_cast<ssize_t>(length)) {
    return FrameRead::kError;
  }
  return FrameRead::kMessage;
}

bool WriteFrame(int fd, const std::string& body) {
  const FrameLength length = static_cast<FrameLength>(body.size());
  return WriteFully(fd, &length, kFrameHeaderSize) &&
         WriteFully(fd, body.data(), body.size());
}

std::string Frame(const std::string& body) {
  const FrameLength length = static_cast<FrameLength>(body.size());
  return std::string(reinterpret_cast<const char*>(&length), kFrameHeaderSize) + body;
}

}  // namespace tessmar::tools
