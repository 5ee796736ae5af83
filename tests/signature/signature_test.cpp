// The byte-string helpers (whole-file reads and writes, replacement and
// splitting on multi-character separators), the digest helpers and the three
// signature schemes, checked against committed vectors. Each vector was
// computed once, independently of this code, from the documented formulas: the stretched digest is ten rounds
// appending SHA-256(MD5(H[16..32)) || MD5(H[0..16))), H = SHA-256 of
// everything so far, then SHA-256 of the whole; a salt is
// product || maker || SHA-256(product || maker).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "signature/stretched_digest.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using namespace tessmar::testing;
using Pieces = std::vector<std::string>;

std::string B64(const std::string& digest) { return MakeBase64Encode(digest); }

TEST(FileData, ReadsWholeFilesAndReportsWhetherAWriteReachedTheFile) {
  TempHome home;
  const std::string path = home.path() + "/data.bin";
  // Each write truncates what the one before left.
  for (const std::string& data : {BinaryData(5000), std::string("\0z", 2), std::string()}) {
    EXPECT_TRUE(WriteFileData(path, data));
    EXPECT_EQ(ReadFileData(path), data);
  }
  EXPECT_FALSE(WriteFileData(home.path() + "/no/such/dir/out.bin", "x"));
  // One byte fits the stream's buffer: only the flush on close fails.
  EXPECT_FALSE(WriteFileData("/dev/full", "x"));
}

