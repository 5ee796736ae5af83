// An example client module: a starting point for writing your own.
//
// What it does
//   - An ordinary ("native") request is answered with a JSON object that
//     describes it:
//         {"module":"echo","origin":"https://page.example","id":"7","length":84}
//     where "length" is the byte length of the whole request text.
//   - A "setcallback" request registers the page's callback and is answered
//         {"module":"echo","registered":true,"callback":"onEcho"}
//     About 50 ms later the module's own worker thread sends one message for
//     that tab through the host's SendCallback service:
//         {"module":"echo","event":"ping","id":"7"}
//     The host wraps it and queues it for the page.
//
// The contract (include/tessmar/module.h)
//   - The library exports exactly one symbol, Initialize. The host dlopen()s
//     the library, calls Initialize once with a table of eight entry points
//     (not cleared: fill every slot), and then hands over its own services
//     through SetHostFuncs.
//   - Invoke and SetCallback are called on the host's request thread, one at
//     a time. They return a JSON text that the module owns; the host copies it
//     into its reply envelope as raw JSON and gives it back through
//     FreeString at once. Return null from Invoke when there is no answer.
//   - SendCallback may be called from any thread while the module is loaded.
//   - Terminate is called when the host unloads its modules; the library is
//     dlclose()d right afterwards, so every thread of the module must have
//     ended when Terminate returns. A host may also never unload: then the
//     process just exits, and static destructors must stop the threads.
//
// Installing
//   The host loads a module only when its module file, NAME.json in the
//   framework's configuration directory, names the library and carries its
//   signature:
//       {"Name":"echo",
//        "Path":"/usr/lib/tessmar/modules/libtessmar_echo_module.so",
//        "Sig":"<44 Base64 characters>","Version":"1.0.0.0"}
//   "Sig" is MakeBase64Encode(makeClientSig("morrowhost", "pelmora", Path)),
//   computed over the installed file; a rebuilt library must be signed again.
//   Pages then reach the module with "module":"echo" in their requests.
#include <json.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "tessmar/module.h"

namespace {

// The host's services. Written once by SetHostFuncs, which the host calls
// before any other entry point; the worker thread is started later, so it
// sees the value without a lock.
QXHostFuncs* g_host = nullptr;

// How long the module waits before it answers a registration.
constexpr std::chrono::milliseconds kCallbackDelay(50);

// --- Text helpers ----------------------------------------------------------

// `text` as a JSON string literal, quotes included. The host copies module
// answers into its envelope as they stand, so every string the module puts
// into JSON must be escaped here.
std::string Quote(const char* text) {
  std::string out = "\"";
  for (const char* p = text != nullptr ? text : ""; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escape[7];
          std::snprintf(escape, sizeof escape, "\\u%04x", c);
          out += escape;
        } else {
          out += static_cast<char>(c);  // UTF-8 bytes pass through
        }
    }
  }
  out += '"';
  return out;
}

// A copy of `text` for the host. Strings go out allocated with the host's
// Alloc and come back through FreeString, which releases them with the
// host's Free: always the matching pair.
char* CopyForHost(const std::string& text) {
  void* block = g_host != nullptr ? g_host->Alloc(text.size() + 1)
                                  : std::malloc(text.size() + 1);
  if (block == nullptr) return nullptr;
  std::memcpy(block, text.c_str(), text.size() + 1);
  return static_cast<char*>(block);
}

// Reads one string member of the request. The host passes the whole request
// text; members are looked up in the top-level object, first match wins, as
// the host itself does.
std::string RequestString(const char* request, const char* name) {
  if (request == nullptr) return std::string();
  json_value* root = json_parse(request, std::strlen(request));
  const std::size_t name_length = std::strlen(name);
  std::string value;
  if (root != nullptr && root->type == json_object) {
    for (unsigned i = 0; i < root->u.object.length; ++i) {
      const json_object_entry& member = root->u.object.values[i];
      if (member.name_length != name_length ||
          std::memcmp(member.name, name, name_length) != 0) {
        continue;
      }
      if (member.value->type == json_string) {
        value.assign(member.value->u.string.ptr, member.value->u.string.length);
      }
      break;
    }
  }
  if (root != nullptr) json_value_free(root);
  return value;
}

