// SpilteFileData and ReplaceString on any text, separator and replacement
// (the input split at its first two NULs).
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "tessmar/signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;  // replacements grow the text quadratically
  const auto [text, rest] = tessmar::fuzz::SplitAt(
      std::string(reinterpret_cast<const char*>(data), size), '\0');
  const auto [separator, replacement] = tessmar::fuzz::SplitAt(rest, '\0');

  // The pieces are non-empty, hold no separator, and are the text's own.
  std::string joined;
  for (const std::string& piece : SpilteFileData(text, separator)) {
    if (piece.empty()) __builtin_trap();
    if (!separator.empty() && piece.find(separator) != std::string::npos) {
      __builtin_trap();
    }
    joined += piece;
  }
  if (joined.size() > text.size()) __builtin_trap();

  // Replacing the separator by itself changes nothing.
  if (ReplaceString(text, separator, separator) != text) __builtin_trap();
  ReplaceString(text, separator, replacement);
  return 0;
}
