// tsmx_Invoke: forward to the host, or answer in-process.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bridge/bridge_state.h"
#include "modhost/reply_envelope.h"
#include "modhost/request_processing.h"
#include "tessmar/bridge.h"
#include "tessmar/json_document.h"
#include "tessmar/local_answer.h"
#include "tessmar/modhost.h"

using namespace tessmar::bridge;

namespace {

// The module host's reply written straight into the malloc buffer the
// caller gets: no string to build it in and copy out of.
class MallocReply final : public tessmar::ReplyStorage {
 public:
  char* Reserve(std::size_t size) override {
    text_ = static_cast<char*>(std::malloc(size + 1));
    if (text_ != nullptr) text_[size] = '\0';
    return text_;
  }
  // Null for no reply.
  char* text() const { return text_; }

 private:
  char* text_ = nullptr;
};

}  // namespace

char* tsmx_Invoke(const char* request) {
  // While the host runs, every request goes to it unexamined.
  if (set_Startup) return ExchangeWithHost(request);
  if (request == nullptr) return nullptr;

  const std::size_t length = std::strlen(request);
  const tessmar::JsonDocument parsed(request, length);
  // A version query's "" is an answer.
  std::string version;
  if (AnswerVersionQuery(parsed, &version)) return MallocCopy(version);

  // process_request takes the length as a 32-bit int; a text past that
  // length is not the parsed one. An empty answer means no reply.
  if (length > INT_MAX) {
    const std::string answer = process_request(
        nullptr, request, static_cast<int>(length), &g_bridgeHostFuncs);
    return answer.empty() ? nullptr : MallocCopy(answer);
  }
  // strlen gave the length, so the text holds no NUL before it.
  MallocReply reply;
  tessmar::AnswerParsedRequest(parsed, std::string_view(request, length),
                               /*whole=*/true, &g_bridgeHostFuncs, reply);
  return reply.text();
}
