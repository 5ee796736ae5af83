// tsmx_Startup and tsmx_End in real processes: the directory and FIFOs on
// disk, the host's argument vector, failed starts, and the stop sequence.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "bridge_host/host_fixture.h"
#include "bridge_host/scripted_host.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"

namespace tessmar::testing {
namespace {

void UseScript(const TempHome& home, const HostScript& script) {
  setenv(kScriptVariable, script.text().c_str(), 1);
  setenv(kRecordVariable, home.path().c_str(), 1);
}

// The file type and permission bits at `path`, without following links.
struct Node {
  bool exists = false;
  mode_t type = 0;
  mode_t mode = 0;
};
Node NodeAt(const std::string& path) {
  struct stat info;
  Node node;
  if (lstat(path.c_str(), &info) == 0) {
    node.exists = true;
    node.type = info.st_mode & S_IFMT;
    node.mode = info.st_mode & 07777;
  }
  return node;
}

void ExpectFifo0600(const std::string& path) {
  const Node node = NodeAt(path);
  EXPECT_TRUE(node.exists && node.type == S_IFIFO) << path;
  EXPECT_EQ(0600u, node.mode) << path;
}

TEST(BridgeStartupTest, CreatesEveryMissingDirectoryLevelAndTheFifos) {
  TempHome home;  // nothing below HOME yet
  if (!GetTessmarInstallPath().empty()) {
    GTEST_SKIP() << "a system-wide config.json names an installation";
  }
  const std::string child_result = home.path() + "/exec-child-result";
  RunScenario([&] {
    umask(0);  // the modes on disk are then exactly those asked for
    const pid_t self = getpid();
    const int started = tsmx_Startup();
    if (getpid() != self) {
      // Without config.json the host path is "/TessmarFirefox"; its exec
      // fails and the child returns into its caller. It releases the parent,
      // blocked in its opens, by opening the other ends in the host's order.
      WriteFile(child_result, std::to_string(started));
      const std::pair<std::string, int> ends[] = {
          {RequestFifo(), O_RDONLY}, {ReplyFifo(), O_WRONLY},
          {CallbackFifo(), O_WRONLY}};
      for (const auto& [path, flags] : ends) {
        const int fd = open(path.c_str(), flags);
        if (fd >= 0) close(fd);
      }
      _exit(0);
    }
    ASSERT_EQ(0, started);
    std::string level = home.path();
    for (const char* name : {"/.config", "/Pelmora", "/Tessmar", "/morrowhost"}) {
      level += name;
      const Node node = NodeAt(level);
      EXPECT_TRUE(node.exists && node.type == S_IFDIR) << level;
      EXPECT_EQ(0755u, node.mode) << level;
    }
    for (const std::string& fifo : {ReplyFifo(), RequestFifo(), CallbackFifo()}) {
      ExpectFifo0600(fifo);
    }
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
    UseScript(home, HostScript().Drain());
    ASSERT_EQ(0, tsmx_Startup());
    for (const std::string& fifo : {ReplyFifo(), RequestFifo(), CallbackFifo()}) {
      ExpectFifo0600(fifo);
    }
    tsmx_End();
    for (const std::string& fifo : {ReplyFifo(), RequestFifo(), CallbackFifo()}) {
      EXPECT_TRUE(Absent(fifo)) << fifo;
    }
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
    UseScript(home, HostScript().Drain());
    EXPECT_EQ(1, tsmx_Startup());
    EXPECT_EQ(S_IFIFO, NodeAt(ReplyFifo()).type) << "made before the failure";
    EXPECT_TRUE(Absent(CallbackFifo()));
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no host was started";
    EXPECT_EQ(ECHILD, errno);

    tsmx_End();  // not started: leaves everything alone
    EXPECT_EQ(S_IFIFO, NodeAt(ReplyFifo()).type);
    // Still in-process: an unknown query is answered "" locally.
    char* reply = tsmx_Invoke("{\"init\":\"unknown\"}");
    ASSERT_NE(nullptr, reply);
    EXPECT_STREQ("", reply);
    tsmx_Free(reply);
  });
}

TEST(BridgeStartupTest, EndWithoutStartupDoesNothing) {
  TempHome home;
  RunScenario([&] {
    tsmx_End();
    EXPECT_TRUE(Absent(home.path() + "/.config"));
    char* reply = tsmx_Invoke("{\"init\":\"unknown\"}");
    ASSERT_NE(nullptr, reply);
    EXPECT_STREQ("", reply);
    tsmx_Free(reply);
  });
}

}  // namespace
}  // namespace tessmar::testing
