// Locating and reading config.json and the module files: the user directory
// under HOME before the system directory, existence-only lookup, and the one
// key lookup rule (root object, first exact name, strings only).
//
// Tests never write to the system directory; test machines carry no
// system-wide installation, so it contributes nothing here.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/temp_home.h"
#include "tessmar/config.h"

namespace {

using tessmar::testing::TempHome;

constexpr char kUserSubdirectory[] = "/.config/Pelmora/Tessmar/morrowhost";

// The system directory's file of that name if this machine has one, else "".
std::string SystemFile(const std::string& name) {
  const std::string path = "/usr/share/Pelmora/Tessmar/morrowhost/" + name;
  return access(path.c_str(), F_OK) == 0 ? path : std::string();
}

TEST(ConfigLocation, FindsFilesInTheUserDirectoryUnderHome) {
  TempHome home;
  home.WriteConfig("config.json", "{}");
  home.WriteConfig("reader.json", "{}");
  const std::string dir = home.path() + kUserSubdirectory;
  EXPECT_EQ(_GetConfigPath(), dir + "/config.json");
  EXPECT_EQ(_GetModuleConfigPath("reader"), dir + "/reader.json");
  EXPECT_EQ(_GetModuleConfigPath("writer"), SystemFile("writer.json"));
}

TEST(ConfigLocation, MissingUserFileFallsBackToTheSystemDirectory) {
  TempHome home;
  home.ConfigDir();
  EXPECT_EQ(_GetConfigPath(), SystemFile("config.json"));
  EXPECT_EQ(_GetModuleConfigPath("reader"), SystemFile("reader.json"));
}

TEST(ConfigLocation, UnsetHomeTriesOnlyTheSystemDirectory) {
  TempHome home;  // restores HOME afterwards
  home.WriteConfig("config.json", R"({"Tessmar":"/opt/user"})");
  home.WriteConfig("reader.json", "{}");
  ASSERT_EQ(unsetenv("HOME"), 0);
  EXPECT_EQ(_GetConfigPath(), SystemFile("config.json"));
  EXPECT_EQ(_GetModuleConfigPath("reader"), SystemFile("reader.json"));
  EXPECT_NE(GetTessmarInstallPath(), "/opt/user");
}

TEST(ConfigLocation, ExistenceAloneCountsSoADirectoryHidesTheSystemFile) {
  TempHome home;
  const std::string dir = home.ConfigDir() + "/config.json";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  EXPECT_EQ(_GetConfigPath(), dir);
  EXPECT_EQ(GetTessmarInstallPath(), "");
  EXPECT_EQ(GetCurrentVersion(nullptr), "");

  // An unreadable file is found the same way and reads as "" (root reads
  // anything, so that half only means something for other users).
  const std::string module =
      home.WriteConfig("reader.json", R"({"Name":"reader","Path":"/x"})");
  ASSERT_EQ(chmod(module.c_str(), 0), 0);
  EXPECT_EQ(_GetModuleConfigPath("reader"), module);
  if (geteuid() != 0) {
    EXPECT_EQ(GetClientInstallPathModule("reader", false), "");
  }
}

TEST(ConfigLocation, EmptyOrNullModuleNameIsNeverLookedUp) {
  TempHome home;
  // The file that an empty name would otherwise find.
  home.WriteConfig(".json",
                   R"({"Name":"x","Path":"/x","Sig":"s","Version":"1.0.0.0"})");
  EXPECT_EQ(_GetModuleConfigPath(""), "");
  EXPECT_EQ(_GetModuleConfigPath(nullptr), "");
  EXPECT_EQ(GetClientVersion(""), "");
  EXPECT_EQ(GetClientInstallPathModule(nullptr, false), "");
}

TEST(ConfigLookup, TessmarKeyFollowsTheLookupRule) {
  struct Case {
    const char* label;
    const char* text;
    const char* expected;
  };
  const Case cases[] = {
      {"plain string", R"({"Tessmar":"/opt/t"})", "/opt/t"},
      {"returned exactly as stored", R"({"Tessmar":"/opt/t/"})", "/opt/t/"},
      {"other keys ignored",
       R"({"Version":"1.0.0.0","Extra":[1,{"Tessmar":"/n"}],"Tessmar":"/t"})",
       "/t"},
      {"first of two wins", R"({"Tessmar":"/first","Tessmar":"/second"})",
       "/first"},
      {"a number reads as absent", R"({"Tessmar":5})", ""},
      {"a non-string first member hides a later string",
       R"({"Tessmar":true,"Tessmar":"/second"})", ""},
      {"names are case-sensitive", R"({"tessmar":"/opt/t"})", ""},
      {"only the root object is searched", R"({"x":{"Tessmar":"/opt/t"}})",
       ""},
      {"root array", R"([{"Tessmar":"/opt/t"}])", ""},
      {"unparsable", R"({"Tessmar":"/opt/t")", ""},
      {"empty file", "", ""},
  };
  TempHome home;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    home.WriteConfig("config.json", c.text);
    EXPECT_EQ(GetTessmarInstallPath(), c.expected);
  }
}

TEST(ConfigLookup, UserFileWithoutTheKeyReadsAsEmpty) {
  TempHome home;
  home.WriteConfig("config.json", R"({"TessmarClient":"/opt/c"})");
  EXPECT_EQ(GetTessmarInstallPath(), "");
  EXPECT_EQ(GetCurrentVersion(nullptr), "");
}

TEST(ConfigRead, FilesLongerThanOneBufferAreReadWhole) {
  TempHome home;
  // Sizes around the 4096-byte read chunks, so the key straddles a boundary
  // or the last chunk holds only a byte or two.
  for (std::size_t padding : {4070u, 4079u, 4085u, 4096u, 8170u, 20000u}) {
    SCOPED_TRACE(padding);
    const std::string text = "{\"Padding\":\"" + std::string(padding, 'p') +
                             "\",\"Tessmar\":\"/opt/far\"}";
    home.WriteConfig("config.json", text);
    EXPECT_EQ(GetTessmarInstallPath(), "/opt/far");
  }
}

TEST(ConfigRead, EveryCallReadsTheFileAgain) {
  TempHome home;
  home.WriteConfig("config.json", R"({"Tessmar":"/opt/a"})");
  EXPECT_EQ(GetTessmarInstallPath(), "/opt/a");
  home.WriteConfig("config.json", R"({"Tessmar":"/opt/b"})");
  EXPECT_EQ(GetTessmarInstallPath(), "/opt/b");
  std::remove((home.ConfigDir() + "/config.json").c_str());
  EXPECT_EQ(GetTessmarInstallPath(), "");
}

}  // namespace
