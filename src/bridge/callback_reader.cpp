// The reader thread: copies every framed message of the host's callback
// FIFO into the callback queue until the host closes its end.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "bridge/bridge_state.h"

namespace tessmar::bridge {

void* ReadCallbackThread(void* /*unused*/) {
  // A partial length keeps the previous message's remaining length bytes.
  uint64_t length = 0;
  while (cb_loop != 0) {
    const ssize_t got = read(cb_fifo, &length, kFrameHeaderSize);
    // The fsync goes to the reply FIFO's descriptor, as it always has; its
    // errno (EINVAL, or EBADF once closed) is what a failed read is judged by,
    // so a failed read in practice ends the thread.
    fsync(r_fifo);
    if (got < 0) {
      if (errno == EINTR) continue;
      return nullptr;
    }
    if (got == 0 || length == 0) return nullptr;  // host gone, or end message

    char* buffer = static_cast<char*>(std::calloc(length + 1, 1));
    if (buffer == nullptr) return nullptr;
    const ssize_t body = read(cb_fifo, buffer, length);
    fsync(r_fifo);
    if (static_cast<uint64_t>(body) < length) {
      std::free(buffer);
      return nullptr;
    }
    std::string message(buffer, length);  // NULs included
    std::free(buffer);
    QueueCallback(std::move(message));
  }
  return nullptr;
}

}  // namespace tessmar::bridge
