// The messages tessmar-nm-host exchanges with the browser extension.
//
// Both directions carry one UTF-8 JSON object per message, preceded by its
// length in 4 bytes of native byte order (the browsers' native-messaging
// framing, the same as the bridge's FIFOs):
//
//   extension -> host   {"seq": N, "request": "<request text>"}
//   host -> extension   {"mode": "in-process"} or {"mode": "host"}  (first)
//                       {"seq": N, "reply": "<reply text>"}  (null: no reply)
//                       {"seq": N, "error": "<reason>"}
//                       {"error": "<reason>"}      (a message without a seq)
//                       {"callback": "<callback text>"}
//
// Texts travel as JSON strings, so replies that are not JSON themselves
// arrive unchanged; bytes that are not UTF-8 become U+FFFD.
#ifndef TESSMAR_TOOLS_NM_HOST_MESSAGES_H
#define TESSMAR_TOOLS_NM_HOST_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tessmar::nm {

// The browsers accept at most 1 MiB in one message from a native host.
inline constexpr std::size_t kMaxOutgoing = 1024 * 1024;
// The largest message from the extension that is served; a larger one is
// read away and answered with an error. Replies are capped at 1 MiB, so no
// real request comes near this; parsing one this size (up to about 19
// times its text for nested arrays) keeps the adapter under 128 MiB.
inline constexpr std::size_t kMaxIncoming = 4 * 1024 * 1024;

// `text` with every byte that does not start a well-formed UTF-8 sequence
// replaced by U+FFFD; the rest is kept. The messages below pass their texts
// through it before writing them.
std::string RepairUtf8(const std::string& text);

// One message from the extension, taken apart.
struct Incoming {
  bool has_seq = false;  // a "seq" holding a non-negative integer
  std::int64_t seq = 0;
  std::string request;  // valid when error is empty
  std::string error;    // why the message cannot be served
};

// Parses one message body (json-parser, default settings).
Incoming ParseIncoming(const char* body, std::size_t length);

// The "seq" of a message from its first bytes alone, as the extension writes
// it: {"seq":N, ... Used for messages too large to be parsed.
struct SeqPrefix {
  bool found = false;
  std::int64_t seq = 0;
};
SeqPrefix ReadSeqPrefix(const char* body, std::size_t length);

// {"mode":"host"} or {"mode":"in-process"}: the first message of a session,
// so that the extension knows whether it may start one adapter per module.
std::string ModeMessage(bool host);
// {"seq":N,"reply":"..."}, or "reply":null when `reply` is null.
std::string ReplyMessage(std::int64_t seq, const char* reply);
// {"seq":N,"error":"..."}, without "seq" when there is none.
std::string ErrorMessage(bool has_seq, std::int64_t seq,
                         const std::string& reason);
// {"callback":"..."}
std::string CallbackMessage(const std::string& text);

}  // namespace tessmar::nm

#endif  // TESSMAR_TOOLS_NM_HOST_MESSAGES_H
