#include "json_file.h"

#include <cstring>
#include <string>
#include <vector>

#include "file_io.h"

namespace tessmar::sign {
namespace {

// json-parser quotes the offending character; at the end of the text that
// character is the terminating NUL, which cuts its message short.
std::string ParseErrorText(const char* message) {
  std::string text = message;
  const std::string truncated = "Unexpected `";
  if (text.size() >= truncated.size() &&
      text.compare(text.size() - truncated.size(), truncated.size(),
                   truncated) == 0) {
    text.replace(text.size() - truncated.size(), truncated.size(),
                 "Unexpected end of text");
  }
  return text;
}

}  // namespace

bool LoadJsonObject(const std::string& path, JsonTree* tree, std::string* error,
                    bool* missing) {
  std::string text;
  if (!ReadWholeFile(path, &text, error, missing)) return false;
  // json_parse(text, length) is json_parse_ex with zeroed settings; the
  // _ex form is called only to get the parser's own error text.
  json_settings settings;
  std::memset(&settings, 0, sizeof settings);
  char parse_error[json_error_max] = "";
  tree->Reset(json_parse_ex(&settings, text.data(), text.size(), parse_error));
  if (tree->root() == nullptr) {
    *error = path + ": invalid JSON" +
             (parse_error[0] != '\0' ? ": " + ParseErrorText(parse_error)
                                     : std::string());
    return false;
  }
  if (tree->root()->type != json_object) {
    *error = path + ": the top level is not a JSON object";
    return false;
  }
  return true;
}

std::string StringValue(const json_value& object, const char* name) {
  if (object.type != json_object) return std::string();
  const std::size_t length = std::strlen(name);
  for (const json_object_entry& entry : object.u.object) {
    if (entry.name_length != length ||
        std::memcmp(entry.name, name, length) != 0) {
      continue;
    }
    // Only the first member of the name counts, whatever its type.
    if (entry.value->type != json_string) return std::string();
    return std::string(entry.value->u.string.ptr, entry.value->u.string.length);
  }
  return std::string();
}

bool UpdateJsonFile(const std::string& path,
                    const std::vector<StringMember>& updates, bool create,
                    std::string* error) {
  JsonTree tree;
  bool missing = false;
  json_value empty_object;  // json-parser's constructor zeroes it
  empty_object.type = json_object;
  const json_value* root = &empty_object;
  if (LoadJsonObject(path, &tree, error, &missing)) {
    root = tree.root();
  } else if (!(missing && create)) {
    return false;
  }
  std::string text;
  if (!WriteJson(*root, updates, &text)) {
    *error = path + ": holds a number that cannot be written back as JSON";
    return false;
  }
  return WriteFileAtomically(path, text, error);
}

}  // namespace tessmar::sign
