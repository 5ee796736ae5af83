// tsmx_Startup and tsmx_End in real processes, and the FIFO framing between
// tsmx_Invoke, the callback reader and a host, checked byte for byte against
// a scripted host.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <optional>

#include "bridge_host/host_fixture.h"
#include "tessmar/config.h"

namespace tessmar::testing {
namespace {

using namespace std::string_literals;
using Reply = std::optional<std::string>;

// tsmx_Invoke("{}") on a thread of its own, for a request that blocks.
struct BackgroundInvoke {
  std::atomic<bool> done{false};
  Reply reply;
  std::thread thread{[this] { reply = InvokeText("{}"); done = true; }};
};

TEST(BridgeStartupTest, CreatesEveryMissingDirectoryLevelAndTheFifos) {
  TempHome home;  // nothing below HOME yet
  if (!GetTessmarInstallPath().empty()) {
    GTEST_SKIP() << "a system-wide config.json names an installation";
  }
  const std::string child_result = home.path() + "/exec-child-result";
  EXPECT_TRUE(RunIsolated([&] {
    tsmx_End();  // before any start: does nothing
    umask(0);
    const pid_t self = getpid();
    const int started = tsmx_Startup();
    if (getpid() != self) {
      // No config.json: exec of "/TessmarFirefox" fails, the child returns
      // here and releases the parent by opening the other FIFO ends.
      WriteFile(child_result, std::to_string(started));
      for (const auto& [path, flags] :
           {std::pair{RequestFifo(), O_RDONLY}, std::pair{ReplyFifo(), O_WRONLY},
            std::pair{CallbackFifo(), O_WRONLY}}) {
        close(open(path.c_str(), flags));
      }
      _exit(0);
    }
    ASSERT_EQ(0, started);
    std::string level = home.path();
    for (const char* name : {"/.config", "/Pelmora", "/Tessmar", "/morrowhost"}) {
      level += name;
      EXPECT_EQ("d755", Node(level)) << level;
    }
    ExpectFifos("p600");
    tsmx_End();
    EXPECT_EQ("1", ReadFile(child_result)) << "the failed child's result";
  }, kDeadlineSeconds));
}

// Leftovers where the FIFOs go are replaced. The host reads exactly the framed
// requests, then the stop message. Replies: zero length is NULL, a NUL cuts the
// body, a body in two pieces is NULL. Callbacks: in order, cut at a NUL, and a
// zero-length one stops the reader. tsmx_End reaps the host, removes the FIFOs.
TEST(BridgeFifoTest, FramesRequestsRepliesAndCallbacksFromStartToEnd) {
  TempHome home;
  const std::string host = InstallScriptedHost(home);
  WriteFile(ReplyFifo(), "stale reply");
  ASSERT_EQ(0, symlink((home.path() + "/nowhere").c_str(), RequestFifo().c_str()));
  ASSERT_EQ(0, mkfifo(CallbackFifo().c_str(), 0644));
  const std::vector<std::pair<std::string, Reply>> exchanges = {
      {"hello", "pong"}, {R"({"init":"get_version"})", "\"v\""},
      {"{}", std::nullopt}, {R"({"q":2})", "ab"}, {R"({"q":3})", std::nullopt}};
  EXPECT_TRUE(RunIsolated([&] {
    umask(0);
    HostScript()
        .Callback("first").Callback("sec\0ond"s).Callback("third")
        .Callback("").Callback("never read")
        .Read().Reply("pong").Read().Reply("\"v\"").Read().Reply("")
        .Read().Reply("ab\0cd"s)
        .Read().Raw(Frame("abcdefghij").substr(0, 7)).SleepMs(100).Raw("defghij")
        .Drain().Use();
    ASSERT_EQ(0, tsmx_Startup());
    ExpectFifos("p600");
    for (const auto& [request, reply] : exchanges) {
      EXPECT_EQ(reply, InvokeText(request)) << request;
    }
    EXPECT_EQ((std::vector<std::string>{"first", "sec", "third"}),
              PopMessages(4, milliseconds(300)));
    tsmx_End();
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the host was not reaped";
    EXPECT_EQ(ECHILD, errno);
    ExpectFifos("absent");
    EXPECT_EQ(std::nullopt, InvokeText(R"({"init":"get_version"})"));
    tsmx_End();  // repeated: must neither hang nor crash
  }, kDeadlineSeconds));
  EXPECT_EQ(host + '\0', ReadFile(home.path() + "/argv"));
  std::string framed;
  for (const auto& exchange : exchanges) framed += Frame(exchange.first);
  EXPECT_EQ(framed + Frame(""), ReadFile(home.path() + "/input"));
}

// A host that takes a request and dies: the reply is waited for without end,
// until tsmx_End retires the descriptors and the read fails for good; the
// dead host is still reaped and its FIFOs removed.
TEST(BridgeFifoTest, ARequestWhoseHostDiedWaitsUntilTheEnd) {
  TempHome home;
  InstallScriptedHost(home);
  EXPECT_TRUE(RunIsolated([&] {
    HostScript().Read().Use();
    ASSERT_EQ(0, tsmx_Startup());
    BackgroundInvoke invoke;
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_FALSE(invoke.done) << "gave up on the host";
    tsmx_End();
    invoke.thread.join();
    EXPECT_EQ(std::nullopt, invoke.reply);
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the host was not reaped";
    EXPECT_EQ("absent", Node(RequestFifo()));
  }, kDeadlineSeconds));
}

// A request body the host no longer reads fails to be written (-1), which
// passes the unsigned length check: the reply is read as usual.
TEST(BridgeFifoTest, AFailedBodyWriteStillReadsTheReply) {
  TempHome home;
  InstallScriptedHost(home);
  EXPECT_TRUE(RunIsolated([&] {
    // The first request leaves the one-page request pipe room for the next
    // length alone: the host stops reading once the pipe is full.
    HostScript().Reply("first").Reply("second").CloseRequestsAt(4096).Use();
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ("first"s, InvokeText(std::string(4096 - 8, 'x')));
    EXPECT_EQ("second"s, InvokeText("{}"));
    tsmx_End();
  }, kDeadlineSeconds));
}

// A reply body read that fails (-1, here interrupted by a signal) passes the
// unsigned length check too, and the zero-filled buffer reads as "".
TEST(BridgeFifoTest, AFailedBodyReadGivesAnEmptyText) {
  TempHome home;
  InstallScriptedHost(home);
  EXPECT_TRUE(RunIsolated([&] {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: a blocked read fails
    sigaction(SIGUSR1, &action, nullptr);
    HostScript().Read().Raw(std::string("\5\0\0\0", 4)).Drain().Use();
    ASSERT_EQ(0, tsmx_Startup());
    BackgroundInvoke invoke;
    // The length read retries an interruption; only the body read gives up.
    while (!invoke.done) {
      pthread_kill(invoke.thread.native_handle(), SIGUSR1);
      std::this_thread::sleep_for(milliseconds(20));
    }
    invoke.thread.join();
    EXPECT_EQ(""s, invoke.reply);
    tsmx_End();
  }, kDeadlineSeconds));
}

}  // namespace
}  // namespace tessmar::testing