TEST(ReplaceAndSplit, ReplaceDoesNotRescanAndSplitKeepsNonEmptyPieces) {
  EXPECT_EQ(ReplaceString("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceString("aaaaa", "aa", "b"), "bba");
  const std::pair<std::string, Pieces> cases[] = {
      {"_PS_a_PS__PS_b_PS_", {"a", "b"}}, {"a_PS", {"a_PS"}}, {"", {}},
      {std::string("\0a\0_PS_\0", 8), {std::string("\0a\0", 3), std::string("\0", 1)}}};
  for (const auto& [text, pieces] : cases) {
    EXPECT_EQ(SpilteFileData(text, "_PS_"), pieces) << ::testing::PrintToString(text);
  }
}

// Seeds end at every offset around block boundaries, so the rounds' appended
// digests start anywhere in a block; the file variant streams the same seed
// after a prefix cut at two places. The vector is the SHA-256 of all the
// stretched digests, in order.
TEST(Digests, MatchTheTenRoundFormulaAtEveryBlockOffset) {
  TempHome home;
  std::vector<std::size_t> sizes = {1024, 1025, 1055, 1056, 1057, 1087, 4096, 4097};
  for (std::size_t size = 1; size <= 130; ++size) sizes.push_back(size);
  std::string all;
  for (std::size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string seed = BinaryData(size);
    const std::string stretched = tessmar::MakeStretchedDigest(seed);
    for (std::size_t cut : {std::size_t{0}, size / 2}) {
      const std::string file = home.WriteHomeFile("seed.bin", seed.substr(cut));
      EXPECT_EQ(tessmar::MakeStretchedDigestOfFile(seed.substr(0, cut), file), stretched);
    }
    all += stretched;
  }
  EXPECT_EQ(B64(MakeDigestSHA256(all)), "nFr5HblvP9OzjNM4jorDDtaOaojVXi8r/aj0DWcT3eU=");
  // Empty input gives no digest at all, not the digest of the empty message.
  EXPECT_EQ(MakeDigestSHA256("") + MakeDigestMD5("") + tessmar::MakeStretchedDigest(""), "");
}

TEST(ClientSignature, IsTheSaltedStretchedDigestOfTheModule) {
  TempHome home;
  const std::string module = home.WriteHomeFile("lib/libreader.so", std::string("\x7f" "ELF\0\0module", 12));
  const std::string empty = home.WriteHomeFile("lib/empty.so", "");
  const std::string text = "s7eldbHDcwiR+4JPthoFREVwUTRfpVrojcL74YQ7SuE=";
  EXPECT_EQ(B64(makeClientSig("morrowhost", "pelmora", module)), text);
  // Large modules are read in pieces: one of a MiB and a bit.
  const std::string large = home.WriteHomeFile("lib/large.so", BinaryData((1 << 20) + 77));
  EXPECT_EQ(B64(makeClientSig("morrowhost", "pelmora", large)),
            "5SNtD0ZgE759w2knneJ+4/lBl896WNu0Uloo6b4QuB0=");
  // Not even the nearest thing to a signature of an empty module passes.
  EXPECT_FALSE(CheckQXClientModuleSignature(empty.c_str(), "OxZNVxpDihjsOb3Mo8Y89ualgW1mpSRgtR4vJQnTjY8="));
  // The salt is product then maker; the second entry point takes them as given
  // (build_identity_test: not the build's). A changed module: sign_tool_test.
  EXPECT_FALSE(CheckClientSig("pelmora", "morrowhost", module, text));
  EXPECT_TRUE(CheckQXClientModuleSignature2("other", "words", module.c_str(),
                                            "ZdT8MmMNeMmw7G3rqE2TU8JrWnrAMX4XbglhGIXhtL4="));
}

TEST(LocalServerSignature, IsTheUnsaltedDigestOfTheBytesInPathDotSig) {
  TempHome home;
  const std::string server = home.WriteHomeFile("opt/server", std::string("#!server\0\1\2", 11));
  const std::string text = "z7b7CTm+6vyrm3opMyQUpiQ4aJ+wvVO63qk+brIdePs=";
  EXPECT_EQ(B64(makeLocalServerSig(server)), text);
  // No program, and so no digest, never passes (a changed one: sign_tool_test).
  EXPECT_FALSE(CheckLocalServerSignature(nullptr));
}

// Installed: config.json heads the list, its "Tessmar" is the base (the slash
// still inserted after an empty one) and the manifest is the browser's. The
// list for a directory is pinned by MakeSig's vector and build_identity_test.
TEST(SigFileList, NamesTheHeaderAndFourCoveredFiles) {
  TempHome home;
  const std::string config = home.WriteConfig("config.json", R"({"Tessmar":""})");
  EXPECT_EQ(GetTessmarSigFileList(""),
            config + "_SS_/libnpTessmarPlugin.so_PS_libnpTessmarPlugin.so_FS_"
                     "/libTessmarFirefox.so_PS_libTessmarFirefox.so_FS_"
                     "/TessmarChrome_PS_TessmarChrome_FS_/etc/opt/chrome/native-messaging-hosts/"
                     "zz.qx.pelmora.morrowhost.json_PS_zz.qx.pelmora.morrowhost.json");
}

TEST(MakeSig, ForADirectoryMatchesTheDocumentedDigest) {
  TempHome home;
  const std::string dir = home.path() + "/inst";
  // SHA-256 of the salt followed by SHA-256(t || SHA-256(t)) for each
  // covered file, t = name || data; the missing manifest contributes its
  // name with no data.
  for (const char* name : {"libnpTessmarPlugin.so", "libTessmarFirefox.so", "TessmarChrome"}) {
    home.WriteHomeFile(std::string("inst/") + name, std::string("\0bytes of ", 10) + name);
  }
  std::string sig_path;
  EXPECT_EQ(B64(makeSig("morrowhost", "pelmora", dir, sig_path)),
            "ZBYjzBOrpkbWcTty9XChTV3ohf+DW/Pfr0hVAYxDytw=");
  // Without a directory and without config.json there is nothing to sign.
  sig_path = "untouched";
  EXPECT_EQ(makeSig("morrowhost", "pelmora", "", sig_path), "");
  EXPECT_EQ(sig_path, "untouched");
}

TEST(InstalledSignature, PassesOnlyForTheSignedFilesAndSaltWords) {
  TempHome home;
  const SignedInstallation installation(home);
  EXPECT_FALSE(CheckSig("pelmora", "morrowhost"));
  // Which files count is MakeSig's vector; passing and a changed one: modhost_test.
  std::remove((home.ConfigDir() + "/config.json").c_str());
  EXPECT_FALSE(CheckModuleSignature());
}

}  // namespace
