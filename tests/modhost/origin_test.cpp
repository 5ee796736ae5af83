// Splitting page origins into scheme, host and port, quirks included.
#include <gtest/gtest.h>

#include <string>

#include "tessmar/modhost.h"

namespace {

TEST(ParseOrigin, SplitsSchemeHostAndPortQuirksIncluded) {
  // Origin, then scheme|host|port.
  const char* const cases[][2] = {
      {"https://h", "https|h|443"},
      {"hTtP://h", "hTtP|h|80"},  // scheme compared ignoring case
      {"ftp://h", "ftp|h|0"},     // other schemes without a port
      {"https://h:8443", "https|h|8443"},
      {"://h", "|h|0"},
      // Whatever follows the authority is kept in the last part, and the
      // first ":" splits.
      {"http://h/x", "http|h/x|80"},
      {"http://[::1]:80", "http|[|:1]:80"},
      // Without "://" the search wraps: the rest starts at the third
      // character while the scheme is the whole origin.
      {"http", "http|tp|80"},
      {"ab:cd", "ab:cd||cd"},
      // Origins shorter than four characters clear all three parts.
      {"", "||"},
      {"abc", "||"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    std::string scheme = "old", host = "old", port = "old";
    ParseOrigin(c[0], scheme, host, port);
    EXPECT_EQ(scheme + "|" + host + "|" + port, c[1]);
  }
}

TEST(GetCSID, JoinsHostAndPort) {
  EXPECT_EQ(GetCSID("http://page.example:8080"), "page.example:8080");
  EXPECT_EQ(GetCSID("https://h"), "h:443");
  EXPECT_EQ(GetCSID("abc"), ":");
}

}  // namespace
