// Splitting page origins into scheme, host and port, quirks included.
#include <gtest/gtest.h>

#include <string>

#include "tessmar/modhost.h"

namespace {

struct OriginCase {
  const char* origin;
  const char* scheme;
  const char* host;
  const char* port;
};

TEST(ParseOrigin, SplitsSchemeHostAndPortQuirksIncluded) {
  const OriginCase cases[] = {
      {"https://h", "https", "h", "443"},
      {"http://h", "http", "h", "80"},
      {"hTtPs://h", "hTtPs", "h", "443"},  // scheme compared ignoring case
      {"ftp://h", "ftp", "h", "0"},        // other schemes without a port
      {"https://h:8443", "https", "h", "8443"},
      {"http://", "http", "", "80"},
      {"://h", "", "h", "0"},
      // Whatever follows the authority is kept in the last part.
      {"http://h:p/x", "http", "h", "p/x"},
      {"http://h/x", "http", "h/x", "80"},
      {"http://h:1:2", "http", "h", "1:2"},  // the first ":" splits
      {"http://[::1]:80", "http", "[", ":1]:80"},
      // Without "://" the search wraps: the rest starts at the third
      // character while the scheme is the whole origin.
      {"abcdefg", "abcdefg", "cdefg", "0"},
      {"http", "http", "tp", "80"},
      {"ab:cd", "ab:cd", "", "cd"},
      {"https:/h:9", "https:/h:9", "tps", "/h:9"},
      // Origins shorter than four characters clear all three parts.
      {"", "", "", ""},
      {"abc", "", "", ""},
      {"h:1", "", "", ""},
  };
  for (const OriginCase& c : cases) {
    SCOPED_TRACE(c.origin);
    std::string scheme = "old", host = "old", port = "old";
    ParseOrigin(c.origin, scheme, host, port);
    EXPECT_EQ(scheme + "|" + host + "|" + port,
              std::string(c.scheme) + "|" + c.host + "|" + c.port);
  }
}

TEST(GetCSID, JoinsHostAndPort) {
  EXPECT_EQ(GetCSID("https://h"), "h:443");
  EXPECT_EQ(GetCSID("http://page.example:8080"), "page.example:8080");
  EXPECT_EQ(GetCSID("abcdefg"), "cdefg:0");
  EXPECT_EQ(GetCSID("abc"), ":");
}

}  // namespace
