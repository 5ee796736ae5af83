// Answering a request without a separate host: the two version queries from
// the configuration, every other request through the module host. Shared by
// tsmx_Invoke's in-process route and the reference host, so both answer
// byte for byte alike. Header-only: a host needs only the library's
// exported functions.
#ifndef TESSMAR_LOCAL_ANSWER_H
#define TESSMAR_LOCAL_ANSWER_H

#include <cstddef>
#include <string>

#include "tessmar/config.h"
#include "tessmar/json_document.h"

namespace tessmar::bridge {

// Where an answer came from: a local version query (where "" is a real
// answer) or the module host (where "" means no reply).
enum class AnswerSource { kVersionQuery, kModuleHost };

inline std::string VersionsAnswer(const JsonDocument& request) {
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

// A version query's answer: false when `request` is none (no non-empty
// "init") and goes to the module host; else true with the answer in
// `*answer` ("get_version", "get_versions"; any other value answers "" and
// reaches no module).
inline bool AnswerVersionQuery(const JsonDocument& request,
                               std::string* answer) {
  const std::string init = request.String("init");
  if (init.empty()) return false;
  std::string module = request.String("module");
  if (module.empty()) module = "morrowhost";
  if (init == "get_version") {
    *answer = "\"version: " + GetClientVersion(module.c_str()) + "\"";
  } else if (init == "get_versions") {
    *answer = VersionsAnswer(request);
  } else {
    answer->clear();
  }
  return true;
}

// Answers `length` bytes of `request`: a version query as above, everything
// else through the module host, which `process` stands for: it is called
// with the request's parsed tree and returns process_request's answer, so
// the library can hand the tree on instead of parsing the text twice.
template <typename ModuleHost>
inline std::string AnswerLocally(const char* request, std::size_t length,
                                 AnswerSource* source, ModuleHost&& process) {
  const JsonDocument parsed(request, length);
  std::string answer;
  if (AnswerVersionQuery(parsed, &answer)) {
    *source = AnswerSource::kVersionQuery;
    return answer;
  }
  *source = AnswerSource::kModuleHost;
  return process(parsed);
}

}  // namespace tessmar::bridge

#endif  // TESSMAR_LOCAL_ANSWER_H
