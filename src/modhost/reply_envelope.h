// The reply envelope, written once at its exact size into storage its
// receiver keeps, with the reply handed over in pieces so that a reply made
// of known parts goes into the envelope without being assembled first.
#ifndef TESSMAR_SRC_MODHOST_REPLY_ENVELOPE_H
#define TESSMAR_SRC_MODHOST_REPLY_ENVELOPE_H

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

namespace tessmar {

// Where a reply goes once its size is known: a string for the exported
// functions, the caller's malloc buffer for tsmx_Invoke.
class ReplyStorage {
 public:
  // Room for `size` bytes, with a NUL after them already in place, or null
  // when there is none (the reply is then dropped). Asked at most once per
  // reply; a reply never asked for is no reply.
  virtual char* Reserve(std::size_t size) = 0;

 protected:
  ~ReplyStorage() = default;
};

// A reply into `*text`.
class StringReply final : public ReplyStorage {
 public:
  explicit StringReply(std::string* text) : text_(text) {}
  char* Reserve(std::size_t size) override {
    text_->resize(size);
    return &(*text_)[0];
  }

 private:
  std::string* text_;
};

// BuildReplyEnvelope into `out`, with REPLY the concatenation of `reply`
// ({} when that is empty); nothing when `id` is null.
void ReplyEnvelope(ReplyStorage& out, const char* id, const char* tabid,
                   int status, std::initializer_list<std::string_view> reply,
                   const char* callback);

}  // namespace tessmar

#endif  // TESSMAR_SRC_MODHOST_REPLY_ENVELOPE_H
