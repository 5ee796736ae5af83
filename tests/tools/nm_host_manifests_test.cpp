// The adapter's manifest commands in a temporary HOME: a manifest written
// and removed again, and a shared directory where a planted link is never
// followed, replaced or removed. Also the usage line, which names the
// program as it was started.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/temp_home.h"

namespace {

using tessmar::testing::ReadFile;
using tessmar::testing::TempHome;
using tessmar::testing::WriteFile;

constexpr char kManifest[] = "zz.qx.pelmora.morrowhost.json";

struct Result {
  int status;
  std::string out, err;
};

std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Runs `program` with `args`; one that hangs is killed after 30 seconds.
Result RunProgram(const TempHome& home, const std::string& program,
           const std::vector<std::string>& args) {
  const std::string out = home.path() + "/out", err = home.path() + "/err";
  std::string command = "exec timeout -s KILL 30 " + Quote(program);
  for (const std::string& arg : args) command += " " + Quote(arg);
  const int status = std::system((command + " </dev/null >" + Quote(out) + " 2>" +
                                  Quote(err)).c_str());
  return Result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
}

bool IsSymlink(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

TEST(NmHostManifests, UninstallRemovesWhatInstallWrote) {
  TempHome home;
  const std::string manifest =
      home.path() + "/.config/chromium/NativeMessagingHosts/" + kManifest;
  Result result = RunProgram(home, TESSMAR_NM_HOST, {"--install-manifests", "chromium"});
  ASSERT_EQ(result.status, 0) << result.err;
  ASSERT_EQ(access(manifest.c_str(), F_OK), 0);
  result = RunProgram(home, TESSMAR_NM_HOST, {"--uninstall-manifests", "chromium"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, manifest + "\n");
  EXPECT_NE(access(manifest.c_str(), F_OK), 0);
  // Nothing left to remove is no error; the other browsers' files stay.
  const std::string firefox = home.WriteHomeFile(
      std::string(".mozilla/native-messaging-hosts/") + kManifest, "{}");
  result = RunProgram(home, TESSMAR_NM_HOST, {"--uninstall-manifests", "chromium"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(ReadFile(firefox), "{}");
  EXPECT_EQ(RunProgram(home, TESSMAR_NM_HOST, {"--uninstall-manifests", "opera"}).status, 2);
}

TEST(NmHostManifests, PlantedLinkInASharedDirectoryIsLeftUntouched) {
  TempHome home;
  const std::string dir = home.path() + "/shared";
  const std::string victim = home.WriteHomeFile("victim", "precious");
  tessmar::testing::MakeDirectories(dir);
  const std::string planted = dir + "/" + kManifest;
  ASSERT_EQ(symlink(victim.c_str(), planted.c_str()), 0);

  Result result = RunProgram(home, TESSMAR_NM_HOST, {"--install-manifests", "firefox", "--dir", dir});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("symbolic link"), std::string::npos) << result.err;
  result = RunProgram(home, TESSMAR_NM_HOST, {"--uninstall-manifests", "firefox", "--dir", dir});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("symbolic link"), std::string::npos) << result.err;
  EXPECT_TRUE(IsSymlink(planted));
  EXPECT_EQ(ReadFile(victim), "precious");
  // No temporary file was left behind either.
  EXPECT_EQ(RunProgram(home, "/bin/ls", {"-A", dir}).out, std::string(kManifest) + "\n");
}

TEST(NmHostManifests, UsageNamesTheProgramAsStarted) {
  TempHome home;
  for (const std::string& program : {std::string(TESSMAR_NM_HOST), std::string(TESSMAR_NM_HOST_INSTALLED)}) {
    const Result result = RunProgram(home, program, {"--help"});
    const std::string name = program.substr(program.rfind('/') + 1);
    EXPECT_EQ(result.out.rfind("usage: " + name + " ", 0), 0u) << result.out;
    // The installed program never names the build tree.
    if (name == "TessmarChrome") {
      EXPECT_EQ(result.out.find(TESSMAR_BUILD_DIR), std::string::npos) << result.out;
    }
  }
}

}  // namespace
