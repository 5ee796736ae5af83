// The byte-string helpers under every signature scheme: one-shot digests,
// Base64, whole-file reads and writes, replacement, splitting, and the
// ten-round stretched digest.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "signature/openssl_oracle.h"
#include "signature/stretched_digest.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleSha256;
using Pieces = std::vector<std::string>;

// Bytes 0..255 repeated: NULs, high bytes, and more than one block.
std::string BinaryData(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7);
  return data;
}

TEST(Digests, MatchOpenSslAndStretchedDigestMatchesTheTenRoundFormula) {
  for (const std::string& data : {std::string("abc"), std::string("morrowhostpelmora"),
                                  BinaryData(1), BinaryData(64), BinaryData(4096)}) {
    SCOPED_TRACE(data.size());
    EXPECT_EQ(MakeDigestSHA256(data), OracleSha256(data));
    EXPECT_EQ(MakeDigestMD5(data), tessmar::testing::OracleMd5(data));
    EXPECT_EQ(tessmar::MakeStretchedDigest(data), tessmar::testing::OracleStretched(data));
  }
  // Empty input gives no digest at all, not the digest of the empty message.
  EXPECT_EQ(MakeDigestSHA256(""), "");
  EXPECT_EQ(MakeDigestMD5(""), "");
  EXPECT_EQ(tessmar::MakeStretchedDigest(""), "");
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
  tessmar::testing::TempHome home;
  const std::string data = BinaryData(5000);
  const std::string path = home.WriteHomeFile("data.bin", data);
  EXPECT_EQ(ReadFileData(path), data);
  EXPECT_EQ(ReadFileData(home.WriteHomeFile("empty.bin", "")), "");
  EXPECT_EQ(ReadFileData(home.path() + "/missing.bin"), "");
  EXPECT_EQ(ReadFileData(""), "");

  for (const std::string& written : {BinaryData(700), std::string("\0z", 2), std::string()}) {
    EXPECT_TRUE(WriteFileData(path, written));
    EXPECT_EQ(tessmar::testing::ReadFile(path), written);
  }
  EXPECT_FALSE(WriteFileData(home.path() + "/no/such/dir/out.bin", "x"));
  EXPECT_FALSE(WriteFileData(home.path(), "x"));  // a directory
}

TEST(ReplaceString, ReplacesLeftToRightWithoutRescanningInsertedText) {
  EXPECT_EQ(ReplaceString("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceString("aaaaa", "aa", "b"), "bba");
  EXPECT_EQ(ReplaceString("x_PS_y_PS_", "_PS_", ""), "xy");
  EXPECT_EQ(ReplaceString("abc", "d", "e"), "abc");
  EXPECT_EQ(ReplaceString(std::string("a\0b", 3), std::string("\0", 1), "-"), "a-b");
}

TEST(SpilteFileData, KeepsOnlyTheNonEmptyPiecesInOrder) {
  const std::pair<std::string, Pieces> cases[] = {
      {"_PS_x_PS_", {"x"}},
      {"x", {"x"}},
      {"a_PS__PS_b_PS_", {"a", "b"}},
      {"a_PS_b_PS_c", {"a", "b", "c"}},
      {"a_PS", {"a_PS"}},
      {"", {}},
      {"_PS__PS_", {}},
      {std::string("\0a\0_PS_\0", 8), {std::string("\0a\0", 3), std::string("\0", 1)}}};
  for (const auto& [text, pieces] : cases) {
    EXPECT_EQ(SpilteFileData(text, "_PS_"), pieces) << testing::PrintToString(text);
  }
  EXPECT_EQ(SpilteFileData("_SS_path_PS_n", "_SS_"), Pieces{"path_PS_n"});
}

}  // namespace
