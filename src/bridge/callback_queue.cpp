// The queue of asynchronous messages for the extension, filled by the
// callback reader thread and by in-process modules, drained by tsmx_Pop.
#include <utility>

#include "bridge/bridge_state.h"
#include "bridge/set_callback_message.h"
#include "tessmar/bridge.h"

namespace tessmar::bridge {
namespace {
void* g_ResponseCallback = nullptr;  // stored, never called
}  // namespace

void QueueCallback(std::string message) {
  std::lock_guard<std::mutex> lock(mutex);
  g_CallbackData.push_back(std::move(message));
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
    }
  }
  return MallocCopy(message);
}

void tsmx_SetResponseCallback(void* callback) { g_ResponseCallback = callback; }
