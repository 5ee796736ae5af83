#include "json_writer.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace tessmar::sign {
namespace {

using Writer = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

// RapidJSON counts string lengths in 32 bits, as json-parser does.
bool FitsLength(std::size_t length) {
  return length <= std::numeric_limits<rapidjson::SizeType>::max();
}

bool String(Writer& writer, const char* text, std::size_t length) {
  return FitsLength(length) &&
         writer.String(text, static_cast<rapidjson::SizeType>(length));
}

bool Key(Writer& writer, const char* name, std::size_t length) {
  return FitsLength(length) &&
         writer.Key(name, static_cast<rapidjson::SizeType>(length));
}

bool Value(Writer& writer, const json_value& value) {
  switch (value.type) {
    case json_object:
      if (!writer.StartObject()) return false;
      for (const json_object_entry& entry : value.u.object) {
        if (!Key(writer, entry.name, entry.name_length) ||
            !Value(writer, *entry.value)) {
          return false;
        }
      }
      return writer.EndObject();
    case json_array:
      if (!writer.StartArray()) return false;
      for (const json_value* element : value.u.array) {
        if (!Value(writer, *element)) return false;
      }
      return writer.EndArray();
    case json_integer:
      return writer.Int64(static_cast<std::int64_t>(value.u.integer));
    case json_double:
      // Refuses infinity; a finite number is written so that it reads back
      // as the same double, and keeps a fraction or exponent ("1.0").
      return writer.Double(value.u.dbl);
    case json_string:
      return String(writer, value.u.string.ptr, value.u.string.length);
    case json_boolean:
      return writer.Bool(value.u.boolean != 0);
    case json_null:
      return writer.Null();
    case json_none:
      break;
  }
  return false;
}

bool NameEquals(const json_object_entry& entry, const std::string& name) {
  return entry.name_length == name.size() &&
         std::memcmp(entry.name, name.data(), name.size()) == 0;
}

bool UpdatedObject(Writer& writer, const json_value& object,
                   const std::vector<StringMember>& updates) {
  // applied[i]: update i has replaced an existing member already, so a
  // later member of the same name keeps its own value.
  std::vector<bool> applied(updates.size(), false);
  if (!writer.StartObject()) return false;
  for (const json_object_entry& entry : object.u.object) {
    if (!Key(writer, entry.name, entry.name_length)) return false;
    const StringMember* replacement = nullptr;
    for (std::size_t i = 0; i < updates.size() && replacement == nullptr; ++i) {
      if (!applied[i] && NameEquals(entry, updates[i].name)) {
        applied[i] = true;
        replacement = &updates[i];
      }
    }
    const bool written =
        replacement != nullptr
            ? String(writer, replacement->value.data(),
                     replacement->value.size())
            : Value(writer, *entry.value);
    if (!written) return false;
  }
  for (std::size_t i = 0; i < updates.size(); ++i) {
    if (applied[i]) continue;
    if (!Key(writer, updates[i].name.data(), updates[i].name.size()) ||
        !String(writer, updates[i].value.data(), updates[i].value.size())) {
      return false;
    }
  }
  return writer.EndObject();
}

}  // namespace

bool WriteJson(const json_value& value,
               const std::vector<StringMember>& updates, std::string* out) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  writer.SetIndent(' ', 2);
  bool written;
  if (value.type == json_object) {
    written = UpdatedObject(writer, value, updates);
  } else {
    written = updates.empty() && Value(writer, value);
  }
  if (!written) return false;
  out->assign(buffer.GetString(), buffer.GetSize());
  *out += '\n';
  return true;
}

}  // namespace tessmar::sign
