// tessmar-drive, run as a program against the built library.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "bridge_host/host_fixture.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kDriver[] = TESSMAR_TEST_DRIVER;
constexpr char kReferenceHost[] = TESSMAR_TEST_REFERENCE_HOST;
constexpr char kEcho[] =
    R"({"cmd":"native","id":"1","tabid":"t","callback":"c","echo":true})";

std::string EchoReply() {
  return process_request(nullptr, kEcho, sizeof kEcho - 1, nullptr);
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos;
       at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST(DriverTest, AnswersArgumentsInProcessWithAMarkerForNull) {
  TempHome home;
  const ProgramResult result = RunProgram({kDriver, kEcho, "not json"});
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(EchoReply() + "\n<null>\n", result.out);
}

TEST(DriverTest, ReadsStandardInputLineByLineSkippingBlankLines) {
  TempHome home;
  const ProgramResult result = RunProgram(
      {kDriver}, std::string(kEcho) + "\n\n{\"init\":\"unknown\"}\n");
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(EchoReply() + "\n\n", result.out);  // "" prints as an empty line
}

TEST(DriverTest, RejectsBadArgumentsWithExitCode2) {
  TempHome home;
  EXPECT_EQ(2, RunProgram({kDriver, "--wait-ms", "soon"}).exit_code);
  // An empty request would be the host's stop message.
  EXPECT_EQ(2, RunProgram({kDriver, "--host", ""}).exit_code);
  const ProgramResult help = RunProgram({kDriver, "--help"});
  EXPECT_EQ(0, help.exit_code);
  EXPECT_NE(std::string::npos, help.out.find("exit status"));
}

TEST(DriverTest, ReportsALibraryOrSymbolThatCannotBeLoaded) {
  TempHome home;
  ProgramResult result =
      RunProgram({kDriver, "--library", home.path() + "/none.so", kEcho});
  EXPECT_EQ(1, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("/none.so"));

  result =
      RunProgram({kDriver, "--library", TESSMAR_TEST_CALLBACK_MODULE, kEcho});
  EXPECT_EQ(1, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("tsmx_Startup"));
}

TEST(DriverTest, RefusesHostModeWithoutARunnableHost) {
  TempHome home;
  home.WriteConfig("config.json",
                   "{\"Tessmar\":\"" + home.path() + "/missing\"}");
  ProgramResult result = RunProgram({kDriver, "--host", kEcho});
  EXPECT_EQ(3, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("/missing/TessmarFirefox"));
  EXPECT_TRUE(Absent(RequestFifo())) << "tsmx_Startup must not have run";

  // Executable, but its exec fails (no such interpreter): the driver's
  // forked child must not go on as a second driver, and nothing may hang.
  const std::string script =
      home.WriteHomeFile("broken/TessmarFirefox", "#!/nonexistent/shell\n");
  chmod(script.c_str(), 0755);
  home.WriteConfig("config.json",
                   "{\"Tessmar\":\"" + home.path() + "/broken\"}");
  result = RunProgram({kDriver, "--host", kEcho});
  EXPECT_EQ(4, result.exit_code) << result.err;
  EXPECT_EQ("", result.out);
  EXPECT_TRUE(Absent(RequestFifo())) << "tsmx_End removed the FIFOs";
}

TEST(DriverTest, HostModeRoundTripWithCallbacks) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), kReferenceHost);
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  const ProgramResult result = RunProgram(
      {kDriver, "--host", "--wait-ms", "200", kEcho,
       R"({"cmd":"native","id":"2","tabid":"t1","callback":"cb","module":"cbmod"})"});
  EXPECT_EQ(0, result.exit_code) << result.err;
  // The host shares the driver's stderr: no complaint from it either (nor,
  // in sanitizer builds, a report).
  EXPECT_EQ("", result.err);
  EXPECT_EQ(0u, result.out.find(EchoReply() + "\n")) << result.out;
  EXPECT_NE(std::string::npos,
            result.out.find(BuildReplyEnvelope("2", "t1", REPLY_TRUE,
                                               "{\"sent\":101}", "cb") +
                            "\n"));
  EXPECT_EQ(101u, Count(result.out, "\ncallback: {\"response\":"));
  EXPECT_TRUE(Absent(RequestFifo()));
}

}  // namespace
}  // namespace tessmar::testing
