// The installation signature: the list of covered files, the salted digest
// over them, and the check against the "Sig" member of config.json.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "signature/openssl_oracle.h"
#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleSalt;
using tessmar::testing::OracleSha256;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;

constexpr char kManifest[] = "zz.qx.pelmora.morrowhost.json";
constexpr char kManifestDir[] = "/etc/opt/chrome/native-messaging-hosts";
const char* const kCovered[] = {"libnpTessmarPlugin.so", "libTessmarFirefox.so",
                                "TessmarChrome"};

std::string Entry(const std::string& dir, const std::string& name) {
  return dir + "/" + name + "_PS_" + name;
}

// The documented digest over (path, name) entries, computed with OpenSSL.
std::string OracleInstallationDigest(
    const std::string& product, const std::string& maker,
    const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string acc = OracleSalt(product, maker);
  for (const auto& [path, name] : entries) {
    const std::string t = name + tessmar::testing::ReadFile(path);
    acc += OracleSha256(t + OracleSha256(t));
  }
  return OracleSha256(acc);
}

TEST(SigFileList, ForADirectoryNamesTheSigFileAndFourFilesInIt) {
  EXPECT_EQ(GetTessmarSigFileList("/opt/D"),
            "/opt/D/Tessmar.sig_SS_"
            "/opt/D/libnpTessmarPlugin.so_PS_libnpTessmarPlugin.so_FS_"
            "/opt/D/libTessmarFirefox.so_PS_libTessmarFirefox.so_FS_"
            "/opt/D/TessmarChrome_PS_TessmarChrome_FS_"
            "/opt/D/zz.qx.pelmora.morrowhost.json_PS_"
            "zz.qx.pelmora.morrowhost.json");
}

TEST(SigFileList, WithoutADirectoryUsesTheInstalledLocations) {
  TempHome home;
  const std::string config =
      home.WriteConfig("config.json", R"({"Tessmar":"/opt/tessmar"})");
  EXPECT_EQ(GetTessmarSigFileList(""),
            config + "_SS_" + Entry("/opt/tessmar", kCovered[0]) + "_FS_" +
                Entry("/opt/tessmar", kCovered[1]) + "_FS_" +
                Entry("/opt/tessmar", kCovered[2]) + "_FS_" +
                Entry(kManifestDir, kManifest));

  // No config.json: empty header and base, the slash still inserted.
  std::remove(config.c_str());
  EXPECT_EQ(GetTessmarSigFileList(""),
            "_SS_" + Entry("", kCovered[0]) + "_FS_" + Entry("", kCovered[1]) +
                "_FS_" + Entry("", kCovered[2]) + "_FS_" +
                Entry(kManifestDir, kManifest));
}

TEST(MakeSig, ForADirectoryMatchesTheDocumentedDigest) {
  TempHome home;
  const std::string dir = home.path() + "/inst";
  std::vector<std::pair<std::string, std::string>> entries;
  for (const char* name : kCovered) {
    entries.emplace_back(home.WriteHomeFile(std::string("inst/") + name,
                                            std::string("\0bytes of ", 10) + name),
                         name);
  }
  // The manifest is left missing: it contributes its name with no data.
  entries.emplace_back(dir + "/" + kManifest, kManifest);

  std::string sig_path = "untouched";
  const std::string sig = makeSig("morrowhost", "pelmora", dir, sig_path);
  EXPECT_EQ(sig, OracleInstallationDigest("morrowhost", "pelmora", entries));
  EXPECT_EQ(sig_path, dir + "/Tessmar.sig");
  EXPECT_NE(makeSig("pelmora", "morrowhost", dir, sig_path), sig);
}

TEST(MakeSig, WithoutConfigFileFailsAndLeavesSigPathAlone) {
  TempHome home;
  std::string sig_path = "untouched";
  EXPECT_EQ(makeSig("morrowhost", "pelmora", "", sig_path), "");
  EXPECT_EQ(sig_path, "untouched");
}

// An installation in the temporary HOME, signed the way the installer signs:
// config.json's "Tessmar" points at the directory of the covered files and
// its "Sig" holds the Base64 text of makeSig for the installed locations.
class InstalledSignatureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tessmar::testing::MakeDirectories(install_);
    for (const char* name : kCovered) {
      WriteFile(Covered(name), std::string("contents of ") + name);
    }
    Sign();
  }

  std::string Covered(const std::string& name) const {
    return install_ + "/" + name;
  }

  void WriteConfigWithSig(const std::string& sig_json) {
    home_.WriteConfig("config.json", "{\"Tessmar\":\"" + install_ +
                                         "\",\"Version\":\"1.0.0.1\","
                                         "\"Sig\":" + sig_json + "}");
  }

  // Signs the files as they are now and stores the text in config.json.
  void Sign() {
    WriteConfigWithSig("\"\"");  // the header must exist to be signed
    std::string sig_path;
    signature_ = MakeBase64Encode(makeSig("morrowhost", "pelmora", "", sig_path));
    EXPECT_EQ(signature_.size(), 44u);
    WriteConfigWithSig("\"" + signature_ + "\"");
  }

  TempHome home_;
  const std::string install_ = home_.path() + "/opt/tessmar";
  std::string signature_;
};

TEST_F(InstalledSignatureTest, PassesForTheSignedInstallation) {
  EXPECT_TRUE(CheckSig("morrowhost", "pelmora"));
  EXPECT_TRUE(CheckModuleSignature());
}

