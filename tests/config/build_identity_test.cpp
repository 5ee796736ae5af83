// The two rules that differ between this build and its sibling builds
// ("dunwell"/"copperlanternx" and "pelmora"/"tidewinderx"): client versions
// need the module's library file, and client signature checks always pass.
// This file is built once per identity; CMake tells it which one to expect.
#include <gtest/gtest.h>

#include <string>

#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

#if !defined(TESSMAR_TEST_SIBLING_BUILD) || !defined(TESSMAR_TEST_MANIFEST)
#error "set TESSMAR_TEST_SIBLING_BUILD and TESSMAR_TEST_MANIFEST"
#endif

namespace {

using tessmar::testing::TempHome;

constexpr bool kSibling = TESSMAR_TEST_SIBLING_BUILD != 0;

std::string ModuleJson(const std::string& name, const std::string& path,
                       const std::string& sig) {
  return "{\"Name\":\"" + name + "\",\"Path\":\"" + path + "\",\"Sig\":\"" +
         sig + "\",\"Version\":\"3.1.4.1\"}";
}

class BuildIdentityTest : public ::testing::Test {
 protected:
  TempHome home_;
  const std::string library_ = home_.WriteHomeFile("lib/libreader.so", "lib");
  const std::string missing_ = home_.path() + "/lib/missing.so";
  const std::string signature_ =
      MakeBase64Encode(makeClientSig("morrowhost", "pelmora", library_));
};

TEST_F(BuildIdentityTest, ClientVersionNeedsTheLibraryFileOnlyInSiblingBuilds) {
  home_.WriteConfig("present.json", ModuleJson("present", library_, "c2ln"));
  home_.WriteConfig("missing.json", ModuleJson("missing", missing_, "c2ln"));
  EXPECT_EQ(GetClientVersion("present"), "3.1.4.1");
  EXPECT_EQ(GetClientVersion("missing"), kSibling ? "" : "3.1.4.1");
  // The other three keys are required in every build.
  home_.WriteConfig("present.json", ModuleJson("present", library_, ""));
  EXPECT_EQ(GetClientVersion("present"), "");
}

TEST_F(BuildIdentityTest, SiblingBuildsPassEveryClientSignatureCheck) {
  EXPECT_TRUE(CheckQXClientModuleSignature(library_.c_str(),
                                           signature_.c_str()));
  EXPECT_EQ(CheckQXClientModuleSignature(library_.c_str(), "bm90IGl0"),
            kSibling);
  EXPECT_EQ(CheckQXClientModuleSignature(missing_.c_str(), ""), kSibling);
  // The table is consulted against the build, not the caller's words.
  EXPECT_EQ(CheckQXClientModuleSignature2("other", "words", library_.c_str(),
                                          signature_.c_str()),
            kSibling);
  EXPECT_EQ(CheckClientSig("morrowhost", "pelmora", "", ""), kSibling);

  home_.WriteConfig("reader.json", ModuleJson("reader", missing_, "bm90IGl0"));
  EXPECT_EQ(GetClientInstallPathModule("reader", true),
            kSibling ? missing_ : "BLOCK:CLIENT");
}

TEST_F(BuildIdentityTest, ManifestNameFollowsTheIdentity) {
  const std::string manifest = TESSMAR_TEST_MANIFEST;
  const std::string list = GetTessmarSigFileList("/d");
  const std::size_t last = list.rfind("_FS_");
  ASSERT_NE(last, std::string::npos);
  EXPECT_EQ(list.substr(last + 4), "/d/" + manifest + "_PS_" + manifest);
}

}  // namespace
