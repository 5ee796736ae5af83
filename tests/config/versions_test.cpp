// Client module versions, the JSON list of client versions, and the
// four-part numeric version comparison.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/temp_home.h"
#include "tessmar/config.h"

namespace {

using tessmar::testing::TempHome;

// A module file whose members hold the given JSON value texts, in order.
std::string ModuleJson(const std::string& name, const std::string& path, const std::string& sig,
                       const std::string& version) {
  return "{\"Name\":" + name + ",\"Path\":" + path + ",\"Sig\":" + sig + ",\"Version\":" +
         version + "}";
}

TEST(ClientVersion, NeedsFourNonEmptyStringKeys) {
  TempHome home;
  for (int spoiled = 0; spoiled < 5; ++spoiled) {
    std::string values[] = {R"("reader")", R"("/opt/r.so")", R"("c2ln")", R"("1.0.0.1")"};
    if (spoiled < 4) values[spoiled] = spoiled == 3 ? "7" : "\"\"";
    const std::string text = ModuleJson(values[0], values[1], values[2], values[3]);
    home.WriteConfig("reader.json", text);
    EXPECT_EQ(GetClientVersion("reader"), spoiled < 4 ? "" : "1.0.0.1") << text;
  }
}

TEST(ClientVersions, ListsEveryNonEmptyTokenInOrderTokenizingInPlace) {
  TempHome home;
  home.WriteConfig("a.json", ModuleJson(R"("a")", R"("/opt/a.so")", R"("c2ln")", R"("1.0.0.1")"));
  EXPECT_EQ(GetClientVersions(nullptr), "[]");
  // Names are copied unescaped and untrimmed.
  const std::pair<std::string, std::string> cases[] = {
      {",b,,a,", R"([{"name":"b","version":""},{"name":"a","version":"1.0.0.1"}])"},
      {",,", "[]"}, {"x\"y, a", R"([{"name":"x"y","version":""},{"name":" a","version":""}])"}};
  for (const auto& [list, expected] : cases) {
    std::string buffer = list;  // tokenized in place
    EXPECT_EQ(GetClientVersions(&buffer[0]), expected) << list;
  }
  char list[] = "a,b,c";
  GetClientVersions(list);
  EXPECT_EQ(std::string(list, sizeof list - 1), std::string("a\0b\0c", 5));
}

TEST(CheckVersion, ComparesFourComponentsAsThirtyTwoBitDecimalNumbers) {
  // CheckVersion(a, b) is 1 unless a is a four-part version higher than b.
  const std::tuple<const char*, const char*, int> cases[] = {
      {"1.0.0.3", "1.0.0.3", 1}, {"1.0.0.4", "1.0.0.3", 0}, {"1.0.0.3", "1.0.0.4", 1},
      {"2.0.0.0", "1.9.9.9", 0}, {"1.2.0.0", "1.1.9.9", 0}, {"1.0.0.010", "1.0.0.9", 0},  // decimal
      {"1.10.0.0", "1.9.0.0", 0}, {"1.9.0.0", "1.10.0.0", 1},  // numbers, not text
      {"1.0.0.x", "1.0.0.0", 1}, {"1.0.0.1", "1.0.0.x", 0},     // no digits: 0
      {"1.0.0.2beta", "1.0.0.1", 0}, {"1.0.0. 2", "1.0.0.1", 0}, {"1.0.0.-1", "1.0.0.0", 1},
      {"1.0.0.4294967297", "1.0.0.1", 1},  // 2^32 + 1 keeps its low bits: 1
      {"1.0.0.2147483648", "1.0.0.0", 1},  // low 32 bits as signed: -2^31
      // Anything but four parts never counts as higher; empty tokens are skipped.
      {"9.9.9.9", "1.0.0", 1}, {"1.0.0.0.0", "0.0.0.0", 1}, {"", "0.0.0.0", 1},
      {"1..0.0.1", "1.0.0.0", 0}, {".2.0.0.0.", "1.0.0.0", 0},
  };
  for (const auto& [a, b, expected] : cases) {
    EXPECT_EQ(CheckVersion(a, b), expected) << a << " <= " << b;
  }
  // Null is outside the contract; either one is answered as incomparable.
  EXPECT_EQ(CheckVersion(nullptr, "1.0.0.0"), 1);
  EXPECT_EQ(CheckVersion("1.0.0.1", nullptr), 1);
  std::string text = "1..2. 3";
  std::vector<std::string> parts = {"kept"};
  SplitVersion(text, parts);
  EXPECT_EQ(parts, (std::vector<std::string>{"kept", "1", "2", " 3"}));
}

}  // namespace
