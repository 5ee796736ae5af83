// The byte-string helpers under every signature scheme: one-shot digests,
// Base64, whole-file reads and writes, replacement, splitting, and the
// ten-round stretched digest.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "signature/openssl_oracle.h"
#include "signature/stretched_digest.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleMd5;
using tessmar::testing::OracleSha256;
using tessmar::testing::OracleStretched;
using tessmar::testing::TempHome;
using Pieces = std::vector<std::string>;

// Bytes 0..255 repeated: NULs, high bytes, and more than one block.
std::string BinaryData(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7);
  return data;
}

TEST(Digests, AreRawBytesOfTheWholeInput) {
  for (const std::string& data :
       {std::string("abc"), BinaryData(1), BinaryData(64), BinaryData(1000)}) {
    SCOPED_TRACE(data.size());
    EXPECT_EQ(MakeDigestSHA256(data), OracleSha256(data));
    EXPECT_EQ(MakeDigestMD5(data), OracleMd5(data));
  }
}

TEST(Digests, OfTheEmptyStringAreEmptyNotTheEmptyMessageDigest) {
  EXPECT_EQ(MakeDigestSHA256(""), "");
  EXPECT_EQ(MakeDigestMD5(""), "");
}

TEST(Base64, EncodesOnOneLineWithPaddingAndRoundTrips) {
  EXPECT_EQ(MakeBase64Encode(""), "");
  EXPECT_EQ(MakeBase64Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(MakeBase64Encode("fooba"), "Zm9vYmE=");
  const std::string digest = OracleSha256("x");
  const std::string text = MakeBase64Encode(digest);
  EXPECT_EQ(text.size(), 44u);
  EXPECT_EQ(text[43], '=');
  EXPECT_NE(text[42], '=') << "32 bytes end in exactly one '='";
  EXPECT_EQ(MakeBase64Decode(text), digest);
  const std::string long_data = BinaryData(300);  // no line breaks however long
  EXPECT_EQ(MakeBase64Encode(long_data).find('\n'), std::string::npos);
  EXPECT_EQ(MakeBase64Decode(MakeBase64Encode(long_data)), long_data);
}

TEST(Base64, DecodeToleratesOnlyALineBreakAfterTheText) {
  const std::string digest = OracleSha256("y");
  const std::string text = MakeBase64Encode(digest);
  EXPECT_EQ(MakeBase64Decode(text + "\n"), digest);
  EXPECT_EQ(MakeBase64Decode(text + "\r\n"), digest);
  EXPECT_EQ(MakeBase64Decode(text + " "), "");
  EXPECT_EQ(MakeBase64Decode(text + "\r"), "");
  EXPECT_EQ(MakeBase64Decode(text.substr(0, 43)), "");  // not a multiple of 4
  EXPECT_EQ(MakeBase64Decode(""), "");
}

TEST(FileData, ReadGivesTheWholeFileOrEmpty) {
  TempHome home;
  const std::string data = BinaryData(5000);
  const std::string path = home.WriteHomeFile("data.bin", data);
  EXPECT_EQ(ReadFileData(path), data);
  EXPECT_EQ(ReadFileData(home.WriteHomeFile("empty.bin", "")), "");
  EXPECT_EQ(ReadFileData(home.path() + "/missing.bin"), "");
  EXPECT_EQ(ReadFileData(""), "");
}

TEST(FileData, WriteCreatesOrTruncatesAndReportsFailure) {
  TempHome home;
  const std::string path = home.path() + "/out.bin";
  const std::string data = BinaryData(700);
  EXPECT_TRUE(WriteFileData(path, data));
  EXPECT_EQ(tessmar::testing::ReadFile(path), data);
  EXPECT_TRUE(WriteFileData(path, std::string("\0z", 2)));
  EXPECT_EQ(tessmar::testing::ReadFile(path), std::string("\0z", 2));
  EXPECT_TRUE(WriteFileData(path, ""));
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 0);
  EXPECT_FALSE(WriteFileData(home.path() + "/no/such/dir/out.bin", "x"));
  EXPECT_FALSE(WriteFileData(home.path(), "x"));  // a directory
}

TEST(ReplaceString, ReplacesLeftToRightWithoutRescanningInsertedText) {
  EXPECT_EQ(ReplaceString("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceString("aaaaa", "aa", "b"), "bba");
  EXPECT_EQ(ReplaceString("x_PS_y_PS_", "_PS_", ""), "xy");
  EXPECT_EQ(ReplaceString("abc", "d", "e"), "abc");
  EXPECT_EQ(ReplaceString(std::string("a\0b", 3), std::string("\0", 1), "-"),
            "a-b");
}

TEST(SpilteFileData, KeepsOnlyTheNonEmptyPiecesInOrder) {
  EXPECT_EQ(SpilteFileData("_PS_x_PS_", "_PS_"), Pieces{"x"});
  EXPECT_EQ(SpilteFileData("x", "_PS_"), Pieces{"x"});
  EXPECT_EQ(SpilteFileData("a_FS__FS_b_FS_", "_FS_"), (Pieces{"a", "b"}));
  EXPECT_EQ(SpilteFileData("a_FS_b_FS_c", "_FS_"), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(SpilteFileData("_SS_path_PS_n", "_SS_"), Pieces{"path_PS_n"});
  EXPECT_EQ(SpilteFileData("a_FS", "_FS_"), Pieces{"a_FS"});
  EXPECT_EQ(SpilteFileData("", "_FS_"), Pieces{});
  EXPECT_EQ(SpilteFileData("_FS__FS_", "_FS_"), Pieces{});
  const std::string binary("\0a\0_FS_\0", 8);
  EXPECT_EQ(SpilteFileData(binary, "_FS_"),
            (Pieces{std::string("\0a\0", 3), std::string("\0", 1)}));
}

TEST(StretchedDigest, MatchesTheTenRoundFormula) {
  for (const std::string& seed :
       {std::string("s"), std::string("morrowhostpelmora"), BinaryData(4096)}) {
    SCOPED_TRACE(seed.size());
    const std::string digest = tessmar::MakeStretchedDigest(seed);
    EXPECT_EQ(digest.size(), 32u);
    EXPECT_EQ(digest, OracleStretched(seed));
  }
  EXPECT_EQ(tessmar::MakeStretchedDigest(""), "");
}

}  // namespace
