// Install paths of client modules, with and without the signature check,
// and of the native client.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/signed_installation.h"
#include "tessmar/config.h"

namespace {

constexpr char kBlocked[] = "BLOCK:CLIENT";

using tessmar::testing::ModuleJson;
constexpr auto ModuleSignature = tessmar::testing::SignedInstallation::ModuleSignature;

class InstallPathTest : public ::testing::Test {
 protected:
  tessmar::testing::TempHome home_;
  const std::string library_ =
      home_.WriteHomeFile("lib/libreader.so", std::string("module\0bytes", 12));
  const std::string sig_ = ModuleSignature(library_);
  const std::string other_sig_ = ModuleSignature(home_.WriteHomeFile("lib/libother.so", "other"));
};

TEST_F(InstallPathTest, VerifiedLookupBlocksUnsignedOrMismatchedModules) {
  EXPECT_EQ(GetClientInstallPathModule("reader", false), "");  // no module file
  const std::string missing = home_.path() + "/lib/missing.so";
  // label, module file, path when not verified, path when verified
  const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
      {"valid signature", ModuleJson("reader", library_, sig_), library_, library_},
      {"no Sig member", "{\"Name\":\"reader\",\"Path\":\"" + library_ + "\"}", library_, kBlocked},
      {"signature of another file", ModuleJson("reader", library_, other_sig_), library_, kBlocked},
      {"library file missing", ModuleJson("reader", missing, sig_), missing, kBlocked},
      {"empty Name", ModuleJson("", library_, sig_), "", ""},
      {"empty Path", ModuleJson("reader", "", sig_), "", ""},
  };
  for (const auto& [label, text, plain, verified] : cases) {
    SCOPED_TRACE(label);
    home_.WriteConfig("reader.json", text);
    EXPECT_EQ(GetClientInstallPathModule("reader", false), plain);
    EXPECT_EQ(GetClientInstallPathModule("reader", true), verified);
  }
}

TEST_F(InstallPathTest, ClientPathPrefersTheMorrowhostModuleBlockIncluded) {
  EXPECT_EQ(GetClientInstallPath(), "");
  home_.WriteConfig("config.json", R"({"TessmarClient":"/opt/client"})");
  const std::pair<std::string, std::string> cases[] = {
      {"", "/opt/client"},  // no morrowhost.json
      {ModuleJson("morrowhost", library_, sig_), library_},
      {ModuleJson("morrowhost", library_, other_sig_), kBlocked},
      // A module file without a usable path falls through to config.json.
      {ModuleJson("morrowhost", "", ""), "/opt/client"}};
  for (const auto& [module_file, expected] : cases) {
    SCOPED_TRACE(module_file);
    if (!module_file.empty()) home_.WriteConfig("morrowhost.json", module_file);
    EXPECT_EQ(GetClientInstallPath(), expected);
  }
}

}  // namespace
