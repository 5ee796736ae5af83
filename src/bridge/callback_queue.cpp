// The queue of asynchronous messages for the extension, filled by the
// callback reader thread and by in-process modules, drained by tsmx_Pop.
// tsmx_CallbackDescriptor gives the extension an eventfd whose level follows
// the queue: non-zero (readable) exactly while a message is queued.
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "bridge/bridge_state.h"
#include "tessmar/host_protocol.h"
#include "tessmar/bridge.h"

namespace tessmar::bridge {
namespace {
void* g_ResponseCallback = nullptr;  // stored, never called

// The eventfd of tsmx_CallbackDescriptor, -1 until asked for; guarded by
// `mutex`, so that its level changes together with the queue.
int g_ready_fd = -1;
}  // namespace

void QueueCallback(std::string message) {
  std::lock_guard<std::mutex> lock(mutex);
  g_CallbackData.push_back(std::move(message));
  if (g_CallbackData.size() == 1 && g_ready_fd >= 0) {
    const std::uint64_t one = 1;
    // Cannot fail: the counter is 0 whenever the queue was empty.
    (void)!write(g_ready_fd, &one, sizeof one);
  }
}

int PushSetCallbackReply(const char* tabid, const void* /*reserved*/,
                         const char* callback, const char* reply) {
  if (callback == nullptr || tabid == nullptr) return 0;
  QueueCallback(SetCallbackMessage(tabid, callback, reply));
  return 0;
}

}  // namespace tessmar::bridge

using namespace tessmar::bridge;

char* tsmx_Pop(void) {
  std::string message;
  {
    // The lock covers only the front-and-pop, never the copy for the caller.
    std::lock_guard<std::mutex> lock(mutex);
    if (!g_CallbackData.empty()) {
      message = std::move(g_CallbackData.front());
      g_CallbackData.pop_front();
      if (g_CallbackData.empty() && g_ready_fd >= 0) {
        std::uint64_t count;
        (void)!read(g_ready_fd, &count, sizeof count);  // back to 0
      }
    }
  }
  return MallocCopy(message);
}

void tsmx_SetResponseCallback(void* callback) { g_ResponseCallback = callback; }

int tsmx_CallbackDescriptor(void) {
  std::lock_guard<std::mutex> lock(mutex);
  if (g_ready_fd < 0) {
    g_ready_fd = eventfd(g_CallbackData.empty() ? 0 : 1, EFD_CLOEXEC | EFD_NONBLOCK);
  }
  return g_ready_fd;
}
