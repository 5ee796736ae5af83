#include "request_answer.h"

#include <string_view>

#include "tessmar/local_answer.h"
#include "tessmar/modhost.h"

namespace tessmar::host {
namespace {

// False when no member of `request` can be named "init": the name would have
// to appear as it is, or spelled with \u escapes.
bool MayNameInit(std::string_view request) {
  return request.find("init") != std::string_view::npos ||
         request.find("\\u") != std::string_view::npos;
}

}  // namespace

std::string AnswerRequest(const std::string& request, QXHostFuncs* host) {
  // The library hands requests over as C strings, so `request` holds no NUL
  // and its size is what strlen would give. An empty answer of either kind
  // goes back as a zero-length reply.
  const auto module_host = [&] {
    return process_request(nullptr, request.c_str(),
                           static_cast<int>(request.size()), host);
  };
  // The library's parsed tree cannot be handed to process_request from
  // here, so a request that cannot be a version query skips the first parse.
  if (!MayNameInit(request)) return module_host();
  bridge::AnswerSource source;
  return bridge::AnswerLocally(request.c_str(), request.size(), &source,
                               [&](const JsonDocument&) { return module_host(); });
}

}  // namespace tessmar::host
