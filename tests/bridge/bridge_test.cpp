// The bridge without a host: the callback queue, tsmx_Pop/tsmx_Free, the
// bridge's host table, and tsmx_Invoke's version queries and in-process
// module host. The queue lives for the whole process: each queue test leaves
// it empty.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "bridge/bridge_state.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

namespace {

using namespace tessmar::testing;
using tessmar::bridge::g_bridgeHostFuncs;
using tessmar::bridge::PushSetCallbackReply;
using tessmar::bridge::QueueCallback;
using tessmar::bridge::SetCallbackMessage;

// PushSetCallbackReply is the SendCallback of the bridge's host table (its
// version, size and revision are checked where a module receives it, below).
// Pieces unescaped; no reply is {}; no tab or callback queues nothing. The
// response callback is stored and never called.
TEST(CallbackQueue, SetCallbackMessagesAreBuiltByteForByte) {
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
TEST(CallbackQueue, MessagesComeOutInOrderAndTheDescriptorFollowsThem) {
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
  tsmx_Free(tsmx_Pop());  // the queue lives on: leave it empty
}

// Module threads may still call back while the process runs its exit
// handlers; the queue and its lock must outlive them.
TEST(CallbackQueueLifetime, OutlivesProducersAtProcessExit) {
  EXPECT_TRUE(RunIsolated([] {
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

TEST(InvokeRouting, InitRequestsAreAnsweredFromTheConfigFilesOthersByTheModuleHost) {
  TempHome home;
  const std::string library = home.WriteHomeFile("lib/libclient.so", "lib");
  home.WriteConfig("config.json", R"({"Version":"2.5.0.1"})");
  home.WriteConfig("morrowhost.json", ModuleJson("morrowhost", library, "s", "3.1.0.7"));
  home.WriteConfig("other.json", ModuleJson("other", library, "s", "1.2.3.4"));
  const std::string clients =
      R"(, "qx":"2.5.0.1","m":[{"name":"other","version":"1.2.3.4"})"
      R"(,{"name":"missing","version":""}]})";
  const std::string versions = R"({"init":"get_versions","m":"other,missing")";
  const struct { std::string request, answer; } cases[] = {
      {R"({"init":"get_version"})", R"("version: 3.1.0.7")"},
      {R"({"init":"get_version","module":"other"})", R"("version: 1.2.3.4")"},
      // reload only when the extension expects a newer, comparable version
      {versions + R"(,"pv":"2.5.0.1"})", R"({"reload":false)" + clients},
      {versions + R"(,"pv":"2.5.0.2"})", R"({"reload":true)" + clients},
      // other values answer "" and never reach the echo below
      {R"({"init":"get_Version","cmd":"native","id":"1","echo":true})", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(InvokeText(c.request), c.answer);
  }
  // Other keys and types reach the module host's echo.
  for (const std::string request : {R"({"INIT":"get_version","cmd":"native","id":"1","echo":true})",
                                    R"({"init":5,"cmd":"native","id":"1","echo":true})"}) {
    EXPECT_EQ(InvokeText(request), R"({"response": {"id": "1", "tabid":"", "status":"TRUE", )"
                                   R"("reply":{"reply":{"status":"0", "reply":)" + request +
                                       R"(}}, "callback": ""}})");
  }
  // No answer from the module host gives NULL.
  EXPECT_EQ(InvokeText("not json"), std::nullopt);
  EXPECT_EQ(tsmx_Invoke(nullptr), nullptr);
}

// Modules loaded in-process get the bridge's host table.
TEST(InvokeRouting, InProcessModulesGetTheBridgesHostTable) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("x", FIXTURE_RECORDING_A_PATH);
    EXPECT_EQ(InvokeText(R"({"cmd":"native","id":"2","module":"x","sendCallback":1})"),
              BuildReplyEnvelope("2", "", REPLY_TRUE, R"({"from":"a","call":1})", ""));
    EXPECT_EQ(s.Log().at(1), SetHostFuncsLine("a", &tessmar::bridge::g_bridgeHostFuncs));
    EXPECT_EQ(PopText(), SetCallbackMessage("rec-tab", "rec-cb", R"({"from":"a"})"));
    EXPECT_EQ(PopText(), "");
  }));
}

}  // namespace
