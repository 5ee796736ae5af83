// Framed messages on the bridge's FIFOs, from the host's side.
//
// A message is a 4-byte length in host byte order followed by that many
// bytes of body; a zero length carries a fixed meaning per pipe (stop on the
// request FIFO, "no reply" on the reply FIFO, end on the callback FIFO).
#ifndef TESSMAR_TOOLS_REFERENCE_HOST_FRAMED_PIPE_H
#define TESSMAR_TOOLS_REFERENCE_HOST_FRAMED_PIPE_H

#include <cstddef>
#include <string>

namespace tessmar::host {

enum class ReadResult {
  kMessage,    // a whole message was read (its body may be empty)
  kEndOfFile,  // the writer closed the pipe before a new message began
  kError,      // a read failed or the pipe closed inside a message
};

// Reads one message from `fd` into `body`, however the writer's bytes are
// split across reads. `pipe_name` names the pipe in error reports (stderr).
ReadResult ReadMessage(int fd, std::string& body, const char* pipe_name);

// True when a message with a `body_size`-byte body fits whole into the pipe
// `fd` next to what it already holds, enlarging the pipe (F_SETPIPE_SZ, up
// to the system's pipe-max-size) where needed. The library reads each body
// with one read call, so a message that does not fit would come back short
// and leave this side blocked in its write; such a message must not be sent.
bool MakeRoomForMessage(int fd, std::size_t body_size);

// Writes one message to `fd`: the length with one write call and the body
// with one more, so that the library's single reads find each part whole.
// A failed or short write is reported on stderr and gives false; the pipe is
// then out of step with its reader and must not be used again.
bool WriteMessage(int fd, const std::string& body, const char* pipe_name);

}  // namespace tessmar::host

#endif  // TESSMAR_TOOLS_REFERENCE_HOST_FRAMED_PIPE_H
