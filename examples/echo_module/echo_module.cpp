// An example client module: a starting point for writing your own.
//
// What it does
//   - An ordinary ("native") request is answered with a JSON object that
//     describes it:
//         {"module":"echo","origin":"https://page.example","id":"7","length":84}
//     where "length" is the byte length of the whole request text.
//   - A "setcallback" request registers the page's callback and is answered
//         {"module":"echo","registered":true,"callback":"onEcho"}
//     (or {"module":"echo","registered":false} when it names no callback,
//     or one that is not made of letters, digits, "_", "." and "$").
//     About 50 ms later the module sends one message to that callback:
//         {"module":"echo","event":"ping","id":"7"}
//     The host wraps it and queues it for the page's tab.
//
// How it is built on include/tessmar/module.hpp
//   - TESSMAR_MODULE(Echo) exports Initialize, the one symbol the host looks
//     up, and routes the host's calls to `invoke` and `set_callback`. Both
//     run on the host's request thread, one request at a time.
//   - Replies are objects written by RapidJSON: {{"name", value}, ...}.
//   - tessmar::after runs the delayed ping on a thread the SDK owns; the SDK
//     stops it when the host unloads the module or the process exits, and
//     drops pings not sent by then.
//
// Installing
//   The host loads a module only when its module file, NAME.json in the
//   framework's configuration directory, names the library and carries its
//   signature. For development, sign the built library for your own user:
//       cmake --build build-echo --target tessmar_echo_module-sign
//   which runs
//       tessmar-sign module echo /path/to/libtessmar_echo_module.so
//   A rebuilt library must be signed again. Pages then reach the module with
//   "module":"echo" in their requests.
#include <tessmar/module.hpp>

#include <chrono>
#include <string>

namespace {

// The delay before a registration's ping.
constexpr std::chrono::milliseconds kCallbackDelay(50);

// The host copies callback names into callback texts unescaped, and they
// route callbacks: only names that need no escaping cannot forge a route.
bool PlainName(const std::string& name) {
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                       (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '$';
    if (!plain) return false;
  }
  return true;
}

struct Echo {
  tessmar::Reply invoke(const tessmar::Request& request) {
    return {{"module", "echo"},
            {"origin", request.origin()},
            {"id", request.id()},
            {"length", request.text().size()}};
  }

  // `page` is the request's tab and its "callback" member.
  tessmar::Reply set_callback(const tessmar::Request& request,
                              tessmar::Callback page) {
    if (!page || !PlainName(page.name())) {
      return {{"module", "echo"}, {"registered", false}};
    }
    tessmar::after(kCallbackDelay, [page, id = std::string(request.id())] {
      page.send({{"module", "echo"}, {"event", "ping"}, {"id", id}});
    });
    return {{"module", "echo"},
            {"registered", true},
            {"callback", page.name()}};
  }
};

}  // namespace

TESSMAR_MODULE(Echo)
