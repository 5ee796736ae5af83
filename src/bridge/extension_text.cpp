// Texts handed to the extension: malloc buffers released by tsmx_Free.
#include <cstdlib>
#include <cstring>

#include "bridge/bridge_state.h"
#include "tessmar/bridge.h"

namespace tessmar::bridge {

char* MallocCopy(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

}  // namespace tessmar::bridge

void tsmx_Free(char* text) { std::free(text); }
