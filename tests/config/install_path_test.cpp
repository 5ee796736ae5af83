// Install paths of client modules, with and without the signature check,
// and of the native client.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::TempHome;

constexpr char kBlocked[] = "BLOCK:CLIENT";

std::string ModuleJson(const std::string& name, const std::string& path,
                       const std::string& sig) {
  return "{\"Name\":\"" + name + "\",\"Path\":\"" + path + "\",\"Sig\":\"" +
         sig + "\",\"Version\":\"1.0.0.1\"}";
}

class InstallPathTest : public ::testing::Test {
 protected:
  // The signature text that the framework's tooling stores for `path`.
  static std::string SignatureText(const std::string& path) {
    return MakeBase64Encode(makeClientSig("morrowhost", "pelmora", path));
  }

  TempHome home_;
  const std::string library_ =
      home_.WriteHomeFile("lib/libreader.so", std::string("module\0bytes", 12));
  const std::string other_ = home_.WriteHomeFile("lib/libother.so", "other");
  const std::string missing_ = home_.path() + "/lib/missing.so";
};

TEST_F(InstallPathTest, VerifiedLookupBlocksUnsignedOrMismatchedModules) {
  ASSERT_EQ(SignatureText(library_).size(), 44u);
  struct Case {
    const char* label;
    std::string text;
    std::string plain;     // verify == false
    std::string verified;  // verify == true
  };
  const std::string sig = SignatureText(library_);
  const Case cases[] = {
      {"valid signature", ModuleJson("reader", library_, sig), library_,
       library_},
      {"no Sig member",
       "{\"Name\":\"reader\",\"Path\":\"" + library_ + "\"}", library_,
       kBlocked},
      {"empty Sig", ModuleJson("reader", library_, ""), library_, kBlocked},
      {"Sig as a number",
       "{\"Name\":\"reader\",\"Path\":\"" + library_ + "\",\"Sig\":1}",
       library_, kBlocked},
      {"signature of another file",
       ModuleJson("reader", library_, SignatureText(other_)), library_,
       kBlocked},
      {"library file missing", ModuleJson("reader", missing_, sig), missing_,
       kBlocked},
      {"empty Name", ModuleJson("", library_, sig), "", ""},
      {"no Name member", "{\"Path\":\"" + library_ + "\",\"Sig\":\"" + sig +
                             "\"}",
       "", ""},
      {"empty Path", ModuleJson("reader", "", sig), "", ""},
      {"unparsable", "{\"Name\":\"reader\",", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    home_.WriteConfig("reader.json", c.text);
    EXPECT_EQ(GetClientInstallPathModule("reader", false), c.plain);
    EXPECT_EQ(GetClientInstallPathModule("reader", true), c.verified);
  }
}

TEST_F(InstallPathTest, ChangedLibraryIsBlockedAtTheNextVerifiedLookup) {
  home_.WriteConfig("reader.json",
                    ModuleJson("reader", library_, SignatureText(library_)));
  ASSERT_EQ(GetClientInstallPathModule("reader", true), library_);
  tessmar::testing::WriteFile(library_, std::string("module\0bytez", 12));
  EXPECT_EQ(GetClientInstallPathModule("reader", true), kBlocked);
  EXPECT_EQ(GetClientInstallPathModule("reader", false), library_);
}

TEST_F(InstallPathTest, MissingModuleFileGivesEmpty) {
  EXPECT_EQ(GetClientInstallPathModule("reader", false), "");
  EXPECT_EQ(GetClientInstallPathModule("reader", true), "");
}

TEST_F(InstallPathTest, ClientPathPrefersTheMorrowhostModuleBlockIncluded) {
  home_.WriteConfig("config.json", R"({"TessmarClient":"/opt/client"})");
  EXPECT_EQ(GetClientInstallPath(), "/opt/client");

  home_.WriteConfig("morrowhost.json",
                    ModuleJson("morrowhost", library_, SignatureText(library_)));
  EXPECT_EQ(GetClientInstallPath(), library_);

  home_.WriteConfig("morrowhost.json", ModuleJson("morrowhost", library_, ""));
  EXPECT_EQ(GetClientInstallPath(), kBlocked);

  home_.WriteConfig("morrowhost.json",
                    ModuleJson("morrowhost", library_, SignatureText(other_)));
  EXPECT_EQ(GetClientInstallPath(), kBlocked);

  // A module file without a usable path falls through to config.json.
  home_.WriteConfig("morrowhost.json", ModuleJson("", library_, ""));
  EXPECT_EQ(GetClientInstallPath(), "/opt/client");
}

TEST_F(InstallPathTest, ClientPathIsEmptyWithoutUsableFiles) {
  EXPECT_EQ(GetClientInstallPath(), "");
  home_.WriteConfig("config.json", R"({"TessmarClient":"/opt/client")");
  EXPECT_EQ(GetClientInstallPath(), "");
  home_.WriteConfig("config.json", R"({"TessmarClient":["/opt/client"]})");
  EXPECT_EQ(GetClientInstallPath(), "");
}

}  // namespace
