// Framed messages on the bridge's FIFOs, from the host's side.
//
// A message is a 4-byte length in host byte order followed by that many
// bytes of body; a zero length carries a fixed meaning per pipe (stop on the
// request FIFO, "no reply" on the reply FIFO, end on the callback FIFO).
#ifndef TESSMAR_TOOLS_REFERENCE_HOST_FRAMED_PIPE_H
#define TESSMAR_TOOLS_REFERENCE_HOST_FRAMED_PIPE_H

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

// Writes one message to `fd`: the length with one write call and the body
// with one more, so that the library's single reads find each part whole.
// A failed or short write is reported on stderr and gives false; the pipe is
// then out of step with its reader and must not be used again.
bool WriteMessage(int fd, const std::string& body, const char* pipe_name);

}  // namespace tessmar::host

#endif  // TESSMAR_TOOLS_REFERENCE_HOST_FRAMED_PIPE_H
