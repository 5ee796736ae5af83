// tsmx_Startup and tsmx_End in real processes, and the FIFO framing between
// tsmx_Invoke, the callback reader and a host, checked byte for byte against
// a scripted host. With no config.json the library execs "/TessmarFirefox",
// which fails: the forked child returns from tsmx_Startup like any failed
// start, and here goes on to play the host.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <atomic>
#include <optional>

#include "bridge_host/host_fixture.h"
#include "posix_io.h"
#include "tessmar/config.h"

namespace tessmar::testing {
namespace {

using namespace std::string_literals;
using Reply = std::optional<std::string>;

// The scripted host's ends of the FIFOs, opened in the library's order:
// request for reading, then reply and callback.
struct HostEnds {
  HostEnds() {
    request = open(RequestFifo().c_str(), O_RDONLY);
    // One page, so that a test can fill the request pipe; set before the
    // library's start-up can return, which waits for the reply end below.
    fcntl(request, F_SETPIPE_SZ, 4096);
    reply = open(ReplyFifo().c_str(), O_WRONLY);
    callback = open(CallbackFifo().c_str(), O_WRONLY);
  }
  // Reads one request and appends it, framed, to HOME/input.
  void Read() const {
    std::string body;
    tools::ReadFrame(request, body);
    WriteFile(input, ReadFile(input) + Frame(body));
  }
  // Unchecked: after a reply the library gave up on, it may have closed the pipe.
  void Write(const std::string& bytes) const {
    tools::WriteFully(reply, bytes.data(), bytes.size());
  }
  int request, reply, callback;
  std::string input = std::string(std::getenv("HOME")) + "/input";
};

// tsmx_Startup, whose failed child plays the host with `play`, records the
// result it got in HOME/child-result and exits.
int StartWithHost(void (*play)(const HostEnds&)) {
  // A host that is gone must fail the library's writes, not kill the test.
  signal(SIGPIPE, SIG_IGN);
  const pid_t self = getpid();
  const int started = tsmx_Startup();
  if (getpid() == self) return started;
  WriteFile(std::string(std::getenv("HOME")) + "/child-result", std::to_string(started));
  play(HostEnds());
  _exit(0);
}

// tsmx_Invoke("{}") on a thread of its own, for a request that blocks.
struct BackgroundInvoke {
  std::atomic<bool> done{false};
  Reply reply;
  std::thread thread{[this] { reply = InvokeText("{}"); done = true; }};
};

class BridgeFifoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!GetTessmarInstallPath().empty()) {
      GTEST_SKIP() << "a system-wide config.json names an installation";
    }
  }
  TempHome home;  // nothing below HOME yet
};

void ExpectFifos(const std::string& node) {
  for (const std::string& fifo : {ReplyFifo(), RequestFifo(), CallbackFifo()}) {
    EXPECT_EQ(node, Node(fifo)) << fifo;
  }
}

void PlayFraming(const HostEnds& host) {
  for (const std::string& body : {"first"s, "sec\0ond"s, "third"s, ""s, "never read"s}) {
    tools::WriteFrame(host.callback, body);
  }
  host.Read();
  host.Write(std::string("\5\0\0\0", 4));  // and no body
  for (const std::string& reply : {"pong"s, "\"v\""s, ""s, "ab\0cd"s}) {
    host.Read();
    host.Write(Frame(reply));
  }
  host.Read();
  // Nine bytes announced, three sent; the other six frame "xy".
  host.Write(Frame("abc" + Frame("xy")).substr(0, 7));
  std::this_thread::sleep_for(milliseconds(100));
  host.Write(Frame("xy"));
  host.Read();
  host.Read();  // and exits
}

