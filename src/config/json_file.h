// Configuration and module files, read and parsed as the library reads them.
#ifndef TESSMAR_SRC_CONFIG_JSON_FILE_H
#define TESSMAR_SRC_CONFIG_JSON_FILE_H

#include <string>

#include "tessmar/json_document.h"

namespace tessmar {

// Reads the file at `path` whole and parses it. A file that is not a
// regular file, is larger than kMaxJsonFileSize or cannot be read gives an
// unparsed document.
JsonDocument ReadJsonFile(const std::string& path);

}  // namespace tessmar

#endif  // TESSMAR_SRC_CONFIG_JSON_FILE_H
