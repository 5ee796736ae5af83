#include "config/json_document.h"

#include <cstring>

#include "bytes/regular_file.h"

namespace tessmar {

JsonDocument::JsonDocument(const char* text, std::size_t length)
    : root_(json_parse(text, length)) {}

JsonDocument::~JsonDocument() {
  if (root_ != nullptr) json_value_free(root_);
}

bool JsonDocument::is_object() const {
  return root_ != nullptr && root_->type == json_object;
}

const json_value* JsonDocument::Member(const char* name) const {
  if (!is_object()) return nullptr;
  const std::size_t name_length = std::strlen(name);
  for (unsigned i = 0; i < root_->u.object.length; ++i) {
    const json_object_entry& entry = root_->u.object.values[i];
    if (entry.name_length == name_length &&
        std::memcmp(entry.name, name, name_length) == 0) {
      return entry.value;
    }
  }
  return nullptr;
}

void JsonDocument::Members(const std::string_view* names,
                           const json_value** found, std::size_t count) const {
  for (std::size_t n = 0; n < count; ++n) found[n] = nullptr;
  if (!is_object()) return;
  std::size_t missing = count;
  for (unsigned i = 0; i < root_->u.object.length && missing > 0; ++i) {
    const json_object_entry& entry = root_->u.object.values[i];
    const std::string_view entry_name(entry.name, entry.name_length);
    for (std::size_t n = 0; n < count; ++n) {
      if (found[n] == nullptr && names[n] == entry_name) {
        found[n] = entry.value;
        --missing;
        break;
      }
    }
  }
}

std::string JsonDocument::String(const char* name) const {
  const json_value* value = Member(name);
  if (value == nullptr || value->type != json_string) return std::string();
  return std::string(value->u.string.ptr, value->u.string.length);
}

bool JsonDocument::IsTrue(const char* name) const {
  const json_value* value = Member(name);
  return value != nullptr && value->type == json_boolean &&
         value->u.boolean != 0;
}

JsonDocument ReadJsonFile(const std::string& path) {
  std::string text;
  // A file that cannot be read whole parses as the empty text, which
  // json_parse rejects.
  if (!ReadRegularFile(path, kMaxJsonFileSize, &text)) text.clear();
  return JsonDocument(text);
}

}  // namespace tessmar
