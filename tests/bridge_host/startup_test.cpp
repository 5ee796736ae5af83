// tsmx_Startup and tsmx_End in real processes.
#include <fcntl.h>

#include <atomic>

#include "bridge/bridge_state.h"
#include "bridge_host/host_fixture.h"
#include "tessmar/config.h"

// This program is linked with -Wl,--wrap=close: while g_watchCloses is set,
// closing a descriptor that the bridge still holds as open is counted.
namespace {
std::atomic<bool> g_watchCloses{false};
std::atomic<int> g_closedWhileInUse{0};
}  // namespace
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
  using namespace tessmar::bridge;
  if (g_watchCloses && fd >= 0 &&
      (fd == w_fifo || fd == r_fifo || fd == cb_fifo)) {
    ++g_closedWhileInUse;
  }
  return __real_close(fd);
}

namespace tessmar::testing {
namespace {

// "p600", "d755"... for what is at `path` (links not followed), or "absent".
std::string Node(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return "absent";
  char text[8];
  std::snprintf(text, sizeof text, "%c%o",
                S_ISFIFO(info.st_mode) ? 'p' : S_ISDIR(info.st_mode) ? 'd' : '-',
                static_cast<unsigned>(info.st_mode & 07777));
  return text;
}

void ExpectFifos(const std::string& node) {
  for (const std::string& fifo : {ReplyFifo(), RequestFifo(), CallbackFifo()}) {
    EXPECT_EQ(node, Node(fifo)) << fifo;
  }
}

TEST(BridgeStartupTest, CreatesEveryMissingDirectoryLevelAndTheFifos) {
  TempHome home;  // nothing below HOME yet
  if (!GetTessmarInstallPath().empty()) {
    GTEST_SKIP() << "a system-wide config.json names an installation";
  }
  const std::string child_result = home.path() + "/exec-child-result";
  RunScenario([&] {
    tsmx_End();  // before any start: does nothing
    EXPECT_TRUE(Absent(home.path() + "/.config"));
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
  });
}

TEST(BridgeStartupTest, ReplacesLeftoversAndStartsTheHostWithItsPathAlone) {
  TempHome home;
  const std::string host = InstallHost(home, SelfExecutable());
  WriteFile(ReplyFifo(), "stale reply");
  ASSERT_EQ(0, symlink((home.path() + "/nowhere").c_str(),
                       RequestFifo().c_str()));
  ASSERT_EQ(0, mkfifo(CallbackFifo().c_str(), 0644));

  RunScenario([&] {
    umask(0);
    HostScript().Drain().Use(home.path());
    ASSERT_EQ(0, tsmx_Startup());
    ExpectFifos("p600");
    g_watchCloses = true;
    tsmx_End();
    g_watchCloses = false;
    EXPECT_EQ(0, g_closedWhileInUse) << "closed before being taken out of use";
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the host was not reaped";
    EXPECT_EQ(ECHILD, errno);
    ExpectFifos("absent");
    tsmx_End();  // repeated: must neither hang nor crash
  });
  EXPECT_EQ(host + '\0', ReadFile(home.path() + "/argv"));
  // The stop message and nothing else.
  EXPECT_EQ(std::string(4, '\0'), ReadFile(home.path() + "/input"));
}

TEST(BridgeStartupTest, DirectoryAtAFifoPathFailsTheStartWithoutAHost) {
  TempHome home;
  InstallHost(home, SelfExecutable());
  ASSERT_EQ(0, mkdir(RequestFifo().c_str(), 0755));

  RunScenario([&] {
    umask(0);
    HostScript().Drain().Use(home.path());
    EXPECT_EQ(1, tsmx_Startup());
    EXPECT_EQ("p600", Node(ReplyFifo())) << "made before the failure";
    EXPECT_EQ("absent", Node(CallbackFifo()));
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no host was started";
    EXPECT_EQ(ECHILD, errno);

    tsmx_End();  // not started: leaves everything alone
    EXPECT_EQ("p600", Node(ReplyFifo()));
    // Still in-process: an unknown query is answered "" locally.
    EXPECT_EQ("", InvokeText("{\"init\":\"unknown\"}"));
  });
}

}  // namespace
}  // namespace tessmar::testing
