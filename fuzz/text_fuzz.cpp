// The text helpers on any input, split at its first two NULs into a text, a
// separator and a replacement: SpilteFileData and ReplaceString on those,
// CheckVersion (and through it SplitVersion) on the first two, and GetCSID
// (ParseOrigin) on the text. The config and request-processing tests pin the
// results of the last two; here they run on what no table lists.
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"
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

  // A version never counts as higher than itself.
  if (CheckVersion(text.c_str(), text.c_str()) != 1) __builtin_trap();
  CheckVersion(text.c_str(), separator.c_str());
  GetCSID(text);
  return 0;
}