// --- The worker thread -------------------------------------------------------

// A registration waiting for its callback.
struct PendingCallback {
  std::string tabid;
  std::string callback;
  std::string id;
  std::chrono::steady_clock::time_point due;
};

// Sends registered callbacks from a thread of the module's own. The thread is
// started by the first registration and stopped by Terminate.
class CallbackWorker {
 public:
  CallbackWorker() = default;
  // The host unloads modules only on request; usually the process simply
  // exits and this destructor runs without Terminate having been called.
  // Destroying a running std::thread would abort the process, so stop it.
  ~CallbackWorker() { Stop(); }
  CallbackWorker(const CallbackWorker&) = delete;
  CallbackWorker& operator=(const CallbackWorker&) = delete;

  void Schedule(PendingCallback pending) {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(std::move(pending));
    if (!thread_.joinable()) thread_ = std::thread(&CallbackWorker::Run, this);
    wake_.notify_one();
  }

  // Stops the thread and drops what has not been sent: once Terminate is
  // called the host is unloading us and nobody is waiting for the answers.
  // Leaves the worker ready to start again, in case the host keeps the
  // library mapped and initialises it a second time.
  void Stop() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      wake_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.clear();
    stopping_ = false;
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
      if (stopping_) return;
      // Registrations are due in the order they arrived, so the front one is
      // always the next to send.
      const auto due = pending_.front().due;
      if (wake_.wait_until(lock, due, [this] { return stopping_; })) return;
      PendingCallback next = std::move(pending_.front());
      pending_.pop_front();
      // Never call into the host while holding our own lock: the host takes
      // its queue lock inside SendCallback.
      lock.unlock();
      Send(next);
      lock.lock();
    }
  }

  static void Send(const PendingCallback& pending) {
    const std::string reply =
        "{\"module\":\"echo\",\"event\":\"ping\",\"id\":" +
        Quote(pending.id.c_str()) + "}";
    // The host copies the texts before it returns; the second argument is
    // not used by this host.
    g_host->SendCallback(pending.tabid.c_str(), nullptr,
                         pending.callback.c_str(), reply.c_str());
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<PendingCallback> pending_;
  bool stopping_ = false;
  std::thread thread_;
};

CallbackWorker g_worker;

// --- Entry points ------------------------------------------------------------

void SetHostFuncs(QXHostFuncs* host) { g_host = host; }

void Terminate() { g_worker.Stop(); }

void FreeString(char* text) {
  if (g_host != nullptr) {
    g_host->Free(text);
  } else {
    std::free(text);
  }
}

char* Invoke(const char* origin, const char* id, const char* request) {
  const std::size_t length = request != nullptr ? std::strlen(request) : 0;
  const std::string answer =
      "{\"module\":\"echo\",\"origin\":" + Quote(origin) +
      ",\"id\":" + Quote(id) + ",\"length\":" + std::to_string(length) + "}";
  return CopyForHost(answer);
}

char* SetCallback(const char* /*origin*/, const char* id, const char* request,
                  const char* tabid, int /*flag: always 1*/) {
  // The callback name is not an argument; it is a member of the request.
  const std::string callback = RequestString(request, "callback");
  if (tabid == nullptr || callback.empty() || g_host == nullptr) {
    return CopyForHost("{\"module\":\"echo\",\"registered\":false}");
  }
  g_worker.Schedule({tabid, callback, id != nullptr ? id : "",
                     std::chrono::steady_clock::now() + kCallbackDelay});
  return CopyForHost("{\"module\":\"echo\",\"registered\":true,\"callback\":" +
                     Quote(callback.c_str()) + "}");
}

}  // namespace

// The one exported symbol. Fills every slot of the host's table, including
// the ones this module does not use, since the table arrives uncleared.
extern "C" __attribute__((visibility("default"))) int Initialize(
    QxClientFuncs* funcs) {
  if (funcs == nullptr) return 1;
  funcs->reserved0 = nullptr;
  funcs->reserved1 = nullptr;
  funcs->SetHostFuncs = SetHostFuncs;
  funcs->Terminate = Terminate;
  funcs->reserved4 = nullptr;
  funcs->FreeString = FreeString;
  funcs->Invoke = Invoke;
  funcs->SetCallback = SetCallback;
  return 0;
}
