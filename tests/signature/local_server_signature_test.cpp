// Local server signatures: the unsalted stretched digest of the program,
// stored as Base64 text in the program's path followed by ".sig".
#include <gtest/gtest.h>

#include <string>

#include "signature/openssl_oracle.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleStretched;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;

class LocalServerSignatureTest : public ::testing::Test {
 protected:
  TempHome home_;
  const std::string data_ = std::string("#!server\0\1\2", 11);
  const std::string server_ = home_.WriteHomeFile("opt/server", data_);
  const std::string text_ = MakeBase64Encode(makeLocalServerSig(server_));
};

TEST_F(LocalServerSignatureTest, IsTheStretchedDigestOfTheBytesAlone) {
  EXPECT_EQ(makeLocalServerSig(server_), OracleStretched(data_));
  // The path is not mixed in: a copy elsewhere has the same signature.
  const std::string copy = home_.WriteHomeFile("elsewhere/copy", data_);
  EXPECT_EQ(makeLocalServerSig(copy), makeLocalServerSig(server_));
  WriteFile(copy + ".sig", text_);
  EXPECT_TRUE(CheckLocalServerSignature(copy.c_str()));
  EXPECT_EQ(makeLocalServerSig(""), "");
}

TEST_F(LocalServerSignatureTest, SigFileMayEndInOneLineBreakOnly) {
  struct Case {
    const char* label;
    std::string sig_file;
    bool expected;
  };
  const Case cases[] = {
      {"text alone", text_, true},
      {"line feed", text_ + "\n", true},
      {"CR LF", text_ + "\r\n", true},
      {"trailing space", text_ + " ", false},
      {"lone CR", text_ + "\r", false},
      {"empty", "", false},
      {"signature of other bytes",
       MakeBase64Encode(OracleStretched(data_ + "x")), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    WriteFile(server_ + ".sig", c.sig_file);
    EXPECT_EQ(CheckLocalServerSignature(server_.c_str()), c.expected);
    EXPECT_EQ(CheckLocalServerSig(server_), c.expected);
  }
}

TEST_F(LocalServerSignatureTest, FailsForAChangedMissingOrEmptyProgram) {
  WriteFile(server_ + ".sig", text_);
  ASSERT_TRUE(CheckLocalServerSig(server_));
  std::string changed = data_;
  changed[0] ^= 1;
  WriteFile(server_, changed);
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

TEST_F(LocalServerSignatureTest, MissingSigFileFails) {
  EXPECT_FALSE(CheckLocalServerSig(server_));
}

TEST_F(LocalServerSignatureTest, PathEndingInSigIsCheckedAgainstSigSig) {
  const std::string sig_file = server_ + ".sig";
  WriteFile(sig_file, text_);
  ASSERT_TRUE(CheckLocalServerSig(server_));
  // Named as a program, the signature file is checked against its own ".sig".
  EXPECT_FALSE(CheckLocalServerSig(sig_file));
  WriteFile(sig_file + ".sig", MakeBase64Encode(makeLocalServerSig(sig_file)));
  EXPECT_TRUE(CheckLocalServerSig(sig_file));
}

}  // namespace
