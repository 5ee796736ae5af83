// The installation signature: the list of covered files, the salted digest
// over them, and the check against the "Sig" member of config.json.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>

#include "signature/openssl_oracle.h"
#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleSha256;
using tessmar::testing::ReadFile;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;

constexpr char kManifest[] = "zz.qx.pelmora.morrowhost.json";
const char* const kCovered[] = {"libnpTessmarPlugin.so", "libTessmarFirefox.so",
                                "TessmarChrome"};

std::string SignInstalled() {
  std::string header;
  return MakeBase64Encode(makeSig("morrowhost", "pelmora", "", header));
}

TEST(SigFileList, NamesTheHeaderAndFourCoveredFiles) {
  EXPECT_EQ(GetTessmarSigFileList("/opt/D"),
            "/opt/D/Tessmar.sig_SS_"
            "/opt/D/libnpTessmarPlugin.so_PS_libnpTessmarPlugin.so_FS_"
            "/opt/D/libTessmarFirefox.so_PS_libTessmarFirefox.so_FS_"
            "/opt/D/TessmarChrome_PS_TessmarChrome_FS_"
            "/opt/D/zz.qx.pelmora.morrowhost.json_PS_zz.qx.pelmora.morrowhost.json");
  // Without a directory: config.json and the installed locations; with no
  // config.json, an empty header and base (the slash still inserted).
  TempHome home;
  const std::string config = home.WriteConfig("config.json", R"({"Tessmar":"/opt/t"})");
  const std::string tail = "/etc/opt/chrome/native-messaging-hosts/" +
                           std::string(kManifest) + "_PS_" + kManifest;
  for (const std::string base : {"/opt/t", ""}) {
    std::string expected = (base.empty() ? "" : config) + "_SS_";
    for (const char* name : kCovered) {
      expected += base + "/" + name + "_PS_" + name + "_FS_";
    }
    EXPECT_EQ(GetTessmarSigFileList(""), expected + tail);
    std::remove(config.c_str());
  }
}

TEST(MakeSig, ForADirectoryMatchesTheDocumentedDigest) {
  TempHome home;
  const std::string dir = home.path() + "/inst";
  std::string acc = tessmar::testing::OracleSalt("morrowhost", "pelmora");
  for (const char* name : kCovered) {
    const std::string data = std::string("\0bytes of ", 10) + name;
    home.WriteHomeFile(std::string("inst/") + name, data);
    const std::string t = name + data;
    acc += OracleSha256(t + OracleSha256(t));
  }
  // The manifest is left missing: it contributes its name with no data.
  const std::string t = kManifest;
  acc += OracleSha256(t + OracleSha256(t));

  std::string sig_path = "untouched";
  const std::string sig = makeSig("morrowhost", "pelmora", dir, sig_path);
  EXPECT_EQ(sig, OracleSha256(acc));
  EXPECT_EQ(sig_path, dir + "/Tessmar.sig");
  EXPECT_NE(makeSig("pelmora", "morrowhost", dir, sig_path), sig);

  // Without a directory and without config.json there is nothing to sign.
  sig_path = "untouched";
  EXPECT_EQ(makeSig("morrowhost", "pelmora", "", sig_path), "");
  EXPECT_EQ(sig_path, "untouched");
}

// An installation in the temporary HOME, signed the way the installer signs:
// config.json's "Tessmar" points at the covered files, "Sig" holds the text.
class InstalledSignatureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tessmar::testing::MakeDirectories(install_);
    for (const char* name : kCovered) WriteFile(Covered(name), std::string("contents of ") + name);
    Sign();
  }
  std::string Covered(const std::string& name) const { return install_ + "/" + name; }
  void WriteConfigWithSig(const std::string& sig_json) {
    home_.WriteConfig("config.json", "{\"Tessmar\":\"" + install_ +
                                         "\",\"Version\":\"1.0.0.1\",\"Sig\":" + sig_json + "}");
  }
  void Sign() {
    WriteConfigWithSig("\"\"");  // the header must exist to be signed
    signature_ = SignInstalled();
    ASSERT_EQ(signature_.size(), 44u);
    WriteConfigWithSig("\"" + signature_ + "\"");
  }

  TempHome home_;
  const std::string install_ = home_.path() + "/opt/tessmar";
  std::string signature_;
};

TEST_F(InstalledSignatureTest, PassesOnlyForTheSignedFilesAndSaltWords) {
  EXPECT_TRUE(CheckSig("morrowhost", "pelmora"));
  EXPECT_TRUE(CheckModuleSignature());
  EXPECT_FALSE(CheckSig("pelmora", "morrowhost"));
  EXPECT_FALSE(CheckSig("morrowhostx", "pelmora"));
  EXPECT_FALSE(CheckSig("morrowhost", "Pelmora"));
  for (const char* name : kCovered) {
    SCOPED_TRACE(name);
    const std::string original = ReadFile(Covered(name));
    std::string changed = original;
    changed[3] ^= 1;
    WriteFile(Covered(name), changed);
    EXPECT_FALSE(CheckModuleSignature());
    WriteFile(Covered(name), original);
    EXPECT_TRUE(CheckModuleSignature());
  }
}

