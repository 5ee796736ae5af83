#include "messages.h"

#include <json.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstring>
#include <limits>

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

// One message object, written by RapidJSON; its texts are repaired first,
// since the writer passes bytes that are not UTF-8 through unchanged.
struct Message {
  Message() { writer.StartObject(); }
  void Seq(std::int64_t seq) {
    writer.Key("seq");
    writer.Int64(seq);
  }
  void Text(const std::string& text) {
    const std::string valid = RepairUtf8(text);
    // RapidJSON counts lengths in 32 bits. A text cut there still makes a
    // message far over kMaxOutgoing, which is then refused as too large.
    writer.String(valid.data(),
                  static_cast<rapidjson::SizeType>(std::min<std::size_t>(
                      valid.size(), std::numeric_limits<rapidjson::SizeType>::max())));
  }
  std::string Finish() {
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
  }
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer{buffer};
};

}  // namespace

std::string RepairUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = Utf8Sequence(bytes + i, text.size() - i);
    if (n == 0) {
      out += "\xef\xbf\xbd";  // U+FFFD for this one byte
      ++i;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
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
  Message message;
  message.Seq(seq);
  message.writer.Key("reply");
  if (reply != nullptr) {
    message.Text(reply);
  } else {
    message.writer.Null();
  }
  return message.Finish();
}

std::string ErrorMessage(bool has_seq, std::int64_t seq,
                         const std::string& reason) {
  Message message;
  if (has_seq) message.Seq(seq);
  message.writer.Key("error");
  message.Text(reason);
  return message.Finish();
}

std::string CallbackMessage(const std::string& text) {
  Message message;
  message.writer.Key("callback");
  message.Text(text);
  return message.Finish();
}

}  // namespace tessmar::nm
