// Framework and client module versions, the JSON list of client versions,
// and the four-part numeric version comparison.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_home.h"
#include "tessmar/config.h"

namespace {

using tessmar::testing::TempHome;

// A module file whose members hold the given JSON value texts, in order.
std::string ModuleJson(const std::string& name, const std::string& path,
                       const std::string& sig, const std::string& version) {
  return "{\"Name\":" + name + ",\"Path\":" + path + ",\"Sig\":" + sig +
         ",\"Version\":" + version + "}";
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

TEST(CurrentVersion, IsTheVersionOfConfigJson) {
  TempHome home;
  EXPECT_EQ(GetCurrentVersion(nullptr), "");
  home.WriteConfig("config.json", R"({"Tessmar":"/opt/t","Version":"1.2.3.4"})");
  int context = 0;
  EXPECT_EQ(GetCurrentVersion(nullptr), "1.2.3.4");
  EXPECT_EQ(GetCurrentVersion(&context), "1.2.3.4");
  home.WriteConfig("config.json", R"({"Version":1.2})");
  EXPECT_EQ(GetCurrentVersion(nullptr), "");
}

TEST(ClientVersion, NeedsNamePathSigAndVersionButNotTheLibraryFile) {
  TempHome home;
  // This build reports the version without looking at the file at "Path".
  const std::string missing = home.path() + "/lib/missing.so";
  home.WriteConfig("reader.json",
                   ModuleJson(Quoted("reader"), Quoted(missing),
                              Quoted("c2lnbmF0dXJl"), Quoted("2.0.0.1")));
  EXPECT_EQ(GetClientVersion("reader"), "2.0.0.1");
  EXPECT_EQ(GetClientVersion("writer"), "");
  EXPECT_EQ(GetClientVersion(nullptr), "");
}

TEST(ClientVersion, AnyOfTheFourKeysEmptyOrNotAStringGivesNoVersion) {
  TempHome home;
  const char* const keys[] = {"Name", "Path", "Sig", "Version"};
  for (int spoiled = 0; spoiled < 4; ++spoiled) {
    for (const char* bad : {"\"\"", "7", "null"}) {
      SCOPED_TRACE(std::string(keys[spoiled]) + " = " + bad);
      std::string values[] = {Quoted("reader"), Quoted("/opt/r.so"),
                              Quoted("c2ln"), Quoted("1.0.0.1")};
      values[spoiled] = bad;
      home.WriteConfig("reader.json",
                       ModuleJson(values[0], values[1], values[2], values[3]));
      EXPECT_EQ(GetClientVersion("reader"), "");
    }
  }
}

class ClientVersionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home_.WriteConfig("a.json", ModuleJson(Quoted("a"), Quoted("/opt/a.so"),
                                           Quoted("c2ln"), Quoted("1.0.0.1")));
    home_.WriteConfig("b.json", ModuleJson(Quoted("b"), Quoted("/opt/b.so"),
                                           Quoted(""), Quoted("1.0.0.2")));
  }
  TempHome home_;
};

TEST_F(ClientVersionsTest, ListsEveryNameInOrderWithItsVersion) {
  char list[] = "b,a,c";
  EXPECT_EQ(GetClientVersions(list),
            R"([{"name":"b","version":""},)"
            R"({"name":"a","version":"1.0.0.1"},)"
            R"({"name":"c","version":""}])");
}

TEST_F(ClientVersionsTest, EmptyTokensAreSkipped) {
  EXPECT_EQ(GetClientVersions(nullptr), "[]");
  char empty[] = "";
  EXPECT_EQ(GetClientVersions(empty), "[]");
  char commas[] = ",,,";
  EXPECT_EQ(GetClientVersions(commas), "[]");
  char sparse[] = ",,a,,b,";
  EXPECT_EQ(GetClientVersions(sparse),
            R"([{"name":"a","version":"1.0.0.1"},{"name":"b","version":""}])");
}

TEST_F(ClientVersionsTest, TokenizesTheCallersBufferInPlace) {
  char list[] = "a,b,c";
  GetClientVersions(list);
  EXPECT_STREQ(list, "a");
  EXPECT_EQ(std::string(list, sizeof list - 1), std::string("a\0b\0c", 5));
}

TEST_F(ClientVersionsTest, NamesAreCopiedUnescapedAndUntrimmed) {
  char list[] = "x\"y, a";
  EXPECT_EQ(GetClientVersions(list),
            "[{\"name\":\"x\"y\",\"version\":\"\"},"
            "{\"name\":\" a\",\"version\":\"\"}]");
}

struct VersionCase {
  const char* a;
  const char* b;
  int expected;
};

void ExpectVersions(const std::vector<VersionCase>& cases) {
  for (const VersionCase& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " <= " + c.b);
    EXPECT_EQ(CheckVersion(c.a, c.b), c.expected);
  }
}

TEST(CheckVersion, ComparesFourComponentsAsNumbersInOrder) {
  ExpectVersions({
      {"1.0.0.3", "1.0.0.3", 1},
      {"1.0.0.4", "1.0.0.3", 0},
      {"1.0.0.3", "1.0.0.4", 1},
      {"2.0.0.0", "1.9.9.9", 0},
      {"1.9.9.9", "2.0.0.0", 1},
      {"1.2.0.0", "1.1.9.9", 0},
      {"1.10.0.0", "1.9.0.0", 0},  // numbers, not text
      {"1.9.0.0", "1.10.0.0", 1},
  });
}

TEST(CheckVersion, ComponentsConvertLikeDecimalStrtolInThirtyTwoBits) {
  ExpectVersions({
      {"1.0.0.07", "1.0.0.7", 1},
      {"1.0.0.010", "1.0.0.9", 0},  // decimal: a leading zero is not octal
      {"1.0.0.x", "1.0.0.0", 1},    // no digits reads as 0
      {"1.0.0.1", "1.0.0.x", 0},
      {"1.0.0.2beta", "1.0.0.1", 0},  // conversion stops at the letter
      {"1.0.0. 2", "1.0.0.1", 0},     // leading blank accepted
      {"1.0.0.-1", "1.0.0.0", 1},
      {"1.0.0.4294967297", "1.0.0.1", 1},  // 2^32 + 1 keeps its low bits: 1
      {"1.0.0.4294967297", "1.0.0.0", 0},
      {"1.0.0.2147483648", "1.0.0.0", 1},  // low 32 bits as signed: -2^31
  });
}

TEST(CheckVersion, AnythingButFourPartsNeverCountsAsHigher) {
  ExpectVersions({
      {"1.0.0", "0.0.0.1", 1},
      {"9.9.9.9", "1.0.0", 1},
      {"1.0.0.0.0", "0.0.0.0", 1},
      {"", "0.0.0.0", 1},
      {"...", "0.0.0.0", 1},
      // Empty tokens are skipped, so these do have four parts.
      {"1..0.0.0", "1.0.0.0", 1},
      {"1..0.0.1", "1.0.0.0", 0},
      {".2.0.0.0.", "1.0.0.0", 0},
  });
}

TEST(SplitVersion, AppendsTheNonEmptyDotSeparatedTokens) {
  std::string text = "1..2. 3";
  std::vector<std::string> parts = {"kept"};
  SplitVersion(text, parts);
  EXPECT_EQ(parts, (std::vector<std::string>{"kept", "1", "2", " 3"}));
}

}  // namespace
