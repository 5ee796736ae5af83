// Locating and reading config.json and module files (HOME before the system
// directory), the key lookup rule (root object, first exact name, strings),
// client module versions and the four-part numeric version comparison.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "support/signed_installation.h"
#include "tessmar/config.h"

namespace {

using tessmar::testing::ModuleJson;
using tessmar::testing::TempHome;

// This test's library looks for system files in a build-tree directory,
// emptied around each test.
struct SystemDir {
  SystemDir() { Clear(); }
  ~SystemDir() { Clear(); }
  static void Clear() { EXPECT_EQ(std::system("rm -rf '" TESSMAR_TEST_SYSTEM_DIR "'"), 0); }
  std::string Write(const std::string& name, const std::string& text) const {
    const std::string path = std::string(TESSMAR_TEST_SYSTEM_DIR) + "/" + name;
    tessmar::testing::MakeDirectories(path.substr(0, path.rfind('/')));
    tessmar::testing::WriteFile(path, text);
    return path;
  }
};

TEST(ConfigLocation, TheUserFileWinsAndTheSystemFileIsTheFallback) {
  TempHome home;
  const SystemDir system;
  const std::string user = home.WriteConfig("config.json", R"({"Version":"2.0.0.0"})");
  // With both, the user's file hides the system one whole, though it lacks "Tessmar".
  const std::string system_config =
      system.Write("config.json", R"({"Tessmar":"/opt/system","Version":"1.0.0.1"})");
  EXPECT_EQ(_GetConfigPath(), user);
  EXPECT_EQ(GetTessmarInstallPath(), "");
  EXPECT_EQ(GetCurrentVersion(nullptr), "2.0.0.0");
  ASSERT_EQ(std::remove(user.c_str()), 0);
  EXPECT_EQ(_GetConfigPath(), system_config);
  // Existence alone counts: even a directory of the name hides the system file.
  ASSERT_EQ(mkdir(user.c_str(), 0755), 0);
  EXPECT_EQ(_GetConfigPath(), user);
  // Without HOME only the system directory is tried.
  ASSERT_EQ(unsetenv("HOME"), 0);  // TempHome restores it
  EXPECT_EQ(_GetConfigPath(), system_config);
}

// Each module's file is found on its own: a user file of another name hides
// nothing. (How a user file hides a system one: config.json above.)
TEST(ConfigLocation, ModuleFilesAreLookedUpOneByOneByPlainName) {
  TempHome home;
  const SystemDir system;
  const std::string system_reader = system.Write(
      "reader.json", R"({"Name":"reader","Path":"/s","Sig":"s","Version":"1.0.0.2"})");
  const std::string writer = home.WriteConfig("writer.json", "{}");
  EXPECT_EQ(_GetModuleConfigPath("writer"), writer);
  EXPECT_EQ(_GetModuleConfigPath("reader"), system_reader);
  EXPECT_EQ(GetClientVersion("reader"), "1.0.0.2");
  // No name, even with a ".json" present, and no name leaving the directory.
  home.WriteConfig(".json", R"({"Name":"x","Path":"/x","Sig":"s","Version":"1.0.0.0"})");
  home.WriteConfig("../escape.json", "{}");
  for (const char* name : {"", "../escape"}) {
    EXPECT_EQ(_GetModuleConfigPath(name), "") << name;
  }
  EXPECT_EQ(_GetModuleConfigPath(nullptr), "");
}

TEST(ConfigLookup, TessmarKeyFollowsTheLookupRuleAndIsReadAfreshEachCall) {
  const std::pair<std::string, const char*> cases[] = {
      {R"({"Tessmar":"/opt/t/"})", "/opt/t/"},  // returned exactly as stored
      {R"({"Extra":[1,{"Tessmar":"/n"}],"Tessmar":"/t"})", "/t"},  // root object only
      {R"({"Tessmar":true,"Tessmar":"/second"})", ""},  // first member hides later
      // Exact and case-sensitive names; an object at the root of valid JSON.
      {R"({"TessmarClient":"/opt/c"})", ""}, {R"({"tessmar":"/opt/t"})", ""},
      {R"([{"Tessmar":"/opt/t"}])", ""}, {R"({"Tessmar":"/opt/t")", ""},
  };
  TempHome home;
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    home.WriteConfig("config.json", text);
    EXPECT_EQ(GetTessmarInstallPath(), expected);
  }
}

// A module file counts with four non-empty string members; GetClientVersions
// copies the names unescaped and untrimmed.
TEST(ClientVersions, NeedFourNonEmptyStringKeysAndListEveryNonEmptyTokenInOrder) {
  TempHome home;
  for (const std::string& spoiled :
       {ModuleJson("", "/opt/b.so", "c2ln"), ModuleJson("b", "", "c2ln"), ModuleJson("b", "/opt/b.so", ""),
        std::string(R"({"Name":"b","Path":"/opt/b.so","Sig":"c2ln","Version":7})")}) {
    home.WriteConfig("b.json", spoiled);
    EXPECT_EQ(GetClientVersion("b"), "") << spoiled;
  }
  home.WriteConfig("a.json", ModuleJson("a", "/opt/a.so", "c2ln"));
  EXPECT_EQ(GetClientVersions(nullptr), "[]");
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
      {"2.0.0.0", "1.9.9.9", 0}, {"1.0.0.010", "1.0.0.9", 0},  // decimal numbers, not text
      {"1.0.0.1", "1.0.0.x", 0},  // no digits: 0
      {"1.0.0.2beta", "1.0.0.1", 0}, {"1.0.0. 2", "1.0.0.1", 0}, {"1.0.0.-1", "1.0.0.0", 1},
      {"1.0.0.4294967297", "1.0.0.1", 1},  // 2^32 + 1 keeps its low bits: 1
      {"1.0.0.2147483648", "1.0.0.0", 1},  // low 32 bits as signed: -2^31
      // Anything but four parts never counts as higher; empty tokens are skipped.
      {"9.9.9.9", "1.0.0", 1}, {"1.0.0.0.0", "0.0.0.0", 1}, {".2.0.0.0.", "1.0.0.0", 0},
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
