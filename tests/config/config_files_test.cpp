// Locating and reading config.json and module files (HOME before the system
// directory) and the key lookup rule: root object, first exact name, strings.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/temp_home.h"
#include "tessmar/config.h"

namespace {

using tessmar::testing::MakeDirectories;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;

// This test's library was built with a system configuration directory in
// the build tree; it is emptied around each test.
class SystemDir {
 public:
  SystemDir() {
    Clear();
    MakeDirectories(TESSMAR_TEST_SYSTEM_DIR);
  }
  ~SystemDir() { Clear(); }
  std::string Write(const std::string& name, const std::string& text) const {
    const std::string path = std::string(TESSMAR_TEST_SYSTEM_DIR) + "/" + name;
    WriteFile(path, text);
    return path;
  }

 private:
  static void Clear() {
    const std::string command = "rm -rf '" TESSMAR_TEST_SYSTEM_DIR "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
};

TEST(ConfigLocation, EachUserFileHidesTheSystemFileOfItsName) {
  TempHome home;
  const SystemDir system;
  const std::string system_config =
      system.Write("config.json", R"({"Tessmar":"/opt/system","Version":"1.0.0.1"})");
  const std::string system_reader = system.Write(
      "reader.json", R"({"Name":"reader","Path":"/s","Sig":"s","Version":"1.0.0.2"})");
  EXPECT_EQ(_GetConfigPath(), system_config);
  EXPECT_EQ(GetTessmarInstallPath(), "/opt/system");
  EXPECT_EQ(GetClientVersion("reader"), "1.0.0.2");

  // The user's config.json hides the system one whole, though it lacks
  // "Tessmar"; module files are looked up one by one.
  const std::string config = home.WriteConfig("config.json", R"({"Version":"2.0.0.0"})");
  EXPECT_EQ(config, home.path() + "/.config/Pelmora/Tessmar/morrowhost/config.json");
  EXPECT_EQ(_GetConfigPath(), config);
  EXPECT_EQ(GetTessmarInstallPath(), "");
  EXPECT_EQ(GetCurrentVersion(nullptr), "2.0.0.0");
  EXPECT_EQ(_GetModuleConfigPath("reader"), system_reader);
  const std::string reader = home.WriteConfig("reader.json", "{}");
  EXPECT_EQ(_GetModuleConfigPath("reader"), reader);
  EXPECT_EQ(GetClientVersion("reader"), "");
  EXPECT_EQ(_GetModuleConfigPath("writer"), "");

  // An empty or null module name is never looked up, even with a ".json".
  home.WriteConfig(".json", R"({"Name":"x","Path":"/x","Sig":"s","Version":"1.0.0.0"})");
  EXPECT_EQ(_GetModuleConfigPath(""), "");
  EXPECT_EQ(_GetModuleConfigPath(nullptr), "");
  EXPECT_EQ(GetClientVersion(""), "");
  EXPECT_EQ(GetClientInstallPathModule(nullptr, false), "");

  // Unset HOME: only the system directory is tried.
  ASSERT_EQ(unsetenv("HOME"), 0);  // TempHome restores it
  EXPECT_EQ(_GetConfigPath(), system_config);
  EXPECT_EQ(_GetModuleConfigPath("reader"), system_reader);
  EXPECT_EQ(GetTessmarInstallPath(), "/opt/system");
}

TEST(ConfigLocation, ExistenceAloneCountsSoADirectoryHidesTheSystemFile) {
  TempHome home;
  const std::string dir = home.ConfigDir() + "/config.json";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  EXPECT_EQ(_GetConfigPath(), dir);
  EXPECT_EQ(GetTessmarInstallPath(), "");
  EXPECT_EQ(GetCurrentVersion(nullptr), "");
  // An unreadable file is found but reads as "" (except for root).
  const std::string module = home.WriteConfig("reader.json", R"({"Name":"reader","Path":"/x"})");
  ASSERT_EQ(chmod(module.c_str(), 0), 0);
  EXPECT_EQ(_GetModuleConfigPath("reader"), module);
  if (geteuid() != 0) {
    EXPECT_EQ(GetClientInstallPathModule("reader", false), "");
  }
}

TEST(ConfigLookup, TessmarKeyFollowsTheLookupRuleAndIsReadAfreshEachCall) {
  const std::pair<std::string, const char*> cases[] = {
      {R"({"Tessmar":"/opt/t/"})", "/opt/t/"},  // returned exactly as stored
      {R"({"Version":"1.0.0.0","Extra":[1,{"Tessmar":"/n"}],"Tessmar":"/t"})", "/t"},
      {R"({"Tessmar":"/first","Tessmar":"/second"})", "/first"},
      {R"({"TessmarClient":"/opt/c"})", ""},
      {R"({"Tessmar":5})", ""},
      {R"({"Tessmar":true,"Tessmar":"/second"})", ""},  // first member hides later
      {R"({"tessmar":"/opt/t"})", ""},                  // case-sensitive
      {R"({"x":{"Tessmar":"/opt/t"}})", ""},            // root object only
      {R"([{"Tessmar":"/opt/t"}])", ""},
      {R"({"Tessmar":"/opt/t")", ""},
      {"", ""},
  };
  TempHome home;
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    home.WriteConfig("config.json", text);
    EXPECT_EQ(GetTessmarInstallPath(), expected);
  }
  std::remove((home.ConfigDir() + "/config.json").c_str());
  EXPECT_EQ(GetTessmarInstallPath(), "");
}

TEST(ConfigRead, FilesLongerThanOneBufferAreReadWhole) {
  TempHome home;
  // Sizes around the 4096-byte read chunks.
  for (std::size_t padding : {4070u, 4079u, 4085u, 4096u, 8170u, 20000u}) {
    SCOPED_TRACE(padding);
    home.WriteConfig("config.json", "{\"Padding\":\"" + std::string(padding, 'p') +
                                        "\",\"Tessmar\":\"/opt/far\"}");
    EXPECT_EQ(GetTessmarInstallPath(), "/opt/far");
  }
}

}  // namespace
