// Dotted four-part versions, compared component by component as numbers.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tessmar/config.h"

void SplitVersion(std::string& text, std::vector<std::string>& parts) {
  char* position = nullptr;
  for (char* token = strtok_r(&text[0], ".", &position); token != nullptr;
       token = strtok_r(nullptr, ".", &position)) {
    parts.emplace_back(token);
  }
}

namespace {

// strtol in base 10, keeping the low 32 bits as a signed value.
int32_t ComponentValue(const std::string& part) {
  const long value = std::strtol(part.c_str(), nullptr, 10);
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

}  // namespace

int CheckVersion(const char* a, const char* b) {
  // Null is outside the contract; it is answered like any version that
  // cannot be compared rather than by throwing across the C boundary.
  if (a == nullptr || b == nullptr) return 1;
  std::string a_text(a);
  std::string b_text(b);
  std::vector<std::string> a_parts;
  std::vector<std::string> b_parts;
  SplitVersion(a_text, a_parts);
  SplitVersion(b_text, b_parts);
  // A malformed or shorter version never counts as higher.
  if (a_parts.size() != 4 || b_parts.size() != 4) return 1;
  for (std::size_t i = 0; i < 4; ++i) {
    const int32_t left = ComponentValue(a_parts[i]);
    const int32_t right = ComponentValue(b_parts[i]);
    if (left != right) return left > right ? 0 : 1;
  }
  return 1;
}
