// Invoke sends 101 callbacks from four threads, answers {"sent":101};
// a request with "callbackBytes":N instead sends one callback whose reply is
// a JSON string of N letters, then a small one. Terminate leaves
// HOME/module-terminated behind.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tessmar/module.h"

namespace {

QXHostFuncs* g_host = nullptr;

char* Invoke(const char*, const char*, const char* request) {
  constexpr char kBytes[] = "\"callbackBytes\":";
  if (const char* size = std::strstr(request, kBytes)) {
    const long n = std::strtol(size + sizeof kBytes - 1, nullptr, 10);
    const std::string big = "\"" + std::string(n, 'x') + "\"";
    g_host->SendCallback("t1", nullptr, "big", big.c_str());
    g_host->SendCallback("t1", nullptr, "after", "{}");
    return strdup("{\"sent\":2}");
  }
  g_host->SendCallback("t1", nullptr, nullptr, "{\"dropped\":1}");
  g_host->SendCallback("t1", nullptr, "cb", "");  // sent with {} as reply
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int s = 0; s < 25; ++s) {
        const std::string reply = "{\"thread\":" + std::to_string(t) +
                                  ",\"seq\":" + std::to_string(s) + "}";
        g_host->SendCallback("t1", nullptr, "cb", reply.c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return strdup("{\"sent\":101}");
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int Initialize(
    QxClientFuncs* funcs) {
  std::memset(funcs, 0, sizeof *funcs);
  funcs->SetHostFuncs = [](QXHostFuncs* host) { g_host = host; };
  funcs->Terminate = [] {
    std::ofstream(std::string(std::getenv("HOME")) + "/module-terminated");
  };
  funcs->FreeString = [](char* text) { std::free(text); };
  funcs->Invoke = Invoke;
  return 0;
}
