// CheckVersion and SplitVersion on any two texts (split at the first NUL).
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "tessmar/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto [a, b] = tessmar::fuzz::SplitAt(
      std::string(reinterpret_cast<const char*>(data), size), '\0');
  const int result = CheckVersion(a.c_str(), b.c_str());
  // Equal versions, or any that cannot be compared, answer 1; of two
  // different comparable ones exactly one is the higher.
  if (CheckVersion(a.c_str(), a.c_str()) != 1) __builtin_trap();
  if (result == 0 && CheckVersion(b.c_str(), a.c_str()) != 1) __builtin_trap();
  std::string text = a;
  std::vector<std::string> parts;
  SplitVersion(text, parts);
  for (const std::string& part : parts) {
    if (part.empty() || part.find('.') != std::string::npos) __builtin_trap();
  }
  return 0;
}
