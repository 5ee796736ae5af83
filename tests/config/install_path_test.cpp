// Install paths of client modules, with and without the signature check,
// and of the native client.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

constexpr char kBlocked[] = "BLOCK:CLIENT";

std::string ModuleJson(const std::string& name, const std::string& path, const std::string& sig) {
  return "{\"Name\":\"" + name + "\",\"Path\":\"" + path + "\",\"Sig\":\"" + sig +
         "\",\"Version\":\"1.0.0.1\"}";
}

class InstallPathTest : public ::testing::Test {
 protected:
  static std::string SignatureText(const std::string& path) {
    return MakeBase64Encode(makeClientSig("morrowhost", "pelmora", path));
  }
  tessmar::testing::TempHome home_;
  const std::string library_ =
      home_.WriteHomeFile("lib/libreader.so", std::string("module\0bytes", 12));
  const std::string other_ = home_.WriteHomeFile("lib/libother.so", "other");
  const std::string missing_ = home_.path() + "/lib/missing.so";
  const std::string sig_ = SignatureText(library_);
};

TEST_F(InstallPathTest, VerifiedLookupBlocksUnsignedOrMismatchedModules) {
  EXPECT_EQ(GetClientInstallPathModule("reader", false), "");  // no module file
  EXPECT_EQ(GetClientInstallPathModule("reader", true), "");
  const std::string unsigned_start = "{\"Name\":\"reader\",\"Path\":\"" + library_ + "\"";
  // label, module file, path when not verified, path when verified
  const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
      {"valid signature", ModuleJson("reader", library_, sig_), library_, library_},
      {"no Sig member", unsigned_start + "}", library_, kBlocked},
      {"empty Sig", ModuleJson("reader", library_, ""), library_, kBlocked},
      {"Sig as a number", unsigned_start + ",\"Sig\":1}", library_, kBlocked},
      {"signature of another file", ModuleJson("reader", library_, SignatureText(other_)),
       library_, kBlocked},
      {"library file missing", ModuleJson("reader", missing_, sig_), missing_, kBlocked},
      {"empty Name", ModuleJson("", library_, sig_), "", ""},
      {"no Name member", "{\"Path\":\"" + library_ + "\",\"Sig\":\"" + sig_ + "\"}", "", ""},
      {"empty Path", ModuleJson("reader", "", sig_), "", ""},
      {"unparsable", "{\"Name\":\"reader\",", "", ""},
  };
  for (const auto& [label, text, plain, verified] : cases) {
    SCOPED_TRACE(label);
    home_.WriteConfig("reader.json", text);
    EXPECT_EQ(GetClientInstallPathModule("reader", false), plain);
    EXPECT_EQ(GetClientInstallPathModule("reader", true), verified);
  }
  // A library changed after signing is blocked at the next verified lookup.
  home_.WriteConfig("reader.json", ModuleJson("reader", library_, sig_));
  ASSERT_EQ(GetClientInstallPathModule("reader", true), library_);
  tessmar::testing::WriteFile(library_, std::string("module\0bytez", 12));
  EXPECT_EQ(GetClientInstallPathModule("reader", true), kBlocked);
  EXPECT_EQ(GetClientInstallPathModule("reader", false), library_);
}

TEST_F(InstallPathTest, ClientPathPrefersTheMorrowhostModuleBlockIncluded) {
  EXPECT_EQ(GetClientInstallPath(), "");
  for (const char* broken : {R"({"TessmarClient":"/opt/client")", R"({"TessmarClient":["/c"]})"}) {
    home_.WriteConfig("config.json", broken);
    EXPECT_EQ(GetClientInstallPath(), "") << broken;
  }
  home_.WriteConfig("config.json", R"({"TessmarClient":"/opt/client"})");
  const std::pair<std::string, std::string> cases[] = {
      {"", "/opt/client"},  // no morrowhost.json
      {ModuleJson("morrowhost", library_, sig_), library_},
      {ModuleJson("morrowhost", library_, ""), kBlocked},
      {ModuleJson("morrowhost", library_, SignatureText(other_)), kBlocked},
      // A module file without a usable path falls through to config.json.
      {ModuleJson("", library_, ""), "/opt/client"}};
  for (const auto& [module_file, expected] : cases) {
    SCOPED_TRACE(module_file);
    if (!module_file.empty()) home_.WriteConfig("morrowhost.json", module_file);
    EXPECT_EQ(GetClientInstallPath(), expected);
  }
}

}  // namespace
