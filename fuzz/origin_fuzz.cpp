// ParseOrigin and GetCSID on any text: the parts always come from the
// origin itself, and GetCSID joins host and port.
#include <string>

#include "tessmar/modhost.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string origin(reinterpret_cast<const char*>(data), size);
  std::string scheme = "x", host = "x", port = "x";
  ParseOrigin(origin, scheme, host, port);
  if (origin.size() <= 3 && !(scheme.empty() && host.empty() && port.empty())) {
    __builtin_trap();
  }
  if (origin.find(scheme) != 0 || origin.find(host) == std::string::npos) {
    __builtin_trap();
  }
  if (GetCSID(origin) != host + ":" + port) __builtin_trap();
  return 0;
}
