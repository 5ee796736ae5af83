// tsmx_Invoke: forward to the host, or answer in-process.
#include <climits>
#include <cstring>
#include <string>

#include "bridge/bridge_state.h"
#include "tessmar/local_answer.h"
#include "modhost/request_processing.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

using namespace tessmar::bridge;

char* tsmx_Invoke(const char* request) {
  // While the host runs, every request goes to it unexamined.
  if (set_Startup) return ExchangeWithHost(request);
  if (request == nullptr) return nullptr;

  const std::size_t length = std::strlen(request);
  AnswerSource source;
  const std::string answer =
      AnswerLocally(request, length, &source,
                    [&](const tessmar::JsonDocument& parsed) {
                      // process_request takes the length as a 32-bit int;
                      // a text past that length is not the parsed one.
                      if (length > INT_MAX) {
                        return process_request(nullptr, request,
                                               static_cast<int>(length),
                                               &g_bridgeHostFuncs);
                      }
                      return tessmar::AnswerParsedRequest(
                          parsed, request, length, &g_bridgeHostFuncs);
                    });
  // An empty module-host answer means no reply; a version query's "" is one.
  if (source == AnswerSource::kModuleHost && answer.empty()) return nullptr;
  return MallocCopy(answer);
}
