#include "json_writer.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

namespace tessmar::sign {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

bool NameEquals(const json_object_entry& entry, const std::string& name) {
  return entry.name_length == name.size() &&
         std::memcmp(entry.name, name.data(), name.size()) == 0;
}

class Writer {
 public:
  explicit Writer(std::string* out) : out_(*out) {}

  bool Value(const json_value& value, int depth) {
    switch (value.type) {
      case json_object:
        return Object(value, {}, depth);
      case json_array:
        return Array(value, depth);
      case json_integer:
        out_ += std::to_string(value.u.integer);
        return true;
      case json_double:
        return Double(value.u.dbl);
      case json_string:
        out_ += QuoteJsonString(value.u.string.ptr, value.u.string.length);
        return true;
      case json_boolean:
        out_ += value.u.boolean != 0 ? "true" : "false";
        return true;
      case json_null:
        out_ += "null";
        return true;
      case json_none:
        break;
    }
    return false;
  }

  bool Object(const json_value& object,
              const std::vector<StringMember>& updates, int depth) {
    // applied[i]: update i has replaced an existing member already, so a
    // later member of the same name keeps its own value.
    std::vector<bool> applied(updates.size(), false);
    bool first = true;
    out_ += '{';
    for (const json_object_entry& entry : object.u.object) {
      BeginMember(&first, depth + 1);
      out_ += QuoteJsonString(entry.name, entry.name_length);
      out_ += ": ";
      const std::string* replacement = nullptr;
      for (std::size_t i = 0; i < updates.size(); ++i) {
        if (!applied[i] && NameEquals(entry, updates[i].name)) {
          applied[i] = true;
          replacement = &updates[i].value;
          break;
        }
      }
      if (replacement != nullptr) {
        out_ += QuoteJsonString(*replacement);
      } else if (!Value(*entry.value, depth + 1)) {
        return false;
      }
    }
    for (std::size_t i = 0; i < updates.size(); ++i) {
      if (applied[i]) continue;
      BeginMember(&first, depth + 1);
      out_ += QuoteJsonString(updates[i].name);
      out_ += ": ";
      out_ += QuoteJsonString(updates[i].value);
    }
    if (!first) NewLine(depth);
    out_ += '}';
    return true;
  }

 private:
  bool Array(const json_value& array, int depth) {
    bool first = true;
    out_ += '[';
    for (const json_value* element : array.u.array) {
      BeginMember(&first, depth + 1);
      if (!Value(*element, depth + 1)) return false;
    }
    if (!first) NewLine(depth);
    out_ += ']';
    return true;
  }

  bool Double(double number) {
    if (!std::isfinite(number)) return false;
    // The shortest text that reads back as the same double.
    char buffer[64];
    const std::to_chars_result result =
        std::to_chars(buffer, buffer + sizeof buffer, number);
    if (result.ec != std::errc()) return false;
    const std::string text(buffer, result.ptr);
    out_ += text;
    // Keep the value a double for readers that tell 1.0 from 1.
    if (text.find_first_of(".eE") == std::string::npos) out_ += ".0";
    return true;
  }

  void BeginMember(bool* first, int depth) {
    if (!*first) out_ += ',';
    *first = false;
    NewLine(depth);
  }

  void NewLine(int depth) {
    out_ += '\n';
    out_.append(static_cast<std::size_t>(depth) * 2, ' ');
  }

  std::string& out_;
};

}  // namespace

std::string QuoteJsonString(const char* text, std::size_t length) {
  std::string quoted;
  quoted.reserve(length + 2);
  quoted += '"';
  for (std::size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    switch (c) {
      case '"':
        quoted += "\\\"";
        break;
      case '\\':
        quoted += "\\\\";
        break;
      case '\b':
        quoted += "\\b";
        break;
      case '\f':
        quoted += "\\f";
        break;
      case '\n':
        quoted += "\\n";
        break;
      case '\r':
        quoted += "\\r";
        break;
      case '\t':
        quoted += "\\t";
        break;
      default:
        if (c < 0x20) {
          quoted += "\\u00";
          quoted += kHexDigits[c >> 4];
          quoted += kHexDigits[c & 0x0f];
        } else {
          quoted += static_cast<char>(c);
        }
    }
  }
  quoted += '"';
  return quoted;
}

bool WriteJson(const json_value& value,
               const std::vector<StringMember>& updates, std::string* out) {
  out->clear();
  Writer writer(out);
  bool written;
  if (value.type == json_object) {
    written = writer.Object(value, updates, 0);
  } else {
    written = updates.empty() && writer.Value(value, 0);
  }
  if (written) *out += '\n';
  return written;
}

}  // namespace tessmar::sign
