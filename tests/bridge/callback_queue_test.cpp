// The callback queue, tsmx_Pop/tsmx_Free and the bridge's host table. The
// queue lives for the whole process: each test drains it first.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "bridge/bridge_state.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "tessmar/bridge.h"

namespace {

using tessmar::bridge::g_bridgeHostFuncs;
using tessmar::bridge::PushSetCallbackReply;
using tessmar::bridge::QueueCallback;
using tessmar::testing::PopText;

class CallbackQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    while (!PopText().empty()) {
    }
  }
};

// PushSetCallbackReply is the SendCallback of the bridge's host table (its
// version, size and revision are checked where a module receives it, in
// invoke_routing_test). Pieces unescaped; no reply is {}; no tab or callback
// queues nothing. The response callback is stored and never called.
TEST_F(CallbackQueue, SetCallbackMessagesAreBuiltByteForByte) {
  EXPECT_EQ(g_bridgeHostFuncs.Alloc, &std::malloc);
  EXPECT_EQ(g_bridgeHostFuncs.Free, &std::free);
  tsmx_SetResponseCallback(reinterpret_cast<void*>(&std::abort));
  const int marker = 0;
  const std::string head = "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"";
  const struct { const char *tabid, *callback, *reply; std::string message; } cases[] = {
      {"t", "c", nullptr, head + "t\", \"callback\":\"c\", \"reply\":{}}}"},
      {"t", "c", "", head + "t\", \"callback\":\"c\", \"reply\":{}}}"},
      {"a\"b", "c\\d", "\"raw\"",
       head + "a\"b\", \"callback\":\"c\\d\", \"reply\":\"raw\"}}"},
      {nullptr, "c", "{}", ""}, {"t", nullptr, "{}", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(PushSetCallbackReply(c.tabid, &marker, c.callback, c.reply), 0);
    EXPECT_EQ(PopText(), c.message);
    EXPECT_EQ(PopText(), "");
  }
  tsmx_SetResponseCallback(nullptr);
}

// Messages come out in order, each ending at its first NUL. The descriptor's
// level follows the queue, also for what was queued before it was first asked
// for, and also across a message that pops as "" (it is not the empty queue).
TEST_F(CallbackQueue, MessagesComeOutInOrderAndTheDescriptorFollowsThem) {
  const auto readable = [] {
    pollfd wait{tsmx_CallbackDescriptor(), POLLIN, 0};
    return poll(&wait, 1, 0) == 1;
  };
  QueueCallback("before");
  const int fd = tsmx_CallbackDescriptor();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fd, tsmx_CallbackDescriptor());
  EXPECT_TRUE(readable());
  QueueCallback(std::string("\0hidden", 7));
  QueueCallback(std::string("ab\0cd", 5));
  EXPECT_EQ(PopText(), "before");
  EXPECT_TRUE(readable());
  EXPECT_EQ(PopText(), "");
  EXPECT_TRUE(readable());
  EXPECT_EQ(PopText(), "ab");
  EXPECT_FALSE(readable());
  EXPECT_EQ(PopText(), "");  // a fresh empty text (never NULL) each time
  EXPECT_EQ(PopText(), "");
  tsmx_Free(nullptr);  // allowed, and does nothing
  PushSetCallbackReply("t", nullptr, "c", "{}");
  EXPECT_TRUE(readable());
}

// Module threads may still call back while the process runs its exit
// handlers; the queue and its lock must outlive them.
TEST(CallbackQueueLifetime, OutlivesProducersAtProcessExit) {
  EXPECT_TRUE(tessmar::testing::RunIsolated([] {
    std::thread([] {
      for (;;) {
        PushSetCallbackReply("t", nullptr, "c", "{}");
        tsmx_Free(tsmx_Pop());
      }
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::exit(0);
  }));
}

}  // namespace
