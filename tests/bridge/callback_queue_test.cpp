// The callback queue: the "setcallback" messages of in-process modules,
// tsmx_Pop, tsmx_Free and the bridge's host-function table. The queue lives
// for the whole process, so each test starts by draining it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "bridge/bridge_state.h"
#include "bridge/set_callback_message.h"
#include "support/bridge_calls.h"
#include "tessmar/bridge.h"

namespace {

using tessmar::bridge::g_bridgeHostFuncs;
using tessmar::bridge::PushSetCallbackReply;
using tessmar::bridge::QueueCallback;
using tessmar::testing::DrainQueue;
using tessmar::testing::PopText;

class CallbackQueue : public ::testing::Test {
 protected:
  void SetUp() override { DrainQueue(); }
};

TEST_F(CallbackQueue, PopOnAnEmptyQueueGivesAFreshEmptyTextEveryTime) {
  for (int i = 0; i < 3; ++i) {
    char* text = tsmx_Pop();
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    tsmx_Free(text);
  }
  tsmx_Free(nullptr);  // allowed, and does nothing
}

TEST_F(CallbackQueue, SetCallbackMessageIsBuiltByteForByte) {
  const int marker = 0;
  EXPECT_EQ(PushSetCallbackReply("tab1", &marker, "onData", "{\"v\":[1,2]}"),
            0);
  EXPECT_EQ(PopText(),
            "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"tab1\", "
            "\"callback\":\"onData\", \"reply\":{\"v\":[1,2]}}}");
  EXPECT_EQ(PopText(), "");
}

TEST_F(CallbackQueue, NullOrEmptyReplyIsSentAsAnEmptyObject) {
  const std::string expected =
      "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"t\", "
      "\"callback\":\"c\", \"reply\":{}}}";
  EXPECT_EQ(PushSetCallbackReply("t", nullptr, "c", nullptr), 0);
  EXPECT_EQ(PushSetCallbackReply("t", nullptr, "c", ""), 0);
  EXPECT_EQ(PopText(), expected);
  EXPECT_EQ(PopText(), expected);
}

TEST_F(CallbackQueue, MissingTabOrCallbackQueuesNothing) {
  EXPECT_EQ(PushSetCallbackReply(nullptr, nullptr, "c", "{}"), 0);
  EXPECT_EQ(PushSetCallbackReply("t", nullptr, nullptr, "{}"), 0);
  EXPECT_EQ(PushSetCallbackReply(nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(PopText(), "");
}

TEST_F(CallbackQueue, PiecesAreCopiedWithoutEscaping) {
  PushSetCallbackReply("a\"b", nullptr, "c\\d", "\"raw\"");
  EXPECT_EQ(PopText(),
            "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"a\"b\", "
            "\"callback\":\"c\\d\", \"reply\":\"raw\"}}");
}

TEST_F(CallbackQueue, MessagesComeOutInTheOrderTheyWereQueued) {
  QueueCallback("first from the host");
  PushSetCallbackReply("t", nullptr, "c", "2");
  QueueCallback("third from the host");
  for (int i = 0; i < 1000; ++i) QueueCallback(std::to_string(i));

  EXPECT_EQ(PopText(), "first from the host");
  EXPECT_EQ(PopText(),
            "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"t\", "
            "\"callback\":\"c\", \"reply\":2}}");
  EXPECT_EQ(PopText(), "third from the host");
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(PopText(), std::to_string(i));
  EXPECT_EQ(PopText(), "");
}

TEST_F(CallbackQueue, PoppedTextEndsAtTheMessagesFirstNul) {
  QueueCallback(std::string("ab\0cd", 5));
  QueueCallback(std::string("\0hidden", 7));
  QueueCallback("after");
  EXPECT_EQ(PopText(), "ab");
  EXPECT_EQ(PopText(), "");  // popped, though it looks like an empty queue
  EXPECT_EQ(PopText(), "after");
}

TEST_F(CallbackQueue, BridgeHostTableQueuesThroughPushSetCallbackReply) {
  EXPECT_EQ(g_bridgeHostFuncs.version, 1u);
  EXPECT_EQ(g_bridgeHostFuncs.size, 48u);
  EXPECT_EQ(g_bridgeHostFuncs.revision, 2u);
  EXPECT_EQ(g_bridgeHostFuncs.Alloc, &std::malloc);
  EXPECT_EQ(g_bridgeHostFuncs.Free, &std::free);
  EXPECT_EQ(g_bridgeHostFuncs.SendCallback, &PushSetCallbackReply);
}

TEST_F(CallbackQueue, ResponseCallbackIsStoredButNeverCalled) {
  // Calling this would end the test program.
  tsmx_SetResponseCallback(reinterpret_cast<void*>(&std::abort));
  PushSetCallbackReply("t", nullptr, "c", "{}");
  EXPECT_NE(PopText(), "");
  EXPECT_EQ(PopText(), "");
  tsmx_SetResponseCallback(nullptr);
}

}  // namespace
