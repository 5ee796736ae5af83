#include "request_answer.h"

#include "config/json_document.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"

namespace tessmar::host {
namespace {

constexpr char kDefaultModule[] = "morrowhost";

std::string VersionAnswer(const std::string& module) {
  return "\"version: " + GetClientVersion(module.c_str()) + "\"";
}

std::string VersionsAnswer(const JsonDocument& request) {
  std::string modules = request.String("m");
  const std::string expected = request.String("pv");
  const std::string current = GetCurrentVersion(nullptr);
  // GetClientVersions tokenizes the buffer it is given in place.
  const std::string versions = GetClientVersions(&modules[0]);
  std::string answer = "{";
  answer += CheckVersion(expected.c_str(), current.c_str()) != 0
                ? "\"reload\":false, "
                : "\"reload\":true, ";
  answer += "\"qx\":\"" + current + "\",\"m\":" + versions + "}";
  return answer;
}

}  // namespace

std::string AnswerRequest(const std::string& request, QXHostFuncs* host) {
  {
    const JsonDocument parsed(request);
    const std::string init = parsed.String("init");
    if (!init.empty()) {
      std::string module = parsed.String("module");
      if (module.empty()) module = kDefaultModule;
      if (init == "get_version") return VersionAnswer(module);
      if (init == "get_versions") return VersionsAnswer(parsed);
      return std::string();  // an unknown query reaches no module
    }
  }
  // The library hands requests over as C strings, so `request` holds no NUL
  // and its size is what strlen would give; int is process_request's type.
  return process_request(nullptr, request.c_str(),
                         static_cast<int>(request.size()), host);
}

}  // namespace tessmar::host
