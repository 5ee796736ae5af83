// Splitting a page origin into scheme, host and port.
#include <strings.h>

#include <string>

#include "tessmar/modhost.h"

void ParseOrigin(std::string origin, std::string& scheme, std::string& host,
                 std::string& port) {
  scheme.clear();
  host.clear();
  port.clear();
  if (origin.size() <= 3) return;

  const std::size_t separator = origin.find("://");
  scheme = origin.substr(0, separator);
  // Without "://" the not-found position plus 3 wraps around to 2, so the
  // rest is the origin without its first two characters. Kept on purpose:
  // callers' identifiers were derived this way.
  const std::string rest = origin.substr(separator + 3);

  const std::size_t colon = rest.find(':');
  if (colon == std::string::npos) {
    host = rest;
    if (strcasecmp(scheme.c_str(), "http") == 0) {
      port = "80";
    } else if (strcasecmp(scheme.c_str(), "https") == 0) {
      port = "443";
    } else {
      port = "0";
    }
    return;
  }
  host = rest.substr(0, colon);
  port = rest.substr(colon + 1);
}

std::string GetCSID(std::string origin) {
  std::string scheme, host, port;
  ParseOrigin(origin, scheme, host, port);
  return host + ":" + port;
}
