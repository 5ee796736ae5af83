// A client module for the end-to-end tests. Its Invoke sends callbacks
// through the host's SendCallback from several threads at once, then answers
// {"sent":N}; its Terminate leaves a marker file in HOME so a test can see
// that the host unloaded it.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tessmar/module.h"

namespace {

constexpr int kThreads = 4;
constexpr int kPerThread = 25;

QXHostFuncs* g_host = nullptr;

void SetHostFuncs(QXHostFuncs* host) { g_host = host; }

void Terminate() {
  const char* home = std::getenv("HOME");
  if (home != nullptr) std::ofstream(std::string(home) + "/module-terminated");
}

void FreeString(char* text) { std::free(text); }

char* Invoke(const char* /*origin*/, const char* /*id*/,
             const char* /*request*/) {
  g_host->SendCallback("t1", nullptr, nullptr, "{\"dropped\":1}");
  g_host->SendCallback("t1", nullptr, "cb", "");  // sent with {} as reply
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int s = 0; s < kPerThread; ++s) {
        const std::string reply = "{\"thread\":" + std::to_string(t) +
                                  ",\"seq\":" + std::to_string(s) + "}";
        g_host->SendCallback("t1", nullptr, "cb", reply.c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string answer =
      "{\"sent\":" + std::to_string(1 + kThreads * kPerThread) + "}";
  return strdup(answer.c_str());
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int Initialize(
    QxClientFuncs* funcs) {
  std::memset(funcs, 0, sizeof *funcs);
  funcs->SetHostFuncs = SetHostFuncs;
  funcs->Terminate = Terminate;
  funcs->FreeString = FreeString;
  funcs->Invoke = Invoke;
  return 0;
}
