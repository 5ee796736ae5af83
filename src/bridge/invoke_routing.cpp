// tsmx_Invoke: forward to the host, answer a version query, or process the
// request in-process.
#include <cstring>
#include <string>

#include "bridge/bridge_state.h"
#include "config/json_document.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"

namespace {

std::string VersionAnswer(const std::string& module) {
  return "\"version: " + GetClientVersion(module.c_str()) + "\"";
}

std::string VersionsAnswer(const tessmar::JsonDocument& request) {
  std::string modules = request.String("m");
  const std::string expected = request.String("pv");
  const std::string current = GetCurrentVersion(nullptr);
  // GetClientVersions tokenizes the buffer it is given; `modules` is ours.
  const std::string versions = GetClientVersions(&modules[0]);
  std::string answer = "{";
  answer += CheckVersion(expected.c_str(), current.c_str()) != 0
                ? "\"reload\":false, "
                : "\"reload\":true, ";
  answer += "\"qx\":\"" + current + "\",\"m\":" + versions + "}";
  return answer;
}

}  // namespace

using namespace tessmar::bridge;

char* tsmx_Invoke(const char* request) {
  // While the host runs, every request goes to it unexamined.
  if (set_Startup) return ExchangeWithHost(request);
  if (request == nullptr) return nullptr;

  const std::size_t length = std::strlen(request);
  {
    const tessmar::JsonDocument parsed(request, length);
    const std::string init = parsed.String("init");
    if (!init.empty()) {
      std::string module = parsed.String("module");
      if (module.empty()) module = "morrowhost";
      if (init == "get_version") return MallocCopy(VersionAnswer(module));
      if (init == "get_versions") return MallocCopy(VersionsAnswer(parsed));
      return MallocCopy(std::string());  // unknown query: "" and no module
    }
  }

  // The length is handed over as a 32-bit int, as module hosts expect.
  const std::string reply = process_request(
      nullptr, request, static_cast<int>(length), &g_bridgeHostFuncs);
  if (reply.empty()) return nullptr;
  return MallocCopy(reply);
}
