// Substring replacement and splitting on multi-character separators.
#include <string>
#include <vector>

#include "tessmar/signature.h"

std::string ReplaceString(std::string text, std::string from, std::string to) {
  // An empty `from` would match everywhere without advancing; nothing to do.
  if (from.empty()) return text;
  std::size_t position = 0;
  while ((position = text.find(from, position)) != std::string::npos) {
    text.replace(position, from.size(), to);
    position += to.size();  // the inserted text is never searched again
  }
  return text;
}

std::vector<std::string> SpilteFileData(std::string data,
                                        std::string separator) {
  std::vector<std::string> pieces;
  if (separator.empty()) {
    if (!data.empty()) pieces.push_back(data);
    return pieces;
  }
  std::size_t position = 0;
  std::size_t found;
  // Empty pieces (a leading separator, two in a row) are dropped on purpose.
  while ((found = data.find(separator, position)) != std::string::npos) {
    if (found > position) pieces.push_back(data.substr(position, found - position));
    position = found + separator.size();
  }
  if (position < data.size()) pieces.push_back(data.substr(position));
  return pieces;
}
