// tessmar-drive, run as a program against the built library.
#include "bridge_host/host_fixture.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kDriver[] = TESSMAR_TEST_DRIVER;
constexpr char kEcho[] =
    R"({"cmd":"native","id":"1","tabid":"t","callback":"c","echo":true})";

std::string EchoReply() {
  return process_request(nullptr, kEcho, sizeof kEcho - 1, nullptr);
}

// Line by line, blank lines skipped; "" prints as an empty line.
TEST(DriverTest, AnswersInProcessFromStandardInput) {
  TempHome home;
  const ProgramResult result =
      RunProgram({kDriver}, std::string(kEcho) + "\n\n{\"init\":\"unknown\"}\n");
  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(EchoReply() + "\n\n", result.out);
}

// Host mode is refused before tsmx_Startup when config.json's installation
// has no host; a host whose exec fails leaves no second driver behind.
TEST(DriverTest, ReportsBadArgumentsAndWhatCannotRun) {
  TempHome home;
  const std::string none = home.path() + "/none.so";
  chmod(home.WriteHomeFile("broken/TessmarFirefox", "#!/nonexistent/shell\n").c_str(), 0755);
  const struct {
    std::vector<std::string> argv;
    int exit_code;
    std::string error, installation;
  } cases[] = {
      {{kDriver, "--wait-ms", "soon"}, 2, "soon", ""},
      {{kDriver, "--hots", kEcho}, 2, "unknown option --hots", ""},
      // An empty request would be the host's stop message.
      {{kDriver, "--host", ""}, 2, "", ""},
      {{kDriver, "--library", none, kEcho}, 1, none, ""},
      {{kDriver, "--library", TESSMAR_TEST_CALLBACK_MODULE, kEcho}, 1, "tsmx_Startup", ""},
      {{kDriver, "--host", kEcho}, 3, "/missing/TessmarFirefox", "missing"},
      {{kDriver, "--host", kEcho}, 4, "", "broken"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.argv[1] + " " + c.argv.back() + " " + c.installation);
    home.WriteConfig("config.json", "{\"Tessmar\":\"" + home.path() + "/" + c.installation + "\"}");
    const ProgramResult result = RunProgram(c.argv);
    EXPECT_EQ(c.exit_code, result.exit_code) << result.err;
    EXPECT_NE(std::string::npos, result.err.find(c.error));
    EXPECT_EQ("", result.out);
    EXPECT_EQ("absent", Node(RequestFifo()));
  }
  EXPECT_EQ("tessmar-drive " TESSMAR_TEST_VERSION "\n",
            RunProgram({kDriver, "--version", kEcho}).out);
}

TEST(DriverTest, HostModePrintsRepliesThenCallbacks) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), TESSMAR_TEST_REFERENCE_HOST);
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  const ProgramResult result = RunProgram(
      {kDriver, "--host", "--wait-ms", "200", kEcho, "not json",
       R"({"cmd":"native","id":"2","tabid":"t1","callback":"cb","module":"cbmod"})"});
  EXPECT_EQ(0, result.exit_code) << result.err;
  // The host shares the driver's stderr: no complaint or sanitizer report.
  EXPECT_EQ("", result.err);
  const std::string sent = BuildReplyEnvelope("2", "t1", REPLY_TRUE, "{\"sent\":101}", "cb");
  EXPECT_EQ(0u, result.out.find(EchoReply() + "\n<null>\n" + sent + "\ncallback: {\"response\":"))
      << result.out;
  EXPECT_EQ("absent", Node(RequestFifo()));
}

}  // namespace
}  // namespace tessmar::testing
