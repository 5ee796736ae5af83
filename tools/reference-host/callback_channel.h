// The host's side of the callback FIFO and the SendCallback service that
// client modules call to reach the page asynchronously.
#ifndef TESSMAR_TOOLS_REFERENCE_HOST_CALLBACK_CHANNEL_H
#define TESSMAR_TOOLS_REFERENCE_HOST_CALLBACK_CHANNEL_H

#include <string>

namespace tessmar::host {

// Starts sending on `fd`, the write end of the callback FIFO. The channel
// does not own the descriptor until CloseCallbackChannel.
void OpenCallbackChannel(int fd);

// Stops sending and closes the descriptor; the library's reader thread then
// sees end of file. Messages sent afterwards are dropped. Waits for a send
// under way to finish.
void CloseCallbackChannel();

// The SendCallback member of the host table handed to modules. Callable from
// any thread at any time: each message's length and body are written under
// one lock, so messages of concurrent callers never interleave. Does nothing
// when `tabid` or `callback` is null; `reserved` is ignored. Returns 0.
int SendCallback(const char* tabid, const void* reserved, const char* callback,
                 const char* reply);

}  // namespace tessmar::host

#endif  // TESSMAR_TOOLS_REFERENCE_HOST_CALLBACK_CHANNEL_H
