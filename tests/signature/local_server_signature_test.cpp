// Local server signatures: the unsalted stretched digest of the program,
// stored as Base64 text in the program's path followed by ".sig".
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "signature/openssl_oracle.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleStretched;
using tessmar::testing::WriteFile;

class LocalServerSignatureTest : public ::testing::Test {
 protected:
  tessmar::testing::TempHome home_;
  const std::string data_ = std::string("#!server\0\1\2", 11);
  const std::string server_ = home_.WriteHomeFile("opt/server", data_);
  const std::string text_ = MakeBase64Encode(makeLocalServerSig(server_));
};

TEST_F(LocalServerSignatureTest, IsTheStretchedDigestOfTheBytesAlone) {
  EXPECT_EQ(makeLocalServerSig(server_), OracleStretched(data_));
  EXPECT_EQ(makeLocalServerSig(""), "");
  // The path is not mixed in: a copy elsewhere passes with the same text.
  const std::string copy = home_.WriteHomeFile("elsewhere/copy", data_);
  WriteFile(copy + ".sig", text_);
  EXPECT_TRUE(CheckLocalServerSignature(copy.c_str()));
}

TEST_F(LocalServerSignatureTest, SigFileMayEndInOneLineBreakOnly) {
  EXPECT_FALSE(CheckLocalServerSig(server_));  // no .sig file yet
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"text alone", text_, true},
      {"line feed", text_ + "\n", true},
      {"CR LF", text_ + "\r\n", true},
      {"trailing space", text_ + " ", false},
      {"lone CR", text_ + "\r", false},
      {"empty", "", false},
      {"signature of other bytes", MakeBase64Encode(OracleStretched(data_ + "x")), false},
  };
  for (const auto& [label, sig_file, expected] : cases) {
    SCOPED_TRACE(label);
    WriteFile(server_ + ".sig", sig_file);
    EXPECT_EQ(CheckLocalServerSignature(server_.c_str()), expected);
    EXPECT_EQ(CheckLocalServerSig(server_), expected);
  }
}

TEST_F(LocalServerSignatureTest, FailsForAChangedMissingOrEmptyProgram) {
  WriteFile(server_ + ".sig", text_);
  ASSERT_TRUE(CheckLocalServerSig(server_));
  WriteFile(server_, data_ + "x");
  EXPECT_FALSE(CheckLocalServerSig(server_));
  // An empty program fails whatever its signature file holds.
  WriteFile(server_, "");
  for (const std::string& stored : {text_, std::string(), MakeBase64Encode("")}) {
    WriteFile(server_ + ".sig", stored);
    EXPECT_FALSE(CheckLocalServerSig(server_));
  }
  EXPECT_FALSE(CheckLocalServerSig(home_.path() + "/opt/none"));
  EXPECT_FALSE(CheckLocalServerSignature(""));
}

TEST_F(LocalServerSignatureTest, PathEndingInSigIsCheckedAgainstSigSig) {
  const std::string sig_file = server_ + ".sig";
  WriteFile(sig_file, text_);
  ASSERT_TRUE(CheckLocalServerSig(server_));
  EXPECT_FALSE(CheckLocalServerSig(sig_file));
  WriteFile(sig_file + ".sig", MakeBase64Encode(makeLocalServerSig(sig_file)));
  EXPECT_TRUE(CheckLocalServerSig(sig_file));
}

}  // namespace
