// The module host's answer to a request whose JSON tree the caller has
// parsed already, so that tsmx_Invoke parses each request once.
#ifndef TESSMAR_SRC_MODHOST_REQUEST_PROCESSING_H
#define TESSMAR_SRC_MODHOST_REQUEST_PROCESSING_H

#include <cstddef>
#include <string>

#include "config/json_file.h"
#include "tessmar/module.h"

namespace tessmar {

// process_request after its parse: `parsed` is the tree of `text`, which
// holds exactly `length` bytes followed by a NUL (modules receive it as a C
// string).
std::string AnswerParsedRequest(const JsonDocument& parsed, const char* text,
                                std::size_t length, QXHostFuncs* host);

}  // namespace tessmar

#endif  // TESSMAR_SRC_MODHOST_REQUEST_PROCESSING_H
