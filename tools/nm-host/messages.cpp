#include "messages.h"

#include <json.h>

#include <cstdio>
#include <cstring>

#include "tessmar/json_document.h"

namespace tessmar::nm {
namespace {

// Length of the well-formed UTF-8 sequence at `p` (RFC 3629: no overlong
// forms, no surrogates, nothing above U+10FFFF), or 0.
std::size_t Utf8Sequence(const unsigned char* p, std::size_t left) {
  const unsigned char c = p[0];
  std::size_t length;
  unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (left < length || p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

}  // namespace

std::string Quote(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = bytes[i];
    if (c >= 0x80) {
      const std::size_t n = Utf8Sequence(bytes + i, text.size() - i);
      if (n == 0) {
        out += "\\ufffd";
        ++i;
      } else {
        out.append(text, i, n);
        i += n;
      }
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        if (c < 0x20) {
          char escape[7];
          std::snprintf(escape, sizeof escape, "\\u%04x", c);
          out += escape;
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  out += '"';
  return out;
}

Incoming ParseIncoming(const char* body, std::size_t length) {
  Incoming in;
  const JsonDocument message(body, length);
  if (!message.is_object()) {
    in.error = "malformed message: not a JSON object";
    return in;
  }
  const json_value* seq = message.Member("seq");
  if (seq == nullptr || seq->type != json_integer || seq->u.integer < 0) {
    in.error = "malformed message: \"seq\" must be a non-negative integer";
    return in;
  }
  in.has_seq = true;
  in.seq = seq->u.integer;
  const json_value* request = message.Member("request");
  if (request == nullptr || request->type != json_string) {
    in.error = "malformed message: \"request\" must be a string";
    return in;
  }
  in.request.assign(request->u.string.ptr, request->u.string.length);
  // The bridge takes NUL-terminated texts: a NUL would cut the request.
  if (std::memchr(in.request.data(), '\0', in.request.size()) != nullptr) {
    in.error = "the request contains a NUL character";
  }
  return in;
}

SeqPrefix ReadSeqPrefix(const char* body, std::size_t length) {
  static constexpr char kOpening[] = "{\"seq\":";
  constexpr std::size_t kOpeningLength = sizeof kOpening - 1;
  constexpr std::size_t kMaxDigits = 18;  // below INT64_MAX
  SeqPrefix prefix;
  if (length < kOpeningLength || std::memcmp(body, kOpening, kOpeningLength) != 0) {
    return prefix;
  }
  std::int64_t seq = 0;
  std::size_t at = kOpeningLength;
  for (; at < length && at - kOpeningLength < kMaxDigits; ++at) {
    if (body[at] < '0' || body[at] > '9') break;
    seq = seq * 10 + (body[at] - '0');
  }
  if (at == kOpeningLength || at == length || (body[at] != ',' && body[at] != '}')) {
    return prefix;
  }
  prefix.found = true;
  prefix.seq = seq;
  return prefix;
}

std::string ModeMessage(bool host) {
  return host ? "{\"mode\":\"host\"}" : "{\"mode\":\"in-process\"}";
}

std::string ReplyMessage(std::int64_t seq, const char* reply) {
  return "{\"seq\":" + std::to_string(seq) + ",\"reply\":" +
         (reply != nullptr ? Quote(reply) : std::string("null")) + "}";
}

std::string ErrorMessage(bool has_seq, std::int64_t seq,
                         const std::string& reason) {
  return std::string("{") +
         (has_seq ? "\"seq\":" + std::to_string(seq) + "," : "") +
         "\"error\":" + Quote(reason) + "}";
}

std::string CallbackMessage(const std::string& text) {
  return "{\"callback\":" + Quote(text) + "}";
}

}  // namespace tessmar::nm
