#include "request_answer.h"

#include "bridge/local_answer.h"

namespace tessmar::host {

std::string AnswerRequest(const std::string& request, QXHostFuncs* host) {
  // The library hands requests over as C strings, so `request` holds no NUL
  // and its size is what strlen would give. An empty answer of either kind
  // goes back as a zero-length reply.
  bridge::AnswerSource source;
  return bridge::AnswerLocally(request.c_str(), request.size(), host, &source);
}

}  // namespace tessmar::host
