// The JSON reply envelope around every module answer.
#include <string>

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
  std::string envelope = "{\"response\": {\"id\": \"";
  envelope += id;
  envelope += "\", \"tabid\":\"";
  if (tabid != nullptr) envelope += tabid;
  envelope += "\", \"status\":\"";
  envelope += StatusWord(status);
  envelope += "\", \"reply\":";
  envelope += (reply != nullptr && *reply != '\0') ? reply : "{}";
  envelope += ", \"callback\": \"";
  if (callback != nullptr) envelope += callback;
  envelope += "\"}}";
  return envelope;
}
