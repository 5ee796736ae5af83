// The reply envelope, compared byte for byte: its blanks are irregular on
// purpose and extensions in the field parse exactly this text.
#include <gtest/gtest.h>

#include <string>

#include "tessmar/modhost.h"

namespace {

TEST(ReplyEnvelope, StatusCodesMapToTheirWordsAndEverythingElseToFalse) {
  const struct {
    int code;
    const char* word;
  } cases[] = {{0, "TRUE"},  {1, "FALSE"}, {2, "CANCEL"}, {3, "FALSE"},
               {4, "BLOCK:QX"}, {5, "BLOCK:CLIENT"}, {6, "FALSE"}, {-1, "FALSE"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    EXPECT_EQ(BuildReplyEnvelope("1", "", c.code, "{}", ""),
              std::string("{\"response\": {\"id\": \"1\", \"tabid\":\"\", "
                          "\"status\":\"") +
                  c.word + "\", \"reply\":{}, \"callback\": \"\"}}");
  }
}

TEST(ReplyEnvelope, PiecesAreCopiedUnescapedAndMissingOnesLeftEmpty) {
  const std::string empty =
      "{\"response\": {\"id\": \"9\", \"tabid\":\"t\", \"status\":\"FALSE\", "
      "\"reply\":{}, \"callback\": \"\"}}";
  EXPECT_EQ(BuildReplyEnvelope("9", "t", REPLY_FALSE, nullptr, nullptr), empty);
  EXPECT_EQ(BuildReplyEnvelope("9", "t", REPLY_FALSE, "", ""), empty);
  // A null id gives no envelope at all, an empty one does.
  EXPECT_EQ(BuildReplyEnvelope(nullptr, "t", REPLY_TRUE, "{}", "cb"), "");
  EXPECT_EQ(BuildReplyEnvelope("", "", REPLY_TRUE, nullptr, ""),
            "{\"response\": {\"id\": \"\", \"tabid\":\"\", "
            "\"status\":\"TRUE\", \"reply\":{}, \"callback\": \"\"}}");
  EXPECT_EQ(
      BuildReplyEnvelope("a\"b", "c\\d", REPLY_TRUE, "[1,\"x\"]", "e\nf"),
      "{\"response\": {\"id\": \"a\"b\", \"tabid\":\"c\\d\", "
      "\"status\":\"TRUE\", \"reply\":[1,\"x\"], \"callback\": \"e\nf\"}}");
}

}  // namespace
