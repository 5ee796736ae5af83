// The benchmark's client module: "sleepMs": N answers after N ms, like a
// module waiting on a device; "setcallback" calls back once, "delayMs" later,
// from a thread of its own, with the CLOCK_MONOTONIC time of that moment in
// ns as {"ns":T}, so that the callback's delay can be measured.
#include <json.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tessmar/module.h"

namespace {

QXHostFuncs* g_host = nullptr;
std::vector<std::thread> g_threads;

long long Integer(const char* request, const char* name) {
  json_value* root = json_parse(request, std::strlen(request));
  long long value = 0;
  for (unsigned i = 0; root && root->type == json_object && i < root->u.object.length; ++i) {
    const json_object_entry& entry = root->u.object.values[i];
    if (std::strcmp(entry.name, name) == 0 && entry.value->type == json_integer) {
      value = entry.value->u.integer;
    }
  }
  if (root != nullptr) json_value_free(root);
  return value;
}

char* Invoke(const char*, const char*, const char* request) {
  std::this_thread::sleep_for(std::chrono::milliseconds(Integer(request, "sleepMs")));
  return strdup("{}");
}

char* SetCallback(const char*, const char*, const char* request, const char* tabid, int) {
  g_threads.emplace_back([tabid = std::string(tabid), ms = Integer(request, "delayMs")] {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::string reply =
        "{\"ns\":" + std::to_string(now.tv_sec * 1000000000LL + now.tv_nsec) + "}";
    g_host->SendCallback(tabid.c_str(), nullptr, "stamp", reply.c_str());
  });
  return strdup("{}");
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int Initialize(QxClientFuncs* funcs) {
  std::memset(funcs, 0, sizeof *funcs);
  funcs->SetHostFuncs = [](QXHostFuncs* host) { g_host = host; };
  funcs->Terminate = [] {
    for (std::thread& thread : g_threads) thread.join();
    g_threads.clear();
  };
  funcs->FreeString = [](char* text) { std::free(text); };
  funcs->Invoke = Invoke;
  funcs->SetCallback = SetCallback;
  return 0;
}
