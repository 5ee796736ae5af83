// The JSON reply envelope around every module answer.
#include <string>
#include <string_view>

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

std::string BuildReplyEnvelope(const char* id, const char* tabid, int status,
                               const char* reply, const char* callback) {
  if (id == nullptr) return std::string();
  // The irregular blanks are part of the format extensions parse; the
  // pieces are not escaped and the reply goes in as raw JSON.
  static constexpr std::string_view kPieces[] = {
      "{\"response\": {\"id\": \"", "\", \"tabid\":\"", "\", \"status\":\"",
      "\", \"reply\":", ", \"callback\": \"", "\"}}"};
  const std::string_view fields[] = {
      id, tabid != nullptr ? tabid : "", StatusWord(status),
      (reply != nullptr && *reply != '\0') ? reply : "{}",
      callback != nullptr ? callback : ""};
  std::size_t size = kPieces[5].size();
  for (int i = 0; i < 5; ++i) size += kPieces[i].size() + fields[i].size();

  std::string envelope;
  envelope.reserve(size);  // one allocation for the whole text
  for (int i = 0; i < 5; ++i) envelope.append(kPieces[i]).append(fields[i]);
  envelope.append(kPieces[5]);
  return envelope;
}
