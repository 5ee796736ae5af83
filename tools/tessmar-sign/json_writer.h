// Turns a json-parser `json_value` tree back into JSON text, so that a
// configuration file can be rewritten with a few members changed and every
// other member kept: same names, same order, same values. Duplicate names are
// kept as they are. Formatting (whitespace) is not preserved; the output is
// indented by two spaces per level and ends with a line feed.
#ifndef TESSMAR_TOOLS_SIGN_JSON_WRITER_H
#define TESSMAR_TOOLS_SIGN_JSON_WRITER_H

#include <json.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tessmar::sign {

// The JSON string literal for `length` bytes at `text`: quotes, backslashes
// and control characters (NUL included) are escaped; all other bytes,
// UTF-8 sequences among them, are copied as they are.
std::string QuoteJsonString(const char* text, std::size_t length);
inline std::string QuoteJsonString(const std::string& text) {
  return QuoteJsonString(text.data(), text.size());
}

// A top-level member to be given a string value.
struct StringMember {
  std::string name;
  std::string value;
};

// Writes `value` as JSON text to `out`. When `value` is an object, each
// update replaces the value of the FIRST member of its name (the one readers
// of these files take), in place; an update whose name is absent is appended
// after the existing members, in the order given. Updates apply to the top
// level only. Returns false, leaving `out` unspecified, when the tree holds
// something JSON cannot express (a number that parsed as infinite), or when
// updates are given for a value that is not an object.
bool WriteJson(const json_value& value,
               const std::vector<StringMember>& updates, std::string* out);

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_JSON_WRITER_H
