#include "config/json_file.h"

#include "bytes/regular_file.h"

namespace tessmar {

JsonDocument ReadJsonFile(const std::string& path) {
  std::string text;
  // A file that cannot be read whole parses as the empty text, which
  // json_parse rejects.
  if (!ReadRegularFile(path, kMaxJsonFileSize, &text)) text.clear();
  return JsonDocument(text);
}

}  // namespace tessmar
