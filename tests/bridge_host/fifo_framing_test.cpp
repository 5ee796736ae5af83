// The FIFO framing between tsmx_Invoke, the callback reader and a host,
// checked byte for byte against a scripted host.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bridge_host/host_fixture.h"
#include "bridge_host/scripted_host.h"
#include "tessmar/bridge.h"

namespace tessmar::testing {
namespace {

using namespace std::string_literals;

std::string Length(uint32_t n) {
  return std::string(reinterpret_cast<const char*>(&n), 4);
}

// Starts the scripted host in a scenario child.
void StartScriptedHost(const TempHome& home, const HostScript& script) {
  setenv(kScriptVariable, script.text().c_str(), 1);
  setenv(kRecordVariable, home.path().c_str(), 1);
  ASSERT_EQ(0, tsmx_Startup());
}

class BridgeFifoTest : public ::testing::Test {
 protected:
  void SetUp() override { InstallHost(home_, SelfExecutable()); }
  std::string Recorded() const { return ReadFile(home_.path() + "/input"); }
  TempHome home_;
};

TEST_F(BridgeFifoTest, ForwardsTextUnchangedAndEndsWithFourZeroBytes) {
  RunScenario([&] {
    StartScriptedHost(home_, HostScript().Read().Reply("pong").Drain());
    EXPECT_EQ("pong", InvokeText("hello"));  // not JSON: forwarded all the same
    tsmx_End();
  });
  EXPECT_EQ("\x05\0\0\0hello"s + "\0\0\0\0"s, Recorded());
}

TEST_F(BridgeFifoTest, ZeroLengthReplyIsNullAndANulCutsTheBody) {
  RunScenario([&] {
    StartScriptedHost(home_, HostScript()
                                 .Read().Reply("")
                                 .Read().Reply("ab\0cd"s)
                                 .Read().Reply("after")
                                 .Drain());
    EXPECT_EQ("<null>", InvokeText("{\"q\":1}"));
    EXPECT_EQ("ab", InvokeText("{\"q\":2}"));
    EXPECT_EQ("after", InvokeText("{\"q\":3}"));  // the pipes stayed in step
    tsmx_End();
  });
}

TEST_F(BridgeFifoTest, ReplyBodyInTwoPiecesIsNull) {
  RunScenario([&] {
    StartScriptedHost(home_, HostScript()
                                 .Read()
                                 .Raw(Length(10) + "abc")
                                 .SleepMs(300)
                                 .Raw("defghij")
                                 .Drain());
    EXPECT_EQ("<null>", InvokeText("{}"));
    tsmx_End();
  });
}

TEST_F(BridgeFifoTest, CallbacksArePoppedInTheHostsOrder) {
  RunScenario([&] {
    StartScriptedHost(home_, HostScript()
                                 .Callback("first")
                                 .Callback("sec\0ond"s)
                                 .Callback("third")
                                 .Read().Reply("{}")
                                 .Drain());
    EXPECT_EQ("{}", InvokeText("{}"));
    EXPECT_EQ((std::vector<std::string>{"first", "sec", "third"}),
              PopMessages(3));
    tsmx_End();
  });
}

TEST_F(BridgeFifoTest, ZeroLengthCallbackStopsTheReaderButNotTheReplies) {
  RunScenario([&] {
    StartScriptedHost(home_, HostScript()
                                 .Callback("one")
                                 .Callback("")
                                 .Callback("never read")
                                 .Read().Reply("still answered")
                                 .Drain());
    EXPECT_EQ("still answered", InvokeText("{}"));
    // Popped before tsmx_End: messages the reader has not taken by then are
    // lost, and a reader that had not yet begun fails on the closed pipe.
    EXPECT_EQ(std::vector<std::string>{"one"},
              PopMessages(2, milliseconds(300)));
    tsmx_End();
  });
}

TEST_F(BridgeFifoTest, InvokeAfterEndIsNullAndNotAnsweredInProcess) {
  RunScenario([&] {
    StartScriptedHost(home_, HostScript().Drain());
    tsmx_End();
    // In-process this query would be answered with a version text.
    EXPECT_EQ("<null>", InvokeText("{\"init\":\"get_version\"}"));
  });
  EXPECT_EQ(std::string(4, '\0'), Recorded());
}

}  // namespace
}  // namespace tessmar::testing
