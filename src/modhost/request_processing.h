// The module host's answer to a request whose JSON tree the caller has
// parsed already, so that tsmx_Invoke parses each request once.
#ifndef TESSMAR_SRC_MODHOST_REQUEST_PROCESSING_H
#define TESSMAR_SRC_MODHOST_REQUEST_PROCESSING_H

#include <string_view>

#include "config/json_file.h"
#include "modhost/reply_envelope.h"
#include "tessmar/module.h"

namespace tessmar {

// process_request after its parse, its answer written into `out` (nothing
// for no answer). `parsed` is the tree of the request; `text` is the request
// as modules receive it, a C string (text.data()[text.size()] is its NUL),
// and `whole` is false when the parsed text went on past that NUL.
void AnswerParsedRequest(const JsonDocument& parsed, std::string_view text,
                         bool whole, QXHostFuncs* host, ReplyStorage& out);

}  // namespace tessmar

#endif  // TESSMAR_SRC_MODHOST_REQUEST_PROCESSING_H
