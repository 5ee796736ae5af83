// Signature helpers and the three signature schemes, checked against digests
// computed independently with OpenSSL from the documented formulas.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "signature/stretched_digest.h"
#include "support/temp_home.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::ReadFile;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;
using Pieces = std::vector<std::string>;

std::string OracleDigest(const EVP_MD* md, const std::string& data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), out, &length, md, nullptr) != 1) return "";
  return std::string(reinterpret_cast<const char*>(out), length);
}
std::string OracleSha256(const std::string& data) { return OracleDigest(EVP_sha256(), data); }
std::string OracleMd5(const std::string& data) { return OracleDigest(EVP_md5(), data); }
// Ten rounds appending SHA-256(MD5(H[16..32)) || MD5(H[0..16))), H = SHA-256
// of everything so far; then SHA-256 of the whole.
std::string OracleStretched(std::string acc) {
  for (int round = 0; round < 10; ++round) {
    const std::string h = OracleSha256(acc);
    acc += OracleSha256(OracleMd5(h.substr(16, 16)) + OracleMd5(h.substr(0, 16)));
  }
  return OracleSha256(acc);
}
std::string OracleSalt(const std::string& product, const std::string& maker) {
  return product + maker + OracleSha256(product + maker);
}

// Bytes 0..255 repeated: NULs, high bytes, and more than one block.
std::string BinaryData(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7);
  return data;
}

TEST(Digests, MatchOpenSslAndStretchedDigestMatchesTheTenRoundFormula) {
  for (const std::string& data :
       {std::string("abc"), std::string("morrowhostpelmora"), BinaryData(1),
        BinaryData(55), BinaryData(63), BinaryData(64), BinaryData(65),
        BinaryData(4096), BinaryData(4097)}) {
    SCOPED_TRACE(data.size());
    EXPECT_EQ(MakeDigestSHA256(data), OracleSha256(data));
    EXPECT_EQ(MakeDigestMD5(data), OracleMd5(data));
    EXPECT_EQ(tessmar::MakeStretchedDigest(data), OracleStretched(data));
  }
  // Empty input gives no digest at all, not the digest of the empty message.
  EXPECT_EQ(MakeDigestSHA256(""), "");
  EXPECT_EQ(MakeDigestMD5(""), "");
  EXPECT_EQ(tessmar::MakeStretchedDigest(""), "");
}

// The one-pass stretched digest (state kept after the seed's whole blocks,
// the file streamed in pieces) against the ten rounds spelt out with the
// exported digests, for seeds ending at every offset around block
// boundaries: the rounds' appended digests then start anywhere in a block.
std::string SpeltOutStretched(std::string acc) {
  for (int round = 0; round < 10; ++round) {
    const std::string h = MakeDigestSHA256(acc);
    acc += MakeDigestSHA256(MakeDigestMD5(h.substr(16)) + MakeDigestMD5(h.substr(0, 16)));
  }
  return MakeDigestSHA256(acc);
}

TEST(StretchedDigest, OnePassEqualsTheSpeltOutRoundsAtEveryBlockOffset) {
  TempHome home;
  std::vector<std::size_t> sizes = {1024, 1025, 1055, 1056, 1057, 1087};
  for (std::size_t size = 1; size <= 130; ++size) sizes.push_back(size);
  for (std::size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string seed = BinaryData(size);
    const std::string expected = SpeltOutStretched(seed);
    ASSERT_EQ(tessmar::MakeStretchedDigest(seed), expected);
    // The same seed as a prefix and a file, split at two places.
    for (std::size_t cut : {std::size_t{0}, size / 2}) {
      if (cut == size) continue;
      const std::string file = home.WriteHomeFile("seed.bin", seed.substr(cut));
      EXPECT_EQ(tessmar::MakeStretchedDigestOfFile(seed.substr(0, cut), file), expected);
    }
  }
}

