// Process-wide state of the bridge and its internal entry points.
#ifndef TESSMAR_SRC_BRIDGE_BRIDGE_STATE_H
#define TESSMAR_SRC_BRIDGE_BRIDGE_STATE_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

#include "tessmar/host_protocol.h"
#include "tessmar/module.h"

namespace tessmar::bridge {

// FIFO paths; the library reads ".r…" and ".cb…" and writes ".w…".
extern std::string r_fifo_path;
extern std::string w_fifo_path;
extern std::string cb_fifo_path;
// The descriptors are atomic because tsmx_End marks them closed (-1) while
// the reader thread may still be reading cb_fifo and r_fifo (its fsync).
extern std::atomic<int> w_fifo;   // request FIFO, write end
extern std::atomic<int> r_fifo;   // reply FIFO, read end
extern std::atomic<int> cb_fifo;  // callback FIFO, read end
extern pid_t child_pid;
// Non-zero while the reader thread is to keep running. The thread in practice
// ends on end of file; the flag carries no ordering, only its value.
extern std::atomic<int> cb_loop;
// True once tsmx_Startup succeeded; never cleared, not even by tsmx_End.
extern bool set_Startup;
extern pthread_t g_CallbackThread;

// The callback queue and its one lock, which guards nothing else. Both are
// never destroyed: module threads and the reader thread may still push while
// the process runs its exit handlers.
extern std::deque<std::string>& g_CallbackData;
extern std::mutex& mutex;

// MakeHostFuncs(PushSetCallbackReply): malloc, free and the callback queue.
extern QXHostFuncs g_bridgeHostFuncs;

// Appends a message to the back of the queue under the lock.
void QueueCallback(std::string message);

// Queues a "setcallback" message; the SendCallback of the bridge's host table.
int PushSetCallbackReply(const char* tabid, const void* reserved,
                         const char* callback, const char* reply);

// Writes `request` to the host and reads its reply; NULL for no reply.
char* ExchangeWithHost(const char* request);

// The reader thread of the callback FIFO.
void* ReadCallbackThread(void* unused);

// mkdir -p with mode 0755; drops one trailing "/" from `path` in place.
bool CreateDirectories(std::string& path);

// The directory of the three FIFOs (names in tessmar/host_protocol.h), with a
// trailing "/".
std::string FifoDirectory();

// A malloc'ed copy of `text` with its terminating NUL; as a C string it
// ends at the first NUL `text` holds.
char* MallocCopy(const std::string& text);

}  // namespace tessmar::bridge

#endif  // TESSMAR_SRC_BRIDGE_BRIDGE_STATE_H
