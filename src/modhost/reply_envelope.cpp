// The JSON reply envelope around every module answer.
#include <cstring>
#include <string>
#include <string_view>

#include "modhost/reply_envelope.h"
#include "tessmar/modhost.h"

namespace {

std::string_view StatusWord(int status) {
  switch (status) {
    case REPLY_TRUE: return "TRUE";
    case REPLY_CANCEL: return "CANCEL";
    case REPLY_BLOCK_QX: return "BLOCK:QX";
    case REPLY_BLOCK_CLIENT: return "BLOCK:CLIENT";
    default: return "FALSE";
  }
}

// Copies `piece` to `out` and returns the end of the copy.
inline char* Put(char* out, std::string_view piece) {
  std::memcpy(out, piece.data(), piece.size());
  return out + piece.size();
}

}  // namespace

namespace tessmar {

void ReplyEnvelope(ReplyStorage& out, const char* id, const char* tabid,
                   int status, std::initializer_list<std::string_view> reply,
                   const char* callback) {
  if (id == nullptr) return;
  // The irregular blanks are part of the format extensions parse; the
  // fields are not escaped and the reply goes in as raw JSON.
  constexpr std::string_view kOpen = "{\"response\": {\"id\": \"";
  constexpr std::string_view kTabid = "\", \"tabid\":\"";
  constexpr std::string_view kStatus = "\", \"status\":\"";
  constexpr std::string_view kReply = "\", \"reply\":";
  constexpr std::string_view kCallback = ", \"callback\": \"";
  constexpr std::string_view kClose = "\"}}";
  constexpr std::string_view kEmptyReply = "{}";
  const std::string_view id_text = id;
  const std::string_view tabid_text = tabid != nullptr ? tabid : "";
  const std::string_view word = StatusWord(status);
  const std::string_view callback_text = callback != nullptr ? callback : "";
  std::size_t reply_size = 0;
  for (const std::string_view piece : reply) reply_size += piece.size();

  // Sized once, then filled by plain copies, straight into the storage the
  // receiver keeps.
  char* at = out.Reserve(
      kOpen.size() + id_text.size() + kTabid.size() + tabid_text.size() +
      kStatus.size() + word.size() + kReply.size() +
      (reply_size > 0 ? reply_size : kEmptyReply.size()) + kCallback.size() +
      callback_text.size() + kClose.size());
  if (at == nullptr) return;
  at = Put(at, kOpen);
  at = Put(at, id_text);
  at = Put(at, kTabid);
  at = Put(at, tabid_text);
  at = Put(at, kStatus);
  at = Put(at, word);
  at = Put(at, kReply);
  if (reply_size == 0) at = Put(at, kEmptyReply);
  for (const std::string_view piece : reply) at = Put(at, piece);
  at = Put(at, kCallback);
  at = Put(at, callback_text);
  Put(at, kClose);
}

}  // namespace tessmar

std::string BuildReplyEnvelope(const char* id, const char* tabid, int status,
                               const char* reply, const char* callback) {
  std::string envelope;
  tessmar::StringReply out(&envelope);
  tessmar::ReplyEnvelope(out, id, tabid, status,
                         {reply != nullptr ? reply : ""}, callback);
  return envelope;
}
