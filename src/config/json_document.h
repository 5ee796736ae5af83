// A parsed JSON text owned for the length of one call, with the one lookup
// rule the library uses everywhere: members are looked up in the root object
// only, by exact (case-sensitive) name, the first match counts, and a value
// of another type than the one asked for counts as absent.
#ifndef TESSMAR_SRC_CONFIG_JSON_DOCUMENT_H
#define TESSMAR_SRC_CONFIG_JSON_DOCUMENT_H

#include <json.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace tessmar {

class JsonDocument {
 public:
  // Parses `length` bytes of `text` with json_parse's default settings.
  JsonDocument(const char* text, std::size_t length);
  explicit JsonDocument(const std::string& text)
      : JsonDocument(text.data(), text.size()) {}
  ~JsonDocument();

  JsonDocument(const JsonDocument&) = delete;
  JsonDocument& operator=(const JsonDocument&) = delete;

  // False when the text did not parse.
  bool parsed() const { return root_ != nullptr; }
  bool is_object() const;

  // First member of the root object named `name`, or null.
  const json_value* Member(const char* name) const;

  // The member's string value; "" when absent or not a string.
  std::string String(const char* name) const;

  // Member for each of `count` names in one pass over the root object:
  // found[i] is the first member named names[i], or null.
  void Members(const std::string_view* names, const json_value** found,
               std::size_t count) const;

  // True only for a member holding the JSON literal true.
  bool IsTrue(const char* name) const;

 private:
  json_value* root_;
};

// Reads the file at `path` whole and parses it. A file that is not a
// regular file, is larger than kMaxJsonFileSize or cannot be read gives an
// unparsed document.
JsonDocument ReadJsonFile(const std::string& path);

}  // namespace tessmar

#endif  // TESSMAR_SRC_CONFIG_JSON_DOCUMENT_H
