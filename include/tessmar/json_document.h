// A parsed JSON text (json-parser) owned for the length of one call, with
// the one lookup rule the library uses everywhere: members are looked up in
// the root object only, by exact (case-sensitive) name, the first match
// counts, and a value of another type than the one asked for counts as
// absent. Header-only, so that hosts and tools read JSON exactly as the
// library does without linking it.
#ifndef TESSMAR_JSON_DOCUMENT_H
#define TESSMAR_JSON_DOCUMENT_H

#include <json.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace tessmar {

class JsonDocument {
 public:
  // Parses `length` bytes of `text` with json_parse's default settings.
  JsonDocument(const char* text, std::size_t length)
      : root_(json_parse(text, length)) {}
  explicit JsonDocument(const std::string& text)
      : JsonDocument(text.data(), text.size()) {}
  ~JsonDocument() {
    if (root_ != nullptr) json_value_free(root_);
  }

  JsonDocument(const JsonDocument&) = delete;
  JsonDocument& operator=(const JsonDocument&) = delete;

  // False when the text did not parse.
  bool parsed() const { return root_ != nullptr; }
  bool is_object() const { return root_ != nullptr && root_->type == json_object; }

  // First member of the root object named `name`, or null.
  const json_value* Member(const char* name) const {
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

  // The member's string value; "" when absent or not a string.
  std::string String(const char* name) const {
    const json_value* value = Member(name);
    if (value == nullptr || value->type != json_string) return std::string();
    return std::string(value->u.string.ptr, value->u.string.length);
  }

  // Calls visit(name, value) for each member of the root object, in order,
  // names included when they repeat; nothing when the root is no object.
  template <typename Visit>
  void EachMember(Visit&& visit) const {
    if (!is_object()) return;
    for (unsigned i = 0; i < root_->u.object.length; ++i) {
      const json_object_entry& entry = root_->u.object.values[i];
      visit(std::string_view(entry.name, entry.name_length),
            static_cast<const json_value*>(entry.value));
    }
  }

  // True only for a member holding the JSON literal true.
  bool IsTrue(const char* name) const {
    const json_value* value = Member(name);
    return value != nullptr && value->type == json_boolean && value->u.boolean != 0;
  }

 private:
  json_value* root_;
};

}  // namespace tessmar

#endif  // TESSMAR_JSON_DOCUMENT_H
