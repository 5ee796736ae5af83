// The reference host and tessmar-drive, run as programs. The host must answer
// as the in-process path does and carry module callbacks to tsmx_Pop.
#include <algorithm>

#include "bridge_host/host_fixture.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kReferenceHost[] = TESSMAR_TEST_REFERENCE_HOST;
constexpr char kDriver[] = TESSMAR_TEST_DRIVER;
using bridge::SetCallbackMessage;

std::string Echo(std::size_t pad) {
  return R"({"cmd":"native","id":"1","echo":true,"pad":")" + std::string(pad, 'x') + "\"}";
}
std::string SendCallbacks(std::size_t n) {
  return R"({"cmd":"native","id":"2","module":"cbmod","callbackBytes":)" + std::to_string(n) + "}";
}

// One host serves every kind of request the in-process path answers (a
// version query, one only \u escapes show to be one, one with no answer, and
// modules' answers and callbacks), byte for byte; bodies that cannot fit the
// pipe whole (the library reads each with one read call) are left out while
// the host goes on serving. It runs as installed into a staging prefix and
// moved to a bin/ directory beside the library directory, where it still
// finds the library.
TEST(ReferenceHostTest, AnswersAndCallsBackAsTheInProcessPathDoes) {
  TempHome home;
  const SignedInstallation install(home);
  const std::string staged = TESSMAR_TEST_STAGING "/" TESSMAR_TEST_INSTALL_DIR;
  const std::string host =
      home.WriteHomeFile("opt/bin/TessmarFirefox", ReadFile(staged + "/TessmarFirefox"));
  ASSERT_EQ(0, chmod(host.c_str(), 0755));
  home.WriteHomeFile("opt/" TESSMAR_TEST_LIBDIR "/libTessmarFirefox.so",
                     ReadFile(staged + "/libTessmarFirefox.so"));
  // The library follows the link to start it, the loader to find the library.
  ASSERT_EQ(0, symlink(host.c_str(), (install.install_dir() + "/TessmarFirefox").c_str()));
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  install.AddModule("echo", TESSMAR_TEST_ECHO_MODULE);
  const std::vector<std::string> requests = {
      R"({"init":"get_version","module":"echo"})",
      R"({"\u0069nit":"get_version","module":"absent"})", "not json", Echo(300 << 10),
      R"({"cmd":"native","id":"5","tabid":"t","callback":"cb",)"
      R"("module":"echo","origin":"https://page.example"})",
      R"({"cmd":"setcallback","id":"6","tabid":"t","callback":"onEcho",)"
      R"("module":"echo","origin":"https://page.example"})",
      // cbmod sends 101 callbacks, 100 of them from four threads at once: the
      // host's writes never interleave, so each arrives whole, and once.
      R"({"cmd":"native","id":"1","tabid":"t1","callback":"cb","module":"cbmod"})",
      SendCallbacks(300 << 10),  // a callback that fits the pipe, and a small one
  };
  const std::size_t pipe_limit = std::stoul(ReadFile("/proc/sys/fs/pipe-max-size"));
  const auto invoke_all = [&requests] {
    std::vector<std::optional<std::string>> replies;
    for (const std::string& request : requests) replies.push_back(InvokeText(request));
    return replies;
  };
  // Threads call back in any order.
  const auto sorted_callbacks = [] {
    std::vector<std::string> messages = PopMessages(104, milliseconds(5000));
    std::sort(messages.begin(), messages.end());
    return messages;
  };
  EXPECT_TRUE(RunIsolated([&] {
    const auto in_process = invoke_all();
    const auto queued = sorted_callbacks();
    ASSERT_EQ(104u, queued.size()) << "cbmod's callbacks and the example's";
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ(in_process, invoke_all());
    EXPECT_EQ(queued, sorted_callbacks());
    // "" cannot be framed: the host's empty answer is a zero-length reply.
    EXPECT_EQ(std::nullopt, InvokeText(R"({"init":"unknown"})"));
    EXPECT_EQ(std::nullopt, InvokeText(Echo(pipe_limit)));
    EXPECT_EQ(in_process[0], InvokeText(requests[0])) << "still serving";
    EXPECT_NE(std::nullopt, InvokeText(SendCallbacks(pipe_limit)));
    EXPECT_EQ(std::vector<std::string>{SetCallbackMessage("t1", "after", "{}")},
              PopMessages(1, milliseconds(5000)));
    EXPECT_EQ(0u, PopMessages(1, milliseconds(100)).size()) << "nothing else";
    tsmx_End();
  }, kDeadlineSeconds));
  EXPECT_NE("absent", Node(home.path() + "/module-terminated"))
      << "the host unloads its modules on the stop message";
}

constexpr char kEcho[] =
    R"({"cmd":"native","id":"1","tabid":"t","callback":"c","echo":true})";

// Both programs' documented exit codes and outputs. The driver answers
// line by line, blank lines skipped; "" prints as an empty line, no reply as
// <null> (host mode is run by the packaging consumer test). It refuses host
// mode before tsmx_Startup when config.json's installation has no host, and
// a host whose exec fails leaves no second driver behind.
TEST(ProgramsTest, AnswerAndReportFailuresWithTheirExitCodes) {
  TempHome home;
  const std::string none = home.path() + "/none.so";
  chmod(home.WriteHomeFile("broken/TessmarFirefox", "#!/nonexistent/shell\n").c_str(), 0755);
  home.WriteHomeFile(std::string("plain/.config/Pelmora/Tessmar/morrowhost/") +
                         bridge::kRequestFifoName, "");
  const struct {
    std::vector<std::string> argv;
    int exit_code;
    std::string error, installation, input = {}, out = {};
  } cases[] = {
      {{kDriver}, 0, "", "", std::string(kEcho) + "\n\n{\"init\":\"unknown\"}\nnot json\n",
       R"({"response": {"id": "1", "tabid":"t", "status":"TRUE", "reply":{"reply":{"status":"0", )"
       R"("reply":{"cmd":"native","id":"1","tabid":"t","callback":"c","echo":true}}}, )"
       R"("callback": "c"}})" "\n\n<null>\n"},
      {{kReferenceHost, "--version"}, 0, "", "", "", "TessmarFirefox " TESSMAR_TEST_VERSION "\n"},
      {{kDriver, "--version", kEcho}, 0, "", "", "", "tessmar-drive " TESSMAR_TEST_VERSION "\n"},
      {{"env", "-u", "HOME", kReferenceHost}, 1, "HOME is not set", ""},
      {{kReferenceHost}, 2, "cannot open", ""},
      {{"env", "HOME=" + home.path() + "/plain", kReferenceHost}, 2, "is not a FIFO", ""},
      {{kReferenceHost, "surplus"}, 1, "usage", ""},
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
    SCOPED_TRACE(::testing::PrintToString(c.argv) + " " + c.installation);
    home.WriteConfig("config.json", "{\"Tessmar\":\"" + home.path() + "/" + c.installation + "\"}");
    const ProgramResult result = RunProgram(c.argv, c.input);
    EXPECT_EQ(c.exit_code, result.exit_code) << result.err;
    EXPECT_NE(std::string::npos, result.err.find(c.error));
    EXPECT_EQ(c.out, result.out);
    EXPECT_EQ("absent", Node(RequestFifo()));
  }
}

}  // namespace
}  // namespace tessmar::testing
