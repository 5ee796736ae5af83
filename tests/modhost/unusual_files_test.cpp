// Files no installation holds where the loader reads (a FIFO, a link to a
// device, an oversized JSON file) read as unreadable: requests and lookups
// come back at once with the answer a missing or mismatching file gets.
// Each scenario runs in a child process with a memory limit and a timeout,
// so a reader that blocks or reads without end fails the test instead of
// hanging it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"
#include "tessmar/signature.h"

namespace {

using namespace tessmar::testing;

constexpr int kTimeoutSeconds = 5;
constexpr std::size_t kMemoryHeadroom = std::size_t{256} << 20;

std::string Request(const std::string& module) {
  const std::string request =
      R"({"cmd":"native","id":"8","tabid":"t","callback":"c","module":")" + module + "\"}";
  return process_request(nullptr, request.c_str(), static_cast<int>(request.size()), nullptr);
}

std::string Answer(int status) {
  return BuildReplyEnvelope("8", "t", status, "{}", "c");
}

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// Runs `scenario` isolated and requires it to be over within a second,
// leaving no descriptor open.
::testing::AssertionResult Promptly(const std::function<void()>& scenario) {
  return RunIsolated(
      [&] {
        const std::size_t descriptors = OpenDescriptors();
        const auto start = std::chrono::steady_clock::now();
        scenario();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_EQ(OpenDescriptors(), descriptors);
      },
      kTimeoutSeconds, kMemoryHeadroom);
}

// A module file "odd.json" that cannot be read as one reads as a missing
// one: a FIFO, a link to /dev/zero, a file over the 1 MiB limit.
TEST(UnusualFiles, ModuleFileThatCannotBeReadReadsAsMissing) {
  const std::function<void(const std::string&)> kinds[] = {
      [](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); },
      [](const std::string& path) { ASSERT_EQ(symlink("/dev/zero", path.c_str()), 0); },
      [](const std::string& path) {
        WriteFile(path, R"({"Name":"odd","Path":"/x","Version":"1.0.0.1"})" +
                            std::string(1 << 20, ' '));
      }};
  for (const auto& make : kinds) {
    ModuleSandbox s;
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    make(s.home.ConfigDir() + "/odd.json");
    EXPECT_TRUE(Promptly([&] {
      EXPECT_EQ(Request("odd"), Answer(REPLY_FALSE));
      EXPECT_EQ(GetClientInstallPathModule("odd", true), "");
      EXPECT_EQ(GetClientVersion("odd"), "");
      EXPECT_EQ(LoadQxClient("odd", nullptr), QX_LOAD_OPEN_FAILED);
      EXPECT_EQ(Request("rec"), BuildReplyEnvelope("8", "t", REPLY_TRUE,
                                                   R"({"from":"a","call":1})", "c"));
    }));
  }
}

TEST(UnusualFiles, ModuleLibraryThatIsAFifoFailsItsSignature) {
  ModuleSandbox s;
  const std::string fifo = s.home.path() + "/module.so";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Signed as the fixture is, so only the file's kind can make it fail.
  const std::string sig = SignedInstallation::ModuleSignature(FIXTURE_RECORDING_A_PATH);
  s.install.WriteModuleFile("odd", fifo, sig);
  EXPECT_TRUE(Promptly([&] {
    EXPECT_EQ(Request("odd"), Answer(REPLY_BLOCK_CLIENT));
    EXPECT_EQ(GetClientInstallPathModule("odd", true), "BLOCK:CLIENT");
    EXPECT_FALSE(CheckQXClientModuleSignature(fifo.c_str(), sig.c_str()));
    EXPECT_EQ(ReadFileData(fifo), "");
  }));
}

// config.json, or a file the installation's signature covers, as a FIFO:
// the installation is refused.
TEST(UnusualFiles, ConfigOrInstallationFileThatIsAFifoFailsTheSignature) {
  for (const bool config : {true, false}) {
    ModuleSandbox s;
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    const std::string fifo = config ? s.home.ConfigDir() + "/config.json"
                                    : s.install.install_dir() + "/TessmarChrome";
    ASSERT_EQ(std::remove(fifo.c_str()), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_TRUE(Promptly([&] {
      // A FIFO for config.json reads as a missing file.
      EXPECT_EQ(GetTessmarInstallPath(), config ? "" : s.install.install_dir());
      EXPECT_EQ(GetCurrentVersion(nullptr), config ? "" : "2.5.0.1");
      EXPECT_FALSE(CheckModuleSignature());
      EXPECT_EQ(Request("rec"), Answer(REPLY_BLOCK_QX));
    })) << fifo;
  }
}

}  // namespace
