// Answering one request from a web page: refused, echoed, broadcast to the
// loaded modules, or dispatched to one module and wrapped in the envelope.
#include <cstring>
#include <string>
#include <string_view>

#include "config/json_file.h"
#include "modhost/reply_envelope.h"
#include "modhost/request_processing.h"
#include "tessmar/modhost.h"

namespace {

// The request members the module host reads, found in one pass over the
// parsed request. The strings stay in the tree, which ends each with a NUL,
// so data() is a C string (up to any NUL the value holds, as c_str() of a
// copy would be); absent or non-string members are "".
struct RequestFields {
  std::string_view cmd = "", id = "", tabid = "", callback = "", module = "",
                   origin = "";
  bool echo = false;

  explicit RequestFields(const tessmar::JsonDocument& request) {
    static constexpr std::string_view kNames[] = {
        "cmd", "id", "tabid", "callback", "module", "origin", "echo"};
    constexpr std::size_t kCount = sizeof kNames / sizeof kNames[0];
    const json_value* found[kCount];
    request.Members(kNames, found, kCount);
    std::string_view* const strings[] = {&cmd,      &id,     &tabid,
                                         &callback, &module, &origin};
    for (std::size_t i = 0; i < kCount - 1; ++i) {
      const json_value* value = found[i];
      if (value != nullptr && value->type == json_string) {
        *strings[i] = std::string_view(value->u.string.ptr,
                                       value->u.string.length);
      }
    }
    const json_value* flag = found[kCount - 1];
    echo = flag != nullptr && flag->type == json_boolean &&
           flag->u.boolean != 0;
  }
};

constexpr char kDefaultModule[] = "morrowhost";
constexpr char kBroadcast[] = "_all_";

std::string Envelope(const RequestFields& request, int status,
                     const char* reply) {
  return BuildReplyEnvelope(request.id.data(), request.tabid.data(), status,
                            reply, request.callback.data());
}

// The module's answer, copied into the envelope and handed back to the module.
std::string WrapAnswer(const RequestFields& request, QxClientFuncs* funcs,
                       char* answer, int status_when_null) {
  std::string reply = answer != nullptr
                          ? Envelope(request, REPLY_TRUE, answer)
                          : Envelope(request, status_when_null, nullptr);
  if (answer != nullptr && funcs->FreeString != nullptr) {
    funcs->FreeString(answer);
  }
  return reply;
}

// The reply of one module to the request; `module_override`, when non-empty,
// replaces the request's own "module".
std::string DispatchToModule(const RequestFields& request,
                             const char* module_override, const char* text,
                             QXHostFuncs* host) {
  if (request.id.empty()) return std::string();

  const char* target = kDefaultModule;
  if (!request.module.empty()) target = request.module.data();
  if (module_override != nullptr && *module_override != '\0') {
    target = module_override;
  }

  QxClientFuncs* funcs = GetInvoke(target);
  if (funcs == nullptr) {
    switch (LoadQxClient(target, host)) {
      case QX_LOAD_INSTALLATION_BLOCKED:
        return Envelope(request, REPLY_BLOCK_QX, nullptr);
      case QX_LOAD_CLIENT_BLOCKED:
        return Envelope(request, REPLY_BLOCK_CLIENT, nullptr);
      case QX_LOAD_OK:
        funcs = GetInvoke(target);
        break;
      default:
        return Envelope(request, REPLY_FALSE, nullptr);
    }
    if (funcs == nullptr) return Envelope(request, REPLY_FALSE, nullptr);
  }

  const char* origin = request.origin.data();
  const char* id = request.id.data();
  if (request.cmd == "setcallback") {
    // A module without SetCallback still gets a successful, empty reply.
    char* answer = funcs->SetCallback != nullptr
                       ? funcs->SetCallback(origin, id, text,
                                            request.tabid.data(), 1)
                       : nullptr;
    return WrapAnswer(request, funcs, answer, REPLY_TRUE);
  }
  // A module must fill Invoke; an empty slot is answered like no answer
  // rather than followed into a crash.
  char* answer =
      funcs->Invoke != nullptr ? funcs->Invoke(origin, id, text) : nullptr;
  return WrapAnswer(request, funcs, answer, REPLY_FALSE);
}

}  // namespace

namespace tessmar {

std::string AnswerParsedRequest(const JsonDocument& parsed, const char* text,
                                std::size_t length, QXHostFuncs* host) {
  if (!parsed.parsed()) return std::string();
  const RequestFields request(parsed);
  if (request.cmd != "native" && request.cmd != "setcallback") {
    return std::string();
  }

  if (request.echo) {
    // The request comes back inside the envelope's reply, read as a C
    // string like any reply: up to a NUL it may hold, without the closing
    // braces then.
    const std::size_t body = strnlen(text, length);
    return ReplyEnvelope(request.id.data(), request.tabid.data(), REPLY_TRUE,
                         {"{\"reply\":{\"status\":\"0\", \"reply\":",
                          std::string_view(text, body),
                          body == length ? "}}" : ""},
                         request.callback.data());
  }

  if (request.module != kBroadcast) {
    return DispatchToModule(request, nullptr, text, host);
  }

  // Broadcast to the modules loaded already; none is loaded for it, and
  // their replies are discarded.
  std::string names = GetLoadedClientList();
  char* position = nullptr;
  for (char* name = strtok_r(&names[0], ",", &position); name != nullptr;
       name = strtok_r(nullptr, ",", &position)) {
    DispatchToModule(request, name, text, host);
  }
  return Envelope(request, REPLY_TRUE, nullptr);
}

}  // namespace tessmar

std::string process_request(void* /*context*/, const char* text, int length,
                            QXHostFuncs* host) {
  if (text == nullptr || length < 0) return std::string();
  const tessmar::JsonDocument parsed(text, static_cast<std::size_t>(length));
  if (!parsed.parsed()) return std::string();
  // Modules receive exactly `length` bytes as a C string.
  const std::string request(text, static_cast<std::size_t>(length));
  return tessmar::AnswerParsedRequest(parsed, request.c_str(), request.size(),
                                      host);
}
