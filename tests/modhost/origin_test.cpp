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

void ExpectParts(const OriginCase& c) {
  SCOPED_TRACE(c.origin);
  std::string scheme, host, port;
  ParseOrigin(c.origin, scheme, host, port);
  EXPECT_EQ(scheme, c.scheme);
  EXPECT_EQ(host, c.host);
  EXPECT_EQ(port, c.port);
}

TEST(ParseOrigin, SplitsSchemeHostAndPort) {
  const OriginCase cases[] = {
      {"https://h", "https", "h", "443"},
      {"http://h", "http", "h", "80"},
      {"HTTP://h", "HTTP", "h", "80"},  // scheme compared ignoring case
      {"hTtPs://h", "hTtPs", "h", "443"},
      {"ftp://h", "ftp", "h", "0"},  // other schemes without a port
      {"https://h:8443", "https", "h", "8443"},
      {"http://", "http", "", "80"},
      {"://h", "", "h", "0"},
  };
  for (const OriginCase& c : cases) ExpectParts(c);
}

TEST(ParseOrigin, KeepsWhateverFollowsTheAuthority) {
  const OriginCase cases[] = {
      {"http://h:p/x", "http", "h", "p/x"},  // after a port: in the port
      {"http://h/x", "http", "h/x", "80"},   // without a port: in the host
      {"https://h/", "https", "h/", "443"},  // a trailing "/" is kept
      {"http://h:1:2", "http", "h", "1:2"},  // the first ":" splits
      {"http://[::1]:80", "http", "[", ":1]:80"},
  };
  for (const OriginCase& c : cases) ExpectParts(c);
}

// Without "://" the search position wraps around, so the rest starts at the
// third character while the scheme is the whole origin.
TEST(ParseOrigin, WithoutSeparatorTheRestSkipsTwoCharacters) {
  const OriginCase cases[] = {
      {"abcdefg", "abcdefg", "cdefg", "0"},
      {"abcd", "abcd", "cd", "0"},
      {"http", "http", "tp", "80"},
      {"ab:cd", "ab:cd", "", "cd"},
      {"https:/h:9", "https:/h:9", "tps", "/h:9"},
  };
  for (const OriginCase& c : cases) ExpectParts(c);
}

TEST(ParseOrigin, ShortOriginsClearAllThreeParts) {
  for (const char* origin : {"", "a", "ab", "abc", "h:1"}) {
    SCOPED_TRACE(origin);
    std::string scheme = "old", host = "old", port = "old";
    ParseOrigin(origin, scheme, host, port);
    EXPECT_EQ(scheme, "");
    EXPECT_EQ(host, "");
    EXPECT_EQ(port, "");
  }
}

TEST(GetCSID, JoinsHostAndPort) {
  EXPECT_EQ(GetCSID("https://h"), "h:443");
  EXPECT_EQ(GetCSID("http://page.example:8080"), "page.example:8080");
  EXPECT_EQ(GetCSID("abcdefg"), "cdefg:0");
  EXPECT_EQ(GetCSID("abc"), ":");
}

}  // namespace
