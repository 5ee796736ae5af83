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

// The request members the module host reads.
enum Field { kCmd, kId, kTabid, kCallback, kModule, kOrigin, kEcho, kNone };

// The field a member name stands for: by length first, so that each name is
// compared with at most two others.
Field FieldNamed(std::string_view name) {
  switch (name.size()) {
    case 2: return name == "id" ? kId : kNone;
    case 3: return name == "cmd" ? kCmd : kNone;
    case 4: return name == "echo" ? kEcho : kNone;
    case 5: return name == "tabid" ? kTabid : kNone;
    case 6: return name == "module"   ? kModule
                   : name == "origin" ? kOrigin
                                      : kNone;
    case 8: return name == "callback" ? kCallback : kNone;
    default: return kNone;
  }
}

// The request's fields, found in one pass over the parsed request; the
// first member of a name counts. The strings stay in the tree, which ends
// each with a NUL, so data() is a C string (up to any NUL the value holds,
// as c_str() of a copy would be); absent or non-string members are "".
struct RequestFields {
  std::string_view cmd = "", id = "", tabid = "", callback = "", module = "",
                   origin = "";
  bool echo = false;

  explicit RequestFields(const tessmar::JsonDocument& request) {
    std::string_view* const strings[] = {&cmd,      &id,     &tabid,
                                         &callback, &module, &origin};
    bool seen[kNone] = {};
    request.EachMember([&](std::string_view name, const json_value* value) {
      const Field field = FieldNamed(name);
      if (field == kNone || seen[field]) return;
      seen[field] = true;
      if (field == kEcho) {
        echo = value->type == json_boolean && value->u.boolean != 0;
      } else if (value->type == json_string) {
        *strings[field] =
            std::string_view(value->u.string.ptr, value->u.string.length);
      }
    });
  }
};

constexpr char kDefaultModule[] = "morrowhost";
constexpr char kBroadcast[] = "_all_";

void Envelope(const RequestFields& request, int status, const char* reply,
              tessmar::ReplyStorage& out) {
  tessmar::ReplyEnvelope(out, request.id.data(), request.tabid.data(), status,
                         {reply != nullptr ? reply : ""},
                         request.callback.data());
}

// The module's answer, copied into the envelope and handed back to the module.
void WrapAnswer(const RequestFields& request, QxClientFuncs* funcs,
                char* answer, int status_when_null,
                tessmar::ReplyStorage& out) {
  Envelope(request, answer != nullptr ? REPLY_TRUE : status_when_null, answer,
           out);
  if (answer != nullptr && funcs->FreeString != nullptr) {
    funcs->FreeString(answer);
  }
}

// The reply of one module to the request; `module_override`, when non-empty,
// replaces the request's own "module".
void DispatchToModule(const RequestFields& request,
                      const char* module_override, const char* text,
                      QXHostFuncs* host, tessmar::ReplyStorage& out) {
  if (request.id.empty()) return;

  const char* target = kDefaultModule;
  if (!request.module.empty()) target = request.module.data();
  if (module_override != nullptr && *module_override != '\0') {
    target = module_override;
  }

  QxClientFuncs* funcs = GetInvoke(target);
  if (funcs == nullptr) {
    switch (LoadQxClient(target, host)) {
      case QX_LOAD_INSTALLATION_BLOCKED:
        return Envelope(request, REPLY_BLOCK_QX, nullptr, out);
      case QX_LOAD_CLIENT_BLOCKED:
        return Envelope(request, REPLY_BLOCK_CLIENT, nullptr, out);
      case QX_LOAD_OK:
        funcs = GetInvoke(target);
        break;
      default:
        return Envelope(request, REPLY_FALSE, nullptr, out);
    }
    if (funcs == nullptr) return Envelope(request, REPLY_FALSE, nullptr, out);
  }

  const char* origin = request.origin.data();
  const char* id = request.id.data();
  if (request.cmd == "setcallback") {
    // A module without SetCallback still gets a successful, empty reply.
    char* answer = funcs->SetCallback != nullptr
                       ? funcs->SetCallback(origin, id, text,
                                            request.tabid.data(), 1)
                       : nullptr;
    return WrapAnswer(request, funcs, answer, REPLY_TRUE, out);
  }
  // A module must fill Invoke; an empty slot is answered like no answer
  // rather than followed into a crash.
  char* answer =
      funcs->Invoke != nullptr ? funcs->Invoke(origin, id, text) : nullptr;
  WrapAnswer(request, funcs, answer, REPLY_FALSE, out);
}

}  // namespace

namespace tessmar {

void AnswerParsedRequest(const JsonDocument& parsed, std::string_view text,
                         bool whole, QXHostFuncs* host, ReplyStorage& out) {
  if (!parsed.parsed()) return;
  const RequestFields request(parsed);
  if (request.cmd != "native" && request.cmd != "setcallback") return;

  if (request.echo) {
    // The request comes back inside the envelope's reply, read as a C
    // string like any reply: up to a NUL it may hold, without the closing
    // braces then.
    return ReplyEnvelope(out, request.id.data(), request.tabid.data(),
                         REPLY_TRUE,
                         {"{\"reply\":{\"status\":\"0\", \"reply\":", text,
                          whole ? "}}" : ""},
                         request.callback.data());
  }

  if (request.module != kBroadcast) {
    return DispatchToModule(request, nullptr, text.data(), host, out);
  }

  // Broadcast to the modules loaded already; none is loaded for it, and
  // their replies are discarded.
  std::string names = GetLoadedClientList();
  std::string discarded;
  StringReply scratch(&discarded);
  char* position = nullptr;
  for (char* name = strtok_r(&names[0], ",", &position); name != nullptr;
       name = strtok_r(nullptr, ",", &position)) {
    DispatchToModule(request, name, text.data(), host, scratch);
  }
  Envelope(request, REPLY_TRUE, nullptr, out);
}

}  // namespace tessmar

std::string process_request(void* /*context*/, const char* text, int length,
                            QXHostFuncs* host) {
  if (text == nullptr || length < 0) return std::string();
  const tessmar::JsonDocument parsed(text, static_cast<std::size_t>(length));
  if (!parsed.parsed()) return std::string();
  // Modules receive exactly `length` bytes as a C string.
  const std::string request(text, static_cast<std::size_t>(length));
  const std::size_t c_length = strnlen(request.c_str(), request.size());
  std::string answer;
  tessmar::StringReply out(&answer);
  tessmar::AnswerParsedRequest(parsed, std::string_view(request.c_str(), c_length),
                               c_length == request.size(), host, out);
  return answer;
}
