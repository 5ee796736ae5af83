// How the host answers one request: the same way the library answers it
// in-process when no host runs.
#ifndef TESSMAR_TOOLS_REFERENCE_HOST_REQUEST_ANSWER_H
#define TESSMAR_TOOLS_REFERENCE_HOST_REQUEST_ANSWER_H

#include <string>

#include "tessmar/module.h"

namespace tessmar::host {

// "init":"get_version" and "init":"get_versions" are answered from the
// configuration with the library's exported version functions; any other
// non-empty "init" has no answer; every other request goes to the library's
// process_request with `host` as the modules' table of services. An empty
// result means "no answer" and is sent as a zero-length reply, which the
// library returns as NULL. (In-process, the unknown "init" gives "" rather
// than NULL; the framing has no way to carry that difference.)
std::string AnswerRequest(const std::string& request, QXHostFuncs* host);

}  // namespace tessmar::host

#endif  // TESSMAR_TOOLS_REFERENCE_HOST_REQUEST_ANSWER_H
