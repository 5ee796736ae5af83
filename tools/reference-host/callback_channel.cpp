#include "callback_channel.h"

#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "tessmar/host_protocol.h"
#include "framed_pipe.h"

namespace tessmar::host {
namespace {

constexpr char kPipeName[] = "callback";

// Guards the descriptor and every write on it. Module threads may call
// SendCallback at any moment, also while the main thread closes the channel.
std::mutex g_lock;
int g_fd = -1;

}  // namespace

void OpenCallbackChannel(int fd) {
  std::lock_guard<std::mutex> lock(g_lock);
  g_fd = fd;
}

void CloseCallbackChannel() {
  std::lock_guard<std::mutex> lock(g_lock);
  if (g_fd >= 0) close(g_fd);
  g_fd = -1;
}

int SendCallback(const char* tabid, const void* /*reserved*/,
                 const char* callback, const char* reply) {
  if (callback == nullptr || tabid == nullptr) return 0;
  // Built outside the lock; only the two writes need to be serialised.
  const std::string text = bridge::SetCallbackMessage(tabid, callback, reply);
  std::lock_guard<std::mutex> lock(g_lock);
  if (g_fd < 0) return 0;
  if (!MakeRoomForMessage(g_fd, text.size())) {
    // Writing it would block under the lock until the library reads, which
    // it never does for a frame it cannot take whole.
    std::fprintf(stderr,
                 "TessmarFirefox: dropped a %zu-byte callback that does not "
                 "fit the callback pipe\n",
                 text.size());
    return 0;
  }
  if (!WriteMessage(g_fd, text, kPipeName)) {
    // The library's reader stops at the first frame it cannot take whole, so
    // nothing written after a failed frame would be read correctly.
    close(g_fd);
    g_fd = -1;
  }
  return 0;
}

}  // namespace tessmar::host
