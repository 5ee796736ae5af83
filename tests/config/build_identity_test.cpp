// Rules that differ in sibling builds (client versions need the library file,
// client signature checks always pass); built once per identity.
#include <gtest/gtest.h>

#include <string>

#include "support/signed_installation.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

#if !defined(TESSMAR_TEST_SIBLING_BUILD) || !defined(TESSMAR_TEST_MANIFEST)
#error "set TESSMAR_TEST_SIBLING_BUILD and TESSMAR_TEST_MANIFEST"
#endif

namespace {

constexpr bool kSibling = TESSMAR_TEST_SIBLING_BUILD != 0;
using tessmar::testing::ModuleJson;

TEST(BuildIdentity, ClientVersionSignatureChecksAndManifestFollowTheIdentity) {
  tessmar::testing::TempHome home;
  const std::string library = home.WriteHomeFile("lib/libreader.so", "lib");
  const std::string missing = home.path() + "/lib/missing.so";
  const std::string signature = tessmar::testing::SignedInstallation::ModuleSignature(library);

  home.WriteConfig("present.json", ModuleJson("present", library, "c2ln"));
  home.WriteConfig("missing.json", ModuleJson("missing", missing, "c2ln"));
  EXPECT_EQ(GetClientVersion("present"), "1.0.0.1");
  EXPECT_EQ(GetClientVersion("missing"), kSibling ? "" : "1.0.0.1");

  EXPECT_EQ(CheckQXClientModuleSignature(library.c_str(), "bm90IGl0"), kSibling);
  EXPECT_EQ(CheckQXClientModuleSignature(missing.c_str(), ""), kSibling);
  // The table is consulted against the build, not the caller's words.
  EXPECT_EQ(CheckQXClientModuleSignature2("other", "words", library.c_str(), signature.c_str()),
            kSibling);
  home.WriteConfig("reader.json", ModuleJson("reader", missing, "bm90IGl0"));
  EXPECT_EQ(GetClientInstallPathModule("reader", true), kSibling ? missing : "BLOCK:CLIENT");

  const std::string manifest = TESSMAR_TEST_MANIFEST;
  const std::string list = GetTessmarSigFileList("/d");
  EXPECT_EQ(list.substr(list.rfind("_FS_") + 4), "/d/" + manifest + "_PS_" + manifest);
}

}  // namespace
