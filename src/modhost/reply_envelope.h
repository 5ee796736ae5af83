// The reply envelope with the reply handed over in pieces, so that a reply
// made of known parts goes into the envelope without being assembled first.
#ifndef TESSMAR_SRC_MODHOST_REPLY_ENVELOPE_H
#define TESSMAR_SRC_MODHOST_REPLY_ENVELOPE_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace tessmar {

// BuildReplyEnvelope with REPLY the concatenation of `reply` ({} when that
// is empty).
std::string ReplyEnvelope(const char* id, const char* tabid, int status,
                          std::initializer_list<std::string_view> reply,
                          const char* callback);

}  // namespace tessmar

#endif  // TESSMAR_SRC_MODHOST_REPLY_ENVELOPE_H
