// Reading and updating the JSON configuration files (config.json and the
// module files) that the library reads. Parsing is json-parser's, with the
// settings the library uses, so the tool accepts exactly the files the
// library accepts.
#ifndef TESSMAR_TOOLS_SIGN_JSON_FILE_H
#define TESSMAR_TOOLS_SIGN_JSON_FILE_H

#include <json.h>

#include <string>
#include <vector>

#include "json_writer.h"

namespace tessmar::sign {

// Owns a parsed json-parser tree and frees it with json_value_free.
class JsonTree {
 public:
  JsonTree() = default;
  ~JsonTree() { Reset(nullptr); }
  JsonTree(const JsonTree&) = delete;
  JsonTree& operator=(const JsonTree&) = delete;

  const json_value* root() const { return root_; }
  void Reset(json_value* root) {
    if (root_ != nullptr) json_value_free(root_);
    root_ = root;
  }

 private:
  json_value* root_ = nullptr;
};

// Reads the file at `path` and parses it; its root must be an object.
// On failure `error` says why ("<path>: invalid JSON: 3:7: ...", "<path>:
// the top level is not a JSON object", or the I/O error) and `missing`
// (optional) tells whether the file simply does not exist.
bool LoadJsonObject(const std::string& path, JsonTree* tree, std::string* error,
                    bool* missing = nullptr);

// The library's lookup rule: the first member of `object` named `name`, if
// it holds a string; otherwise "" (absent).
std::string StringValue(const json_value& object, const char* name);

// Rewrites the JSON object file at `path` with `updates` applied (see
// WriteJson) and every other member kept, replacing the file atomically.
// A missing file is created when `create` is true and is an error otherwise.
// An unreadable or invalid file is an error and stays as it is.
bool UpdateJsonFile(const std::string& path,
                    const std::vector<StringMember>& updates, bool create,
                    std::string* error);

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_JSON_FILE_H