TEST_F(InstalledSignatureTest, RenamedDeletedAndMissingWhenSignedFiles) {
  // The same bytes under another covered name still change the digest.
  ASSERT_EQ(std::rename(Covered(kCovered[0]).c_str(), Covered(kCovered[1]).c_str()), 0);
  WriteFile(Covered(kCovered[0]), "contents of libTessmarFirefox.so");
  EXPECT_FALSE(CheckModuleSignature());
  Sign();
  ASSERT_TRUE(CheckModuleSignature());
  std::remove(Covered(kCovered[2]).c_str());
  EXPECT_FALSE(CheckModuleSignature());
  // A file missing when signed may stay missing, or be present but empty.
  Sign();
  EXPECT_TRUE(CheckModuleSignature());
  WriteFile(Covered(kCovered[2]), "");
  EXPECT_TRUE(CheckModuleSignature());
  WriteFile(Covered(kCovered[2]), "x");
  EXPECT_FALSE(CheckModuleSignature());
}

TEST_F(InstalledSignatureTest, StoredTextMustBeTheSigStringOfAnObject) {
  const std::string t = "{\"Tessmar\":\"" + install_ + "\",";
  const std::string sig = "\"Sig\":\"" + signature_;
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"trailing line feed", t + sig + "\\n\"}", true},
      {"trailing CR LF", t + sig + "\\r\\n\"}", true},
      {"trailing space", t + sig + " \"}", false},
      {"lone trailing CR", t + sig + "\\r\"}", false},
      {"first Sig wins", t + sig + "\",\"Sig\":\"AAAA\"}", true},
      {"wrong first Sig", t + "\"Sig\":\"AAAA\"," + sig + "\"}", false},
      {"Sig as a number", t + "\"Sig\":12345}", false},
      {"name is case-sensitive", t + "\"sig\":\"" + signature_ + "\"}", false},
      {"no Sig", t + "\"x\":1}", false},
      {"Sig of another digest", t + "\"Sig\":\"" + MakeBase64Encode(OracleSha256("x")) + "\"}",
       false},
      {"Sig truncated", t + sig.substr(0, sig.size() - 4) + "\"}", false},
  };
  for (const auto& [label, config, expected] : cases) {
    SCOPED_TRACE(label);
    home_.WriteConfig("config.json", config);
    EXPECT_EQ(CheckModuleSignature(), expected);
  }
  std::remove((home_.ConfigDir() + "/config.json").c_str());
  EXPECT_FALSE(CheckModuleSignature());
}

TEST(InstalledSignature, SigOutsideARootObjectIsNeverFound) {
  // Such a config names no installation path either, so the signature is
  // made for bare covered names: then only the place of the text decides.
  TempHome home;
  home.WriteConfig("config.json", "[]");
  const std::string text = SignInstalled();
  ASSERT_EQ(text.size(), 44u);
  home.WriteConfig("config.json", "[{\"Sig\":\"" + text + "\"}]");
  EXPECT_FALSE(CheckModuleSignature());
  home.WriteConfig("config.json", "{\"Sig\":\"" + text + "\"");
  EXPECT_FALSE(CheckModuleSignature());
  home.WriteConfig("config.json", "{\"Sig\":\"" + text + "\"}");
  EXPECT_TRUE(CheckModuleSignature());
}

TEST(InstalledSignature, HeaderContainingDotSigIsReadAsARawSignatureFile) {
  // The stored text is taken from the header file as a whole whenever its
  // path contains ".sig" anywhere, even a config.json below such a HOME.
  TempHome home;
  const std::string sig_home = home.path() + "/x.sig";
  const std::string config = sig_home + "/.config/Pelmora/Tessmar/morrowhost/config.json";
  tessmar::testing::MakeDirectories(config.substr(0, config.rfind('/')));
  ASSERT_EQ(setenv("HOME", sig_home.c_str(), 1), 0);  // TempHome restores it
  WriteFile(config, "placeholder");
  std::string sig_path;
  const std::string text = MakeBase64Encode(makeSig("morrowhost", "pelmora", "", sig_path));
  ASSERT_EQ(sig_path, config);
  WriteFile(config, "{\"Sig\":\"" + text + "\"}");
  EXPECT_FALSE(CheckModuleSignature());
  WriteFile(config, text + "\n");
  EXPECT_TRUE(CheckModuleSignature());
}

}  // namespace
