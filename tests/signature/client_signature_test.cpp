// Client module signatures: the salted, stretched digest of the module file
// and its check against the Base64 text of the module's "Sig".
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "signature/openssl_oracle.h"
#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::OracleSalt;
using tessmar::testing::OracleStretched;

class ClientSignatureTest : public ::testing::Test {
 protected:
  tessmar::testing::TempHome home_;
  const std::string data_ = std::string("\x7f" "ELF\0\0module", 12);
  const std::string module_ = home_.WriteHomeFile("lib/libreader.so", data_);
  const std::string none_ = home_.path() + "/lib/none.so";
  const std::string empty_ = home_.WriteHomeFile("lib/empty.so", "");
  const std::string text_ = MakeBase64Encode(makeClientSig("morrowhost", "pelmora", module_));
};

TEST_F(ClientSignatureTest, MatchesTheDocumentedDigestAndNeedsModuleData) {
  EXPECT_EQ(makeClientSig("morrowhost", "pelmora", module_),
            OracleStretched(OracleSalt("morrowhost", "pelmora") + data_));
  EXPECT_EQ(makeClientSig("pelmora", "morrowhost", module_),
            OracleStretched(OracleSalt("pelmora", "morrowhost") + data_));
  for (const std::string& path : {std::string(), none_, empty_}) {
    EXPECT_EQ(makeClientSig("morrowhost", "pelmora", path), "") << path;
  }
}

TEST_F(ClientSignatureTest, CheckAcceptsOnlyTheTextOfThisModuleAndSaltWords) {
  ASSERT_EQ(text_.size(), 44u);
  std::string changed = data_;
  changed.back() ^= 0x20;
  const std::string copy = home_.WriteHomeFile("lib/changed.so", changed);
  // The stretched digest of the salt alone, the nearest thing to a
  // signature of an empty module.
  const std::string salt_only = MakeBase64Encode(OracleStretched(OracleSalt("morrowhost", "pelmora")));
  const std::tuple<std::string, std::string, bool> cases[] = {
      {module_, text_, true},          {module_, text_ + "\n", true},
      {module_, text_ + "\r\n", true}, {module_, text_ + " ", false},
      {module_, text_ + "\r", false},  {module_, "", false},
      {copy, text_, false},            {none_, text_, false},
      {empty_, salt_only, false},      {empty_, "", false},
      {"", "", false}};
  for (const auto& [path, text, expected] : cases) {
    SCOPED_TRACE(path + " / " + text);
    EXPECT_EQ(CheckQXClientModuleSignature(path.c_str(), text.c_str()), expected);
    EXPECT_EQ(CheckClientSig("morrowhost", "pelmora", path, text), expected);
    // The second form, given this build's words, answers like the first.
    EXPECT_EQ(CheckQXClientModuleSignature2("morrowhost", "pelmora", path.c_str(), text.c_str()),
              expected);
  }
  EXPECT_FALSE(CheckClientSig("pelmora", "morrowhost", module_, text_));
  EXPECT_FALSE(CheckClientSig("morrowhost", "Pelmora", module_, text_));
  const std::string other = MakeBase64Encode(makeClientSig("other", "words", module_));
  EXPECT_FALSE(CheckQXClientModuleSignature2("morrowhost", "pelmora", module_.c_str(), other.c_str()));
  EXPECT_TRUE(CheckQXClientModuleSignature2("other", "words", module_.c_str(), other.c_str()));
}

}  // namespace
