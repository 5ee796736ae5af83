// A client module whose answers the request chooses: "say": TEXT answers TEXT
// as it stands; "callbackBytes": N sends a callback of N letters, then a small
// one; "print" writes to standard output; "sleepMs": N answers
// after N ms; "crash" aborts the process; anything else sends 101 callbacks
// from four threads. A "setcallback" request is answered {} and,
// "delayMs" later, called back once from a thread of its own. Terminate joins
// that thread and leaves HOME/module-terminated behind.
#include <json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tessmar/module.h"

namespace {

QXHostFuncs* g_host = nullptr;

const json_value* Member(const json_value* root, const char* name) {
  for (unsigned i = 0; root && root->type == json_object && i < root->u.object.length; ++i) {
    const json_object_entry& entry = root->u.object.values[i];
    if (std::strcmp(entry.name, name) == 0) return entry.value;
  }
  return nullptr;
}

char* Invoke(const char*, const char*, const char* request) {
  json_value* root = json_parse(request, std::strlen(request));
  std::string answer = "{}";
  if (const json_value* say = Member(root, "say"); say && say->type == json_string) {
    answer.assign(say->u.string.ptr, say->u.string.length);
  } else if (const json_value* c = Member(root, "callbackBytes");
             c && c->type == json_integer) {
    const std::string letters = "\"" + std::string(static_cast<std::size_t>(c->u.integer), 'x') + "\"";
    g_host->SendCallback("t1", nullptr, "big", letters.c_str());
    g_host->SendCallback("t1", nullptr, "after", "{}");
  } else if (Member(root, "print") != nullptr) {
    std::printf("a module writing to standard output\n");
    std::fflush(stdout);
  } else if (const json_value* ms = Member(root, "sleepMs"); ms && ms->type == json_integer) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms->u.integer));
  } else if (Member(root, "crash") != nullptr) {
    std::abort();
  } else {
    // SendCallback returns 0 by its contract; the answer reports any other sum.
    int results = g_host->SendCallback("t1", nullptr, nullptr, "{\"dropped\":1}");
    results += g_host->SendCallback("t1", nullptr, "cb", "");  // sent with {} as reply
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
    answer = "{\"sent\":101" +
             (results != 0 ? ",\"results\":" + std::to_string(results) : "") + "}";
  }
  json_value_free(root);
  return strdup(answer.c_str());
}

std::vector<std::thread> g_delayed;  // the setcallback threads, joined by Terminate

char* SetCallback(const char*, const char*, const char* request, const char* tabid, int) {
  json_value* root = json_parse(request, std::strlen(request));
  const json_value* name = Member(root, "callback");
  const json_value* delay = Member(root, "delayMs");
  if (name && name->type == json_string && delay && delay->type == json_integer) {
    g_delayed.emplace_back([tabid = std::string(tabid), name = std::string(name->u.string.ptr),
                            ms = delay->u.integer] {
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
      g_host->SendCallback(tabid.c_str(), nullptr, name.c_str(), "{\"delayed\":true}");
    });
  }
  json_value_free(root);
  return strdup("{}");
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int Initialize(
    QxClientFuncs* funcs) {
  std::memset(funcs, 0, sizeof *funcs);
  funcs->SetHostFuncs = [](QXHostFuncs* host) { g_host = host; };
  funcs->Terminate = [] {
    for (std::thread& thread : g_delayed) thread.join();
    g_delayed.clear();
    std::ofstream(std::string(std::getenv("HOME")) + "/module-terminated");
  };
  funcs->FreeString = [](char* text) { std::free(text); };
  funcs->Invoke = Invoke;
  funcs->SetCallback = SetCallback;
  return 0;
}
