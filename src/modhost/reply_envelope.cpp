// The JSON reply envelope around every module answer.
#include <cstring>
#include <string>
#include <string_view>

#include "modhost/reply_envelope.h"
#include "tessmar/modhost.h"

namespace {

const char* StatusWord(int status) {
  switch (status) {
    case REPLY_TRUE: return "TRUE";
    case REPLY_CANCEL: return "CANCEL";
    case REPLY_BLOCK_QX: return "BLOCK:QX";
    case REPLY_BLOCK_CLIENT: return "BLOCK:CLIENT";
    default: return "FALSE";
  }
}

}  // namespace

namespace tessmar {

std::string ReplyEnvelope(const char* id, const char* tabid, int status,
                          std::initializer_list<std::string_view> reply,
                          const char* callback) {
  if (id == nullptr) return std::string();
  // The irregular blanks are part of the format extensions parse; the
  // pieces are not escaped and the reply goes in as raw JSON.
  static constexpr std::string_view kPieces[] = {
      "{\"response\": {\"id\": \"", "\", \"tabid\":\"", "\", \"status\":\"",
      "\", \"reply\":", ", \"callback\": \"", "\"}}"};
  std::size_t reply_size = 0;
  for (const std::string_view piece : reply) reply_size += piece.size();
  const std::string_view fields[] = {id, tabid != nullptr ? tabid : "",
                                     StatusWord(status), "",
                                     callback != nullptr ? callback : ""};
  std::size_t size = kPieces[5].size() + (reply_size > 0 ? reply_size : 2);
  for (int i = 0; i < 5; ++i) size += kPieces[i].size() + fields[i].size();
  // Sized once, then filled by plain copies: appending piece by piece
  // costs more than the copies themselves at these lengths.
  std::string envelope(size, '\0');
  char* out = &envelope[0];
  const auto put = [&out](std::string_view piece) {
    std::memcpy(out, piece.data(), piece.size());
    out += piece.size();
  };
  for (int i = 0; i < 5; ++i) {
    put(kPieces[i]);
    put(fields[i]);
    if (i != 3) continue;
    if (reply_size == 0) put("{}");
    for (const std::string_view piece : reply) put(piece);
  }
  put(kPieces[5]);
  return envelope;
}

}  // namespace tessmar

std::string BuildReplyEnvelope(const char* id, const char* tabid, int status,
                               const char* reply, const char* callback) {
  return tessmar::ReplyEnvelope(id, tabid, status,
                                {reply != nullptr ? reply : ""}, callback);
}
