// The bridge's process-wide state, zero or empty at load.
#include <cstdlib>

#include "bridge/bridge_state.h"
#include "tessmar/modhost.h"

namespace tessmar::bridge {

std::string r_fifo_path;
std::string w_fifo_path;
std::string cb_fifo_path;
std::atomic<int> w_fifo{0};
std::atomic<int> r_fifo{0};
std::atomic<int> cb_fifo{0};
pid_t child_pid = 0;
std::atomic<int> cb_loop{0};
bool set_Startup = false;
pthread_t g_CallbackThread;

// Allocated once and deliberately never freed (see bridge_state.h).
std::deque<std::string>& g_CallbackData = *new std::deque<std::string>;
std::mutex& mutex = *new std::mutex;

QXHostFuncs g_bridgeHostFuncs = tessmar::MakeHostFuncs(PushSetCallbackReply);

}  // namespace tessmar::bridge
