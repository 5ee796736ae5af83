// Framework and client module versions, the JSON list of client versions,
// and the four-part numeric version comparison.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/temp_home.h"
#include "tessmar/config.h"

namespace {

using tessmar::testing::TempHome;

// A module file whose members hold the given JSON value texts, in order.
std::string ModuleJson(const std::string& name, const std::string& path,
                       const std::string& sig, const std::string& version) {
  return "{\"Name\":" + name + ",\"Path\":" + path + ",\"Sig\":" + sig + ",\"Version\":" +
         version + "}";
}

TEST(CurrentVersion, IsTheVersionStringOfConfigJson) {
  TempHome home;
  EXPECT_EQ(GetCurrentVersion(nullptr), "");
  home.WriteConfig("config.json", R"({"Tessmar":"/opt/t","Version":"1.2.3.4"})");
  int context = 0;
  EXPECT_EQ(GetCurrentVersion(nullptr), "1.2.3.4");
  EXPECT_EQ(GetCurrentVersion(&context), "1.2.3.4");
  home.WriteConfig("config.json", R"({"Version":1.2})");
  EXPECT_EQ(GetCurrentVersion(nullptr), "");
}

TEST(ClientVersion, NeedsFourStringKeysButNotTheLibraryFile) {
  TempHome home;
  home.WriteConfig("reader.json", ModuleJson(R"("reader")", "\"" + home.path() + "/missing.so\"",
                                             R"("c2lnbmF0dXJl")", R"("2.0.0.1")"));
  EXPECT_EQ(GetClientVersion("reader"), "2.0.0.1");
  EXPECT_EQ(GetClientVersion("writer"), "");
  EXPECT_EQ(GetClientVersion(nullptr), "");
  // Any of the four keys empty or not a string gives no version.
  for (int spoiled = 0; spoiled < 4; ++spoiled) {
    for (const char* bad : {"\"\"", "7", "null"}) {
      std::string values[] = {R"("reader")", R"("/opt/r.so")", R"("c2ln")", R"("1.0.0.1")"};
      values[spoiled] = bad;
      const std::string text = ModuleJson(values[0], values[1], values[2], values[3]);
      home.WriteConfig("reader.json", text);
      EXPECT_EQ(GetClientVersion("reader"), "") << text;
    }
  }
}

TEST(ClientVersions, ListsEveryNonEmptyTokenInOrderTokenizingInPlace) {
  TempHome home;
  home.WriteConfig("a.json", ModuleJson(R"("a")", R"("/opt/a.so")", R"("c2ln")", R"("1.0.0.1")"));
  home.WriteConfig("b.json", ModuleJson(R"("b")", R"("/opt/b.so")", R"("")", R"("1.0.0.2")"));
  EXPECT_EQ(GetClientVersions(nullptr), "[]");
  const std::pair<std::string, std::string> cases[] = {
      {"b,a,c", R"([{"name":"b","version":""},{"name":"a","version":"1.0.0.1"},)"
                R"({"name":"c","version":""}])"},
      {"", "[]"},
      {",,,", "[]"},
      {",,a,,b,", R"([{"name":"a","version":"1.0.0.1"},{"name":"b","version":""}])"},
      // Names are copied unescaped and untrimmed.
      {"x\"y, a", R"([{"name":"x"y","version":""},{"name":" a","version":""}])"}};
  for (const auto& [list, expected] : cases) {
    std::vector<char> buffer(list.begin(), list.end());
    buffer.push_back('\0');
    EXPECT_EQ(GetClientVersions(buffer.data()), expected) << list;
  }
  char list[] = "a,b,c";
  GetClientVersions(list);
  EXPECT_EQ(std::string(list, sizeof list - 1), std::string("a\0b\0c", 5));
}

TEST(CheckVersion, ComparesFourComponentsAsThirtyTwoBitDecimalNumbers) {
  // CheckVersion(a, b) is 1 unless a is a four-part version higher than b.
  const std::tuple<const char*, const char*, int> cases[] = {
      {"1.0.0.3", "1.0.0.3", 1}, {"1.0.0.4", "1.0.0.3", 0}, {"1.0.0.3", "1.0.0.4", 1},
      {"2.0.0.0", "1.9.9.9", 0}, {"1.9.9.9", "2.0.0.0", 1}, {"1.2.0.0", "1.1.9.9", 0},
      {"1.10.0.0", "1.9.0.0", 0}, {"1.9.0.0", "1.10.0.0", 1},  // numbers, not text
      {"1.0.0.07", "1.0.0.7", 1}, {"1.0.0.010", "1.0.0.9", 0},  // not octal
      {"1.0.0.x", "1.0.0.0", 1}, {"1.0.0.1", "1.0.0.x", 0},      // no digits: 0
      {"1.0.0.2beta", "1.0.0.1", 0},  // conversion stops at the letter
      {"1.0.0. 2", "1.0.0.1", 0},     // leading blank accepted
      {"1.0.0.-1", "1.0.0.0", 1},
      {"1.0.0.4294967297", "1.0.0.1", 1},  // 2^32 + 1 keeps its low bits: 1
      {"1.0.0.4294967297", "1.0.0.0", 0},
      {"1.0.0.2147483648", "1.0.0.0", 1},  // low 32 bits as signed: -2^31
      // Anything but four parts never counts as higher; empty tokens are skipped.
      {"1.0.0", "0.0.0.1", 1}, {"9.9.9.9", "1.0.0", 1}, {"1.0.0.0.0", "0.0.0.0", 1},
      {"", "0.0.0.0", 1}, {"...", "0.0.0.0", 1}, {"1..0.0.0", "1.0.0.0", 1},
      {"1..0.0.1", "1.0.0.0", 0}, {".2.0.0.0.", "1.0.0.0", 0},
  };
  for (const auto& [a, b, expected] : cases) {
    EXPECT_EQ(CheckVersion(a, b), expected) << a << " <= " << b;
  }
  // Null is outside the contract; either one is answered as incomparable.
  EXPECT_EQ(CheckVersion(nullptr, "1.0.0.0"), 1);
  EXPECT_EQ(CheckVersion("1.0.0.0", nullptr), 1);
  std::string text = "1..2. 3";
  std::vector<std::string> parts = {"kept"};
  SplitVersion(text, parts);
  EXPECT_EQ(parts, (std::vector<std::string>{"kept", "1", "2", " 3"}));
}

}  // namespace
