// The "setcallback" message that reaches the page for an asynchronous reply
// of a client module, whether the module runs inside the library or in the
// host process. Header-only so that the reference host writes exactly the
// bytes the library queues, without reaching the library's hidden symbols.
#ifndef TESSMAR_SRC_BRIDGE_SET_CALLBACK_MESSAGE_H
#define TESSMAR_SRC_BRIDGE_SET_CALLBACK_MESSAGE_H

#include <string>

namespace tessmar::bridge {

//   {"response":{"id":"setcallback", "tabid":"TAB", "callback":"CB",
//    "reply":REPLY}}
// with these exact separators and no escaping; REPLY must itself be a JSON
// value and is inserted as it stands ({} when null or empty). `tabid` and
// `callback` must not be null.
inline std::string SetCallbackMessage(const char* tabid, const char* callback,
                                      const char* reply) {
  std::string text = "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"";
  text += tabid;
  text += "\", \"callback\":\"";
  text += callback;
  text += "\", \"reply\":";
  text += (reply != nullptr && *reply != '\0') ? reply : "{}";
  text += "}}";
  return text;
}

}  // namespace tessmar::bridge

#endif  // TESSMAR_SRC_BRIDGE_SET_CALLBACK_MESSAGE_H