TEST_F(InstalledSignatureTest, FailsForOtherSaltWords) {
  EXPECT_FALSE(CheckSig("pelmora", "morrowhost"));
  EXPECT_FALSE(CheckSig("morrowhostx", "pelmora"));
  EXPECT_FALSE(CheckSig("morrowhost", "Pelmora"));
}

TEST_F(InstalledSignatureTest, FailsWhenACoveredFileChanges) {
  for (const char* name : kCovered) {
    SCOPED_TRACE(name);
    const std::string original = tessmar::testing::ReadFile(Covered(name));
    std::string changed = original;
    changed[3] ^= 1;
    WriteFile(Covered(name), changed);
    EXPECT_FALSE(CheckModuleSignature());
    WriteFile(Covered(name), original);
    EXPECT_TRUE(CheckModuleSignature());
  }
}

TEST_F(InstalledSignatureTest, FailsWhenACoveredFileIsRenamedOrDeleted) {
  // The same bytes under another covered name still change the digest.
  ASSERT_EQ(std::rename(Covered(kCovered[0]).c_str(),
                        Covered(kCovered[1]).c_str()), 0);
  WriteFile(Covered(kCovered[0]), "contents of libTessmarFirefox.so");
  EXPECT_FALSE(CheckModuleSignature());
  Sign();
  ASSERT_TRUE(CheckModuleSignature());
  std::remove(Covered(kCovered[2]).c_str());
  EXPECT_FALSE(CheckModuleSignature());
}

TEST_F(InstalledSignatureTest, FileMissingWhenSignedMayStayMissing) {
  std::remove(Covered(kCovered[1]).c_str());
  Sign();
  EXPECT_TRUE(CheckModuleSignature());
  WriteFile(Covered(kCovered[1]), "");  // present but empty reads the same
  EXPECT_TRUE(CheckModuleSignature());
  WriteFile(Covered(kCovered[1]), "x");
  EXPECT_FALSE(CheckModuleSignature());
}

TEST_F(InstalledSignatureTest, StoredTextMustBeTheSigStringOfAnObject) {
  struct Case {
    const char* label;
    std::string config;
    bool expected;
  };
  const std::string t = "\"Tessmar\":\"" + install_ + "\"";
  const std::string sig = "\"Sig\":\"" + signature_;
  const Case cases[] = {
      {"trailing line feed", "{" + t + "," + sig + "\\n\"}", true},
      {"trailing CR LF", "{" + t + "," + sig + "\\r\\n\"}", true},
      {"trailing space", "{" + t + "," + sig + " \"}", false},
      {"lone trailing CR", "{" + t + "," + sig + "\\r\"}", false},
      {"first Sig wins", "{" + t + "," + sig + "\",\"Sig\":\"AAAA\"}", true},
      {"wrong first Sig", "{" + t + ",\"Sig\":\"AAAA\"," + sig + "\"}", false},
      {"Sig as a number", "{" + t + ",\"Sig\":12345}", false},
      {"name is case-sensitive", "{" + t + ",\"sig\":\"" + signature_ + "\"}",
       false},
      {"no Sig", "{" + t + "}", false},
      {"Sig of another digest",
       "{" + t + ",\"Sig\":\"" + MakeBase64Encode(OracleSha256("x")) + "\"}",
       false},
      {"Sig truncated", "{" + t + "," + sig.substr(0, sig.size() - 4) + "\"}",
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    home_.WriteConfig("config.json", c.config);
    EXPECT_EQ(CheckModuleSignature(), c.expected);
  }
}

TEST(InstalledSignature, SigOutsideARootObjectIsNeverFound) {
  // Such a config names no installation path either, so the signature is
  // made for what it does name (bare covered names): then only the place of
  // the stored text decides.
  TempHome home;
  home.WriteConfig("config.json", "[]");
  std::string sig_path;
  const std::string text =
      MakeBase64Encode(makeSig("morrowhost", "pelmora", "", sig_path));
  ASSERT_EQ(text.size(), 44u);
  home.WriteConfig("config.json", "[{\"Sig\":\"" + text + "\"}]");
  EXPECT_FALSE(CheckModuleSignature());
  home.WriteConfig("config.json", "{\"Sig\":\"" + text + "\"");
  EXPECT_FALSE(CheckModuleSignature());
  home.WriteConfig("config.json", "{\"Sig\":\"" + text + "\"}");
  EXPECT_TRUE(CheckModuleSignature());
}

TEST_F(InstalledSignatureTest, NoConfigFileFailsWithIntactFiles) {
  std::remove((home_.ConfigDir() + "/config.json").c_str());
  EXPECT_FALSE(CheckModuleSignature());
}

TEST(InstalledSignature, HeaderContainingDotSigIsReadAsARawSignatureFile) {
  // The stored text is taken from the header file as a whole whenever its
  // path contains ".sig" anywhere, even a config.json below such a HOME.
  TempHome home;
  const std::string sig_home = home.path() + "/x.sig";
  const std::string config =
      sig_home + "/.config/Pelmora/Tessmar/morrowhost/config.json";
  tessmar::testing::MakeDirectories(config.substr(0, config.rfind('/')));
  ASSERT_EQ(setenv("HOME", sig_home.c_str(), 1), 0);  // TempHome restores it
  WriteFile(config, "placeholder");
  std::string sig_path;
  const std::string text =
      MakeBase64Encode(makeSig("morrowhost", "pelmora", "", sig_path));
  ASSERT_EQ(sig_path, config);
  WriteFile(config, "{\"Sig\":\"" + text + "\"}");
  EXPECT_FALSE(CheckModuleSignature());
  WriteFile(config, text + "\n");
  EXPECT_TRUE(CheckModuleSignature());
}

}  // namespace
