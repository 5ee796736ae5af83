// tsmx_Invoke: forward to the host, or answer in-process.
#include <cstring>
#include <string>

#include "bridge/bridge_state.h"
#include "bridge/local_answer.h"
#include "tessmar/bridge.h"

using namespace tessmar::bridge;

char* tsmx_Invoke(const char* request) {
  // While the host runs, every request goes to it unexamined.
  if (set_Startup) return ExchangeWithHost(request);
  if (request == nullptr) return nullptr;

  AnswerSource source;
  const std::string answer = AnswerLocally(request, std::strlen(request),
                                           &g_bridgeHostFuncs, &source);
  // An empty module-host answer means no reply; a version query's "" is one.
  if (source == AnswerSource::kModuleHost && answer.empty()) return nullptr;
  return MallocCopy(answer);
}