// Every missing directory level is created. The host reads exactly the
// framed requests. Replies: zero length is NULL, a NUL cuts the body; a body
// read that fails (-1, here interrupted by a signal) passes the unsigned
// length check and the zero-filled buffer reads as ""; a body in two pieces
// is NULL, and its rest is read as the next reply (no resumption). Callbacks:
// in order, cut at a NUL, and a zero-length one stops the reader. A host that
// takes a request and dies leaves the reply waited for without end, until
// tsmx_End retires the descriptors and the read fails for good; the dead
// host is still reaped and the FIFOs removed.
TEST_F(BridgeFifoTest, FramesRequestsRepliesAndCallbacksFromStartToEnd) {
  const std::vector<std::pair<std::string, Reply>> exchanges = {
      {"hello", "pong"}, {R"({"init":"get_version"})", "\"v\""},
      {"{}", std::nullopt}, {R"({"q":2})", "ab"}, {R"({"q":3})", std::nullopt},
      {R"({"q":4})", "xy"}};
  EXPECT_TRUE(RunIsolated([&] {
    tsmx_End();  // before any start: does nothing
    umask(0);
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: a blocked read fails
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_EQ(0, StartWithHost(PlayFraming));
    EXPECT_EQ("d755", Node(home.path() + "/.config"));
    ExpectFifos("p600");
    {
      BackgroundInvoke invoke;
      // The length read retries an interruption; only the body read gives up.
      while (!invoke.done) {
        pthread_kill(invoke.thread.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(milliseconds(20));
      }
      invoke.thread.join();
      EXPECT_EQ(""s, invoke.reply);
    }
    for (const auto& [request, reply] : exchanges) {
      EXPECT_EQ(reply, InvokeText(request)) << request;
    }
    EXPECT_EQ((std::vector<std::string>{"first", "sec", "third"}),
              PopMessages(4, milliseconds(300)));
    BackgroundInvoke invoke;
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_FALSE(invoke.done) << "gave up on the dead host";
    tsmx_End();
    invoke.thread.join();
    EXPECT_EQ(std::nullopt, invoke.reply);
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the host was not reaped";
    EXPECT_EQ(ECHILD, errno);
    ExpectFifos("absent");
    EXPECT_EQ(std::nullopt, InvokeText(R"({"init":"get_version"})"));
    tsmx_End();  // repeated: must neither hang nor crash
  }, kDeadlineSeconds));
  EXPECT_EQ("1", ReadFile(home.path() + "/child-result"));
  std::string framed = Frame("{}");
  for (const auto& exchange : exchanges) framed += Frame(exchange.first);
  EXPECT_EQ(framed + Frame("{}"), ReadFile(home.path() + "/input"));
}

// The host answers ahead, reads nothing, and exits once the request pipe is
// full (at most 5 s).
void PlayClosing(const HostEnds& host) {
  host.Write(Frame("first") + Frame("second"));
  int unread = 0;
  for (int i = 0; i < 1000 && ioctl(host.request, FIONREAD, &unread) == 0 && unread < 4096;
       ++i) {
    std::this_thread::sleep_for(milliseconds(5));
  }
}

// Leftovers where the FIFOs go are replaced. A request body the host no
// longer reads fails to be written (-1), which passes the unsigned length
// check: the reply is read as usual.
TEST_F(BridgeFifoTest, AFailedBodyWriteStillReadsTheReply) {
  home.ConfigDir();
  WriteFile(ReplyFifo(), "stale reply");
  ASSERT_EQ(0, symlink((home.path() + "/nowhere").c_str(), RequestFifo().c_str()));
  ASSERT_EQ(0, mkfifo(CallbackFifo().c_str(), 0644));
  EXPECT_TRUE(RunIsolated([&] {
    umask(0);
    ASSERT_EQ(0, StartWithHost(PlayClosing));
    ExpectFifos("p600");
    // The first request leaves the one-page request pipe room for the next
    // length alone.
    EXPECT_EQ("first"s, InvokeText(std::string(4096 - 8, 'x')));
    EXPECT_EQ("second"s, InvokeText("{}"));
    tsmx_End();
  }, kDeadlineSeconds));
}

}  // namespace
}  // namespace tessmar::testing
