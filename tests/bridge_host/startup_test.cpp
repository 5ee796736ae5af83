// tsmx_Startup and tsmx_End in real processes.
#include <fcntl.h>

#include "bridge_host/host_fixture.h"
#include "tessmar/config.h"

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

TEST(BridgeStartupTest, ReplacesLeftoversStartsTheHostAndReapsIt) {
  TempHome home;
  const std::string host = InstallScriptedHost(home);
  WriteFile(ReplyFifo(), "stale reply");
  ASSERT_EQ(0, symlink((home.path() + "/nowhere").c_str(),
                       RequestFifo().c_str()));
  ASSERT_EQ(0, mkfifo(CallbackFifo().c_str(), 0644));

  EXPECT_TRUE(RunIsolated([&] {
    umask(0);
    HostScript().Drain().Use();
    ASSERT_EQ(0, tsmx_Startup());
    ExpectFifos("p600");
    tsmx_End();
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "the host was not reaped";
    EXPECT_EQ(ECHILD, errno);
    ExpectFifos("absent");
    tsmx_End();  // repeated: must neither hang nor crash
  }, kDeadlineSeconds));
  EXPECT_EQ(host + '\0', ReadFile(home.path() + "/argv"));
  // The stop message and nothing else.
  EXPECT_EQ(std::string(4, '\0'), ReadFile(home.path() + "/input"));
}

}  // namespace
}  // namespace tessmar::testing
