// Turns a json-parser `json_value` tree back into JSON text, so that a
// configuration file can be rewritten with a few members changed and every
// other member kept: same names, same order, same values. Duplicate names are
// kept as they are. Formatting (whitespace) is not preserved; the output is
// indented by two spaces per level and ends with a line feed.
//
// The files are read with json-parser, the library's own parser, so the tool
// accepts exactly what the library accepts and sees the member the library
// takes. The text is produced by RapidJSON's PrettyWriter (escaping, number
// formatting, indentation), driven by a walk over the json-parser tree in
// document order: that walk is what keeps the order and every member of a
// repeated name, which a writer fed from a map could not.
#ifndef TESSMAR_TOOLS_SIGN_JSON_WRITER_H
#define TESSMAR_TOOLS_SIGN_JSON_WRITER_H

#include <json.h>

#include <string>
#include <vector>

namespace tessmar::sign {

// A top-level member to be given a string value.
struct StringMember {
  std::string name;
  std::string value;
};

// Writes `value` as JSON text to `out`. When `value` is an object, each
// update replaces the value of the FIRST member of its name (the one readers
// of these files take), in place; an update whose name is absent is appended
// after the existing members, in the order given. Updates apply to the top
// level only. Strings are written byte for byte, with quotes, backslashes
// and control characters (NUL included) escaped. Returns false, leaving
// `out` unspecified, when the tree holds something JSON cannot express (a
// number that parsed as infinite), or when updates are given for a value
// that is not an object.
bool WriteJson(const json_value& value,
               const std::vector<StringMember>& updates, std::string* out);

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_JSON_WRITER_H
