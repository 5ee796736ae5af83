// Replies and requests of the module SDK: the JSON RapidJSON writes for
// every kind of value, and the request members as the host looks them up.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "tessmar/module.hpp"

namespace {

TEST(SdkReplyTest, ValuesAreWrittenAsJson) {
  const std::string control("a\"b\\c\n\x01\x1f/\xc3\xa9", 12);
  const tessmar::Reply reply = {
      {"text", control},
      {"numbers", tessmar::Value::array({-1, std::numeric_limits<std::uint64_t>::max(), 0.5})},
      {"flags", tessmar::Value::array({true, false, nullptr})},
      {"nested", {{"empty", tessmar::Value::array({})}, {"k", "v"}}}};
  ASSERT_TRUE(reply.answered());
  EXPECT_EQ(reply.json(),
            R"({"text":"a\"b\\c\n\u0001\u001F/)" "\xc3\xa9" R"(\u0000",)"
            R"("numbers":[-1,18446744073709551615,0.5],"flags":[true,false,null],)"
            R"("nested":{"empty":[],"k":"v"}})");
  EXPECT_FALSE(tessmar::no_answer.answered());
  EXPECT_FALSE(tessmar::Reply{}.answered());
}

TEST(SdkReplyTest, RequestMembersFirstMatchAndDefaults) {
  const tessmar::Request request(
      nullptr, "9",
      R"({"callback":"cb","tabid":"t1","n":5,"callback":"second","s":"x\u0000y"})");
  EXPECT_EQ(request.origin(), "");
  EXPECT_EQ(request.id(), "9");
  EXPECT_EQ(request.callback(), "cb");
  EXPECT_EQ(request.tabid(), "t1");
  EXPECT_EQ(request.string("n"), "");  // not a string
  EXPECT_EQ(request.string("s"), std::string_view("x\0y", 3));
  ASSERT_NE(request.member("n"), nullptr);
  EXPECT_EQ(request.member("n")->u.integer, 5);
  EXPECT_EQ(request.member("absent"), nullptr);
  // The host's tab argument wins over the member.
  EXPECT_EQ(tessmar::Request("o", "1", R"({"tabid":"m"})", "host").tabid(), "host");
  // Text that is not a JSON object has no members.
  EXPECT_EQ(tessmar::Request("o", "1", "[1]").member("0"), nullptr);
}

}  // namespace
