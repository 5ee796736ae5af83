// The FIFO framing between tsmx_Invoke, the callback reader and a host,
// checked byte for byte against a scripted host.
#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>

#include "bridge_host/host_fixture.h"

namespace tessmar::testing {
namespace {

using namespace std::string_literals;
using Reply = std::optional<std::string>;

// The host must read exactly the framed requests, then the stop message;
// after tsmx_End tsmx_Invoke gives NULL.
TEST(BridgeFifoTest, FramesRequestsRepliesAndCallbacks) {
  TempHome home;
  InstallHost(home, SelfExecutable());
  const struct {
    const char* what;
    HostScript script;
    std::vector<std::pair<std::string, Reply>> exchanges;
    std::vector<std::string> callbacks;
  } cases[] = {
      {"text is forwarded unexamined, JSON, not JSON or a version query",
       HostScript().Read().Reply("pong").Read().Reply("\"v\"").Drain(),
       {{"hello", "pong"}, {"{\"init\":\"get_version\"}", "\"v\""}}, {}},
      {"a zero-length reply is NULL, a NUL cuts the body, the pipes stay in step",
       HostScript().Read().Reply("").Read().Reply("ab\0cd"s).Read().Reply(
           "after").Drain(),
       {{"{\"q\":1}", std::nullopt}, {"{\"q\":2}", "ab"}, {"{\"q\":3}", "after"}},
       {}},
      {"a reply body in two pieces is NULL",
       HostScript().Read().Raw(Frame("abcdefghij").substr(0, 7)).SleepMs(100)
           .Raw("defghij").Drain(),
       {{"{}", std::nullopt}}, {}},
      {"callbacks are popped in the host's order, cut at a NUL",
       HostScript().Callback("first").Callback("sec\0ond"s).Callback("third")
           .Read().Reply("{}").Drain(),
       {{"{}", "{}"}}, {"first", "sec", "third"}},
      {"a zero-length callback stops the reader but not the replies",
       HostScript().Callback("one").Callback("").Callback("never read")
           .Read().Reply("still answered").Drain(),
       {{"{}", "still answered"}}, {"one"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    unlink((home.path() + "/input").c_str());
    EXPECT_TRUE(RunIsolated([&] {
      c.script.Use(home.path());
      ASSERT_EQ(0, tsmx_Startup());
      for (const auto& [request, reply] : c.exchanges) {
        EXPECT_EQ(reply, InvokeText(request)) << request;
      }
      EXPECT_EQ(c.callbacks, PopMessages(c.callbacks.size(), milliseconds(5000)));
      EXPECT_EQ(0u, PopMessages(1, milliseconds(150)).size());
      tsmx_End();
      EXPECT_EQ(std::nullopt, InvokeText("{\"init\":\"get_version\"}"));
    }, kDeadlineSeconds));
    std::string framed;
    for (const auto& exchange : c.exchanges) framed += Frame(exchange.first);
    EXPECT_EQ(framed + Frame(""), ReadFile(home.path() + "/input"));
  }
}

// A host that takes a request and dies: the reply is waited for without end,
// until tsmx_End retires the descriptors and the read fails for good; the
// dead host is still reaped and its FIFOs removed.
TEST(BridgeFifoTest, ARequestWhoseHostDiedWaitsUntilTheEnd) {
  TempHome home;
  InstallHost(home, SelfExecutable());
  EXPECT_TRUE(RunIsolated([&] {
    HostScript().Read().Use(home.path());
    ASSERT_EQ(0, tsmx_Startup());
    std::atomic<bool> returned{false};
    Reply reply = "unset";
    std::thread invoker([&] {
      reply = InvokeText("{}");
      returned = true;
    });
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_FALSE(returned) << "gave up on the host";
    tsmx_End();
    invoker.join();
    EXPECT_EQ(std::nullopt, reply);
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the host was not reaped";
    EXPECT_TRUE(Absent(RequestFifo()));
  }, kDeadlineSeconds));
}

// A request body the host no longer reads fails to be written (-1), which
// passes the unsigned length check: the reply is read as usual.
TEST(BridgeFifoTest, AFailedBodyWriteStillReadsTheReply) {
  TempHome home;
  InstallHost(home, SelfExecutable());
  EXPECT_TRUE(RunIsolated([&] {
    HostScript().Reply("first").Reply("second").SleepMs(200).CloseRequests()
        .Use(home.path());
    ASSERT_EQ(0, tsmx_Startup());
    // Leaves the one-page request pipe room for the next length alone.
    EXPECT_EQ("first", InvokeText(std::string(4096 - 8, 'x')));
    EXPECT_EQ("second", InvokeText("{}"));
    tsmx_End();
  }, kDeadlineSeconds));
}

}  // namespace
}  // namespace tessmar::testing
