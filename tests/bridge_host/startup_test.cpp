// tsmx_Startup and tsmx_End in real processes.
#include <fcntl.h>

#include "bridge_host/host_fixture.h"
#include "tessmar/config.h"

namespace tessmar::testing {
namespace {

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

}  // namespace
}  // namespace tessmar::testing
