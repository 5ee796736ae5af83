// Client module signatures: the salted, stretched digest of the module file
// and its check against the Base64 text of the module's "Sig".
#include <gtest/gtest.h>

#include <string>

#include "signature/openssl_oracle.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleSalt;
using tessmar::testing::OracleStretched;
using tessmar::testing::TempHome;

class ClientSignatureTest : public ::testing::Test {
 protected:
  TempHome home_;
  const std::string module_data_ = std::string("\x7f" "ELF\0\0module", 12);
  const std::string module_ = home_.WriteHomeFile("lib/libreader.so", module_data_);
  const std::string text_ =
      MakeBase64Encode(makeClientSig("morrowhost", "pelmora", module_));
};

TEST_F(ClientSignatureTest, MatchesTheDocumentedDigest) {
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora", module_),
            OracleStretched(OracleSalt("morrowhost", "pelmora") + module_data_));
  EXPECT_EQ(makeClientSig("pelmora", "morrowhost", module_),
            OracleStretched(OracleSalt("pelmora", "morrowhost") + module_data_));
}

TEST_F(ClientSignatureTest, NoSignatureWithoutModuleData) {
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora", ""), "");
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora", home_.path() + "/none.so"),
            "");
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora",
                          home_.WriteHomeFile("lib/empty.so", "")),
            "");
}

TEST_F(ClientSignatureTest, ValidTextPassesWithAtMostATrailingLineBreak) {
  ASSERT_EQ(text_.size(), 44u);
  const char* path = module_.c_str();
  EXPECT_TRUE(CheckQXClientModuleSignature(path, text_.c_str()));
  EXPECT_TRUE(CheckQXClientModuleSignature(path, (text_ + "\n").c_str()));
  EXPECT_TRUE(CheckQXClientModuleSignature(path, (text_ + "\r\n").c_str()));
  EXPECT_FALSE(CheckQXClientModuleSignature(path, (text_ + " ").c_str()));
  EXPECT_FALSE(CheckQXClientModuleSignature(path, (text_ + "\r").c_str()));
  EXPECT_FALSE(CheckQXClientModuleSignature(path, ""));
}

TEST_F(ClientSignatureTest, FailsForAnotherModuleOrOtherSaltWords) {
  std::string changed = module_data_;
  changed.back() ^= 0x20;
  const std::string copy = home_.WriteHomeFile("lib/changed.so", changed);
  EXPECT_FALSE(CheckQXClientModuleSignature(copy.c_str(), text_.c_str()));
  EXPECT_FALSE(CheckClientSig("morrowhost", "pelmora",
                              home_.path() + "/lib/none.so", text_));
  EXPECT_FALSE(CheckClientSig("pelmora", "morrowhost", module_, text_));
  EXPECT_FALSE(CheckClientSig("morrowhost", "Pelmora", module_, text_));
  EXPECT_TRUE(CheckClientSig("morrowhost", "pelmora", module_, text_));
}

TEST_F(ClientSignatureTest, EmptyModuleFileNeverPasses) {
  const std::string empty = home_.WriteHomeFile("lib/empty.so", "");
  // The stretched digest of the salt alone, the nearest thing to a
  // signature of an empty module.
  const std::string text =
      MakeBase64Encode(OracleStretched(OracleSalt("morrowhost", "pelmora")));
  EXPECT_FALSE(CheckQXClientModuleSignature(empty.c_str(), text.c_str()));
  EXPECT_FALSE(CheckQXClientModuleSignature(empty.c_str(), ""));
}

TEST_F(ClientSignatureTest, SecondFormWithThisBuildsWordsAnswersLikeTheFirst) {
  const std::string other =
      MakeBase64Encode(makeClientSig("other", "words", module_));
  const std::string none = home_.path() + "/lib/none.so";
  const std::pair<std::string, std::string> calls[] = {
      {module_, text_}, {module_, text_ + "\n"}, {module_, text_ + " "},
      {module_, other}, {none, text_},           {"", ""},
  };
  for (const auto& [path, text] : calls) {
    SCOPED_TRACE(path + " / " + text);
    EXPECT_EQ(CheckQXClientModuleSignature2("morrowhost", "pelmora",
                                            path.c_str(), text.c_str()),
              CheckQXClientModuleSignature(path.c_str(), text.c_str()));
  }
  EXPECT_TRUE(CheckQXClientModuleSignature2("other", "words", module_.c_str(),
                                            other.c_str()));
}

}  // namespace
