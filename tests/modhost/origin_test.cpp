// Splitting page origins into scheme, host and port, quirks included.
#include <gtest/gtest.h>

#include <string>

#include "tessmar/modhost.h"

namespace {

TEST(ParseOrigin, SplitsSchemeHostAndPortQuirksIncludedAndGetCSIDJoinsTheLastTwo) {
  // Origin, then scheme|host|port. The scheme is compared ignoring case; other
  // schemes get port 0.
  const char* const cases[][2] = {
      {"https://h", "https|h|443"}, {"hTtP://h", "hTtP|h|80"}, {"ftp://h", "ftp|h|0"},
      {"https://h:8443", "https|h|8443"}, {"://h", "|h|0"},
      // Whatever follows the authority stays in the last part; the first ":" splits.
      {"http://h/x", "http|h/x|80"}, {"http://[::1]:80", "http|[|:1]:80"},
      // Without "://" the rest starts at the third character; the scheme is the whole origin.
      {"http", "http|tp|80"}, {"ab:cd", "ab:cd||cd"},
      // Origins shorter than four characters clear all three parts.
      {"", "||"}, {"abc", "||"}};
  for (const auto& c : cases) {
    std::string scheme = "old", host = "old", port = "old";
    ParseOrigin(c[0], scheme, host, port);
    EXPECT_EQ(scheme + "|" + host + "|" + port, c[1]) << c[0];
    EXPECT_EQ(GetCSID(c[0]), host + ":" + port) << c[0];
  }
}

}  // namespace