TEST(Base64, EncodesOnOneLineAndDecodesWithAtMostATrailingLineBreak) {
  EXPECT_EQ(MakeBase64Encode(""), "");
  EXPECT_EQ(MakeBase64Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(MakeBase64Encode("fooba"), "Zm9vYmE=");
  const std::string long_data = BinaryData(300);
  EXPECT_EQ(MakeBase64Encode(long_data).find('\n'), std::string::npos);
  EXPECT_EQ(MakeBase64Decode(MakeBase64Encode(long_data)), long_data);
  const std::string digest = OracleSha256("y");
  const std::string text = MakeBase64Encode(digest);
  EXPECT_EQ(text.size(), 44u);
  EXPECT_EQ(text[43], '=');
  EXPECT_NE(text[42], '=') << "32 bytes end in exactly one '='";
  const std::pair<std::string, std::string> decodes[] = {
      {text, digest}, {text + "\n", digest}, {text + "\r\n", digest}, {text + " ", ""},
      {text + "\r", ""}, {text.substr(0, 43), ""}, {"", ""}};
  for (const auto& [input, expected] : decodes) {
    EXPECT_EQ(MakeBase64Decode(input), expected) << testing::PrintToString(input);
  }
}

TEST(FileData, ReadsWholeFilesAndWritesOrTruncatesReportingFailure) {
  TempHome home;
  const std::string data = BinaryData(5000);
  const std::string path = home.WriteHomeFile("data.bin", data);
  EXPECT_EQ(ReadFileData(path), data);
  EXPECT_EQ(ReadFileData(home.WriteHomeFile("empty.bin", "")), "");
  EXPECT_EQ(ReadFileData(home.path() + "/missing.bin"), "");
  EXPECT_EQ(ReadFileData(""), "");
  for (const std::string& written : {BinaryData(700), std::string("\0z", 2), std::string()}) {
    EXPECT_TRUE(WriteFileData(path, written));
    EXPECT_EQ(ReadFile(path), written);
  }
  EXPECT_FALSE(WriteFileData(home.path() + "/no/such/dir/out.bin", "x"));
  EXPECT_FALSE(WriteFileData(home.path(), "x"));  // a directory
}

TEST(ReplaceAndSplit, ReplaceDoesNotRescanAndSplitKeepsNonEmptyPieces) {
  EXPECT_EQ(ReplaceString("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceString("aaaaa", "aa", "b"), "bba");
  EXPECT_EQ(ReplaceString("x_PS_y_PS_", "_PS_", ""), "xy");
  EXPECT_EQ(ReplaceString(std::string("a\0b", 3), std::string("\0", 1), "-"), "a-b");
  const std::pair<std::string, Pieces> cases[] = {
      {"_PS_x_PS_", {"x"}}, {"x", {"x"}}, {"a_PS__PS_b_PS_", {"a", "b"}},
      {"a_PS_b_PS_c", {"a", "b", "c"}}, {"a_PS", {"a_PS"}}, {"", {}}, {"_PS__PS_", {}},
      {std::string("\0a\0_PS_\0", 8), {std::string("\0a\0", 3), std::string("\0", 1)}}};
  for (const auto& [text, pieces] : cases) {
    EXPECT_EQ(SpilteFileData(text, "_PS_"), pieces) << testing::PrintToString(text);
  }
  EXPECT_EQ(SpilteFileData("_SS_path_PS_n", "_SS_"), Pieces{"path_PS_n"});
}

// ---- Client module signatures: salted stretched digest of the module.

TEST(ClientSignature, MatchesTheDocumentedDigestAndChecksOnlyItsOwnText) {
  TempHome home;
  const std::string data = std::string("\x7f" "ELF\0\0module", 12);
  const std::string module = home.WriteHomeFile("lib/libreader.so", data);
  const std::string none = home.path() + "/lib/none.so";
  const std::string empty = home.WriteHomeFile("lib/empty.so", "");
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora", module),
            OracleStretched(OracleSalt("morrowhost", "pelmora") + data));
  EXPECT_EQ(makeClientSig("pelmora", "morrowhost", module),
            OracleStretched(OracleSalt("pelmora", "morrowhost") + data));
  // Large modules are read in pieces: one of a MiB and a bit.
  const std::string large = BinaryData((1 << 20) + 77);
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora",
                          home.WriteHomeFile("lib/liblarge.so", large)),
            OracleStretched(OracleSalt("morrowhost", "pelmora") + large));
  for (const std::string& path : {std::string(), none, empty}) {
    EXPECT_EQ(makeClientSig("morrowhost", "pelmora", path), "") << path;
  }

  const std::string text = MakeBase64Encode(makeClientSig("morrowhost", "pelmora", module));
  ASSERT_EQ(text.size(), 44u);
  std::string changed = data;
  changed.back() ^= 0x20;
  const std::string copy = home.WriteHomeFile("lib/changed.so", changed);
  // The nearest thing to a signature of an empty module.
  const std::string salt_only = MakeBase64Encode(OracleStretched(OracleSalt("morrowhost", "pelmora")));
  const std::tuple<std::string, std::string, bool> cases[] = {
      {module, text, true},          {module, text + "\n", true},
      {module, text + "\r\n", true}, {module, text + " ", false},
      {module, text + "\r", false},  {module, "", false},
      {copy, text, false},           {none, text, false},
      {empty, salt_only, false},     {empty, "", false},
      {"", "", false}};
  for (const auto& [path, sig, expected] : cases) {
    SCOPED_TRACE(path + " / " + sig);
    EXPECT_EQ(CheckQXClientModuleSignature(path.c_str(), sig.c_str()), expected);
    EXPECT_EQ(CheckClientSig("morrowhost", "pelmora", path, sig), expected);
    EXPECT_EQ(CheckQXClientModuleSignature2("morrowhost", "pelmora", path.c_str(), sig.c_str()),
              expected);
  }
  EXPECT_FALSE(CheckClientSig("pelmora", "morrowhost", module, text));
  EXPECT_FALSE(CheckClientSig("morrowhost", "Pelmora", module, text));
  const std::string other = MakeBase64Encode(makeClientSig("other", "words", module));
  EXPECT_FALSE(CheckQXClientModuleSignature2("morrowhost", "pelmora", module.c_str(), other.c_str()));
  EXPECT_TRUE(CheckQXClientModuleSignature2("other", "words", module.c_str(), other.c_str()));
}

