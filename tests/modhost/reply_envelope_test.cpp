// The reply envelope, compared byte for byte: its blanks are irregular on
// purpose and extensions in the field parse exactly this text.
#include <gtest/gtest.h>

#include <string>

#include "tessmar/modhost.h"

namespace {

std::string Expected(const char* id, const char* tabid, const char* status, const char* reply,
                     const char* callback) {
  return std::string(R"({"response": {"id": ")") + id + R"(", "tabid":")" + tabid +
         R"(", "status":")" + status + R"(", "reply":)" + reply + R"(, "callback": ")" +
         callback + R"("}})";
}

TEST(ReplyEnvelope, StatusCodesMapToTheirWordsAndEverythingElseToFalse) {
  const char* const words[] = {"TRUE", "FALSE", "CANCEL", "FALSE", "BLOCK:QX", "BLOCK:CLIENT"};
  for (int code = -1; code <= 6; ++code) {
    EXPECT_EQ(BuildReplyEnvelope("1", "", code, "{}", ""),
              Expected("1", "", code < 0 || code > 5 ? "FALSE" : words[code], "{}", ""))
        << code;
  }
}

TEST(ReplyEnvelope, PiecesAreCopiedUnescapedAndMissingOnesLeftEmpty) {
  EXPECT_EQ(BuildReplyEnvelope("9", "t", REPLY_FALSE, nullptr, nullptr),
            Expected("9", "t", "FALSE", "{}", ""));
  EXPECT_EQ(BuildReplyEnvelope("", nullptr, REPLY_TRUE, "", ""),
            Expected("", "", "TRUE", "{}", ""));
  EXPECT_EQ(BuildReplyEnvelope(nullptr, "t", REPLY_TRUE, "{}", "cb"), "");
  EXPECT_EQ(BuildReplyEnvelope("a\"b", "c\\d", REPLY_TRUE, "[1,\"x\"]", "e\nf"),
            Expected("a\"b", "c\\d", "TRUE", "[1,\"x\"]", "e\nf"));
}

}  // namespace