// ---- Local server signatures: unsalted stretched digest in "<path>.sig".

TEST(LocalServerSignature, IsTheDigestOfTheBytesAloneStoredWithOneLineBreakAtMost) {
  TempHome home;
  const std::string data = std::string("#!server\0\1\2", 11);
  const std::string server = home.WriteHomeFile("opt/server", data);
  const std::string text = MakeBase64Encode(makeLocalServerSig(server));
  EXPECT_EQ(makeLocalServerSig(server), OracleStretched(data));
  EXPECT_EQ(makeLocalServerSig(""), "");
  EXPECT_FALSE(CheckLocalServerSig(server));  // no .sig file yet
  // The path is not mixed in: a copy elsewhere passes with the same text.
  const std::string copy = home.WriteHomeFile("elsewhere/copy", data);
  WriteFile(copy + ".sig", text);
  EXPECT_TRUE(CheckLocalServerSignature(copy.c_str()));

  const std::tuple<const char*, std::string, bool> cases[] = {
      {"text alone", text, true}, {"line feed", text + "\n", true},
      {"CR LF", text + "\r\n", true}, {"trailing space", text + " ", false},
      {"lone CR", text + "\r", false}, {"empty", "", false},
      {"other bytes", MakeBase64Encode(OracleStretched(data + "x")), false}};
  for (const auto& [label, sig_file, expected] : cases) {
    SCOPED_TRACE(label);
    WriteFile(server + ".sig", sig_file);
    EXPECT_EQ(CheckLocalServerSignature(server.c_str()), expected);
    EXPECT_EQ(CheckLocalServerSig(server), expected);
  }

  // A path ending in ".sig" is checked against ".sig.sig".
  const std::string sig_file = server + ".sig";
  WriteFile(sig_file, text);
  ASSERT_TRUE(CheckLocalServerSig(server));
  EXPECT_FALSE(CheckLocalServerSig(sig_file));
  WriteFile(sig_file + ".sig", MakeBase64Encode(makeLocalServerSig(sig_file)));
  EXPECT_TRUE(CheckLocalServerSig(sig_file));

  // A changed, empty or missing program fails.
  WriteFile(server, data + "x");
  EXPECT_FALSE(CheckLocalServerSig(server));
  WriteFile(server, "");
  for (const std::string& stored : {text, std::string(), MakeBase64Encode("")}) {
    WriteFile(server + ".sig", stored);
    EXPECT_FALSE(CheckLocalServerSig(server));
  }
  EXPECT_FALSE(CheckLocalServerSig(home.path() + "/opt/none"));
  EXPECT_FALSE(CheckLocalServerSignature(""));
}

// ---- Installation signature: covered files, salted digest, config.json "Sig".

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
    for (const char* name : kCovered) expected += base + "/" + name + "_PS_" + name + "_FS_";
    EXPECT_EQ(GetTessmarSigFileList(""), expected + tail);
    std::remove(config.c_str());
  }
}

TEST(MakeSig, ForADirectoryMatchesTheDocumentedDigest) {
  TempHome home;
  const std::string dir = home.path() + "/inst";
  std::string acc = OracleSalt("morrowhost", "pelmora");
  for (const char* name : kCovered) {
    const std::string data = std::string("\0bytes of ", 10) + name;
    home.WriteHomeFile(std::string("inst/") + name, data);
    const std::string t = name + data;
    acc += OracleSha256(t + OracleSha256(t));
  }
  // The missing manifest contributes its name with no data.
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

// An installation signed the way the installer signs it.
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
  // No installation path either, so only the place of the text decides.
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
  // Any header path containing ".sig" is read whole, even config.json.
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
