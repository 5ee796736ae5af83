// The reference host must answer as the in-process path does and carry
// module callbacks to tsmx_Pop.
#include "tessmar/host_protocol.h"
#include "bridge_host/host_fixture.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kReferenceHost[] = TESSMAR_TEST_REFERENCE_HOST;
using bridge::SetCallbackMessage;

std::string Echo(std::size_t pad) {
  return R"({"cmd":"native","id":"1","echo":true,"pad":")" + std::string(pad, 'x') + "\"}";
}
std::string SendCallbacks(std::size_t n) {
  return R"({"cmd":"native","id":"2","module":"cbmod","callbackBytes":)" + std::to_string(n) + "}";
}

// One host serves every kind of request the in-process path answers, byte
// for byte; bodies that cannot fit the pipe whole (the library reads each
// with one read call) are left out while the host goes on serving.
TEST(ReferenceHostTest, AnswersAndCallsBackAsTheInProcessPathDoes) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), kReferenceHost);
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  install.AddModule("echo", TESSMAR_TEST_ECHO_MODULE);
  const std::vector<std::string> requests = {
      R"({"init":"get_version","module":"echo"})",
      R"({"\u0069nit":"get_version","module":"absent"})",
      R"({"init":"get_versions","m":"echo,absent","pv":"2.5.0.2"})",
      R"({"cmd":"native","id":"8","module":"absent"})", R"({"cmd":"other","id":"9"})",
      "not json", Echo(300 << 10),
      R"({"cmd":"native","id":"5","tabid":"t","callback":"cb",)"
      R"("module":"echo","origin":"https://page.example"})",
      R"({"cmd":"setcallback","id":"6","tabid":"t","callback":"onEcho",)"
      R"("module":"echo","origin":"https://page.example"})",
  };
  const std::size_t pipe_limit = std::stoul(ReadFile("/proc/sys/fs/pipe-max-size"));
  const auto invoke_all = [&requests] {
    std::vector<std::optional<std::string>> replies;
    for (const std::string& request : requests) replies.push_back(InvokeText(request));
    return replies;
  };
  EXPECT_TRUE(RunIsolated([&] {
    const auto in_process = invoke_all();
    const auto queued = PopMessages(1, milliseconds(5000));
    ASSERT_EQ(1u, queued.size()) << "the example calls back after setcallback";
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ(in_process, invoke_all());
    EXPECT_EQ(queued, PopMessages(1, milliseconds(5000)));
    // "" cannot be framed: the host's empty answer is a zero-length reply.
    EXPECT_EQ(std::nullopt, InvokeText(R"({"init":"unknown"})"));

    // cbmod sends 101 callbacks from four threads at once; each thread's
    // messages arrive in order.
    EXPECT_EQ(BuildReplyEnvelope("1", "t1", REPLY_TRUE, "{\"sent\":101}", "cb"),
              InvokeText(R"({"cmd":"native","id":"1","tabid":"t1",)"
                         R"("callback":"cb","module":"cbmod"})"));
    const std::vector<std::string> messages = PopMessages(101, milliseconds(5000));
    ASSERT_EQ(101u, messages.size());
    EXPECT_EQ(SetCallbackMessage("t1", "cb", ""), messages[0]);
    int next[4] = {0, 0, 0, 0};
    for (std::size_t i = 1; i < messages.size(); ++i) {
      const std::size_t at = messages[i].find("{\"thread\":");
      const int t = at == std::string::npos ? 0 : (messages[i][at + 10] - '0') & 3;
      const std::string reply = "{\"thread\":" + std::to_string(t) +
                                ",\"seq\":" + std::to_string(next[t]++) + "}";
      EXPECT_EQ(SetCallbackMessage("t1", "cb", reply.c_str()), messages[i]);
    }

    EXPECT_EQ(std::nullopt, InvokeText(Echo(pipe_limit)));
    EXPECT_EQ(in_process[0], InvokeText(requests[0])) << "still serving";
    EXPECT_NE(std::nullopt, InvokeText(SendCallbacks(300 << 10)));
    const std::string after = SetCallbackMessage("t1", "after", "{}");
    EXPECT_EQ((std::vector<std::string>{
                  SetCallbackMessage("t1", "big",
                                     ("\"" + std::string(300 << 10, 'x') + "\"").c_str()),
                  after}),
              PopMessages(2, milliseconds(5000)));
    EXPECT_NE(std::nullopt, InvokeText(SendCallbacks(pipe_limit)));
    EXPECT_EQ(std::vector<std::string>{after}, PopMessages(1, milliseconds(5000)));
    EXPECT_EQ(0u, PopMessages(1, milliseconds(100)).size()) << "nothing else";
    tsmx_End();
  }, kDeadlineSeconds));
  EXPECT_NE("absent", Node(home.path() + "/module-terminated"))
      << "the host unloads its modules on the stop message";
}

// The host as installed into a staging prefix, moved to a bin/ directory next
// to the library directory, still finds the library.
TEST(ReferenceHostTest, StartsFromABinDirectoryBesideTheLibraries) {
  TempHome home;
  const std::string installed = TESSMAR_TEST_STAGING "/" TESSMAR_TEST_INSTALL_DIR;
  const std::string prefix = home.path() + "/prefix";
  MakeDirectories(prefix + "/bin");
  MakeDirectories(prefix + "/" TESSMAR_TEST_LIBDIR);
  WriteFile(prefix + "/bin/TessmarFirefox", ReadFile(installed + "/TessmarFirefox"));
  ASSERT_EQ(0, chmod((prefix + "/bin/TessmarFirefox").c_str(), 0755));
  WriteFile(prefix + "/" TESSMAR_TEST_LIBDIR "/libTessmarFirefox.so",
            ReadFile(installed + "/libTessmarFirefox.so"));
  home.WriteConfig("config.json",
                   "{\"Tessmar\":\"" + prefix + "/bin\",\"Version\":\"1.2.3.4\"}");
  EXPECT_TRUE(RunIsolated([&] {
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ(R"({"reload":false, "qx":"1.2.3.4","m":[]})",
              InvokeText(R"({"init":"get_versions"})"));
    tsmx_End();
  }, kDeadlineSeconds));
}

TEST(ReferenceHostTest, ReportsItsOwnFailuresWithExitCodes) {
  TempHome home;
  const auto expect = [](std::vector<std::string> argv, int code, const char* text) {
    const ProgramResult result = RunProgram(argv);
    EXPECT_EQ(code, result.exit_code) << argv[0];
    EXPECT_NE(std::string::npos, (result.out + result.err).find(text)) << argv[0];
  };
  expect({"env", "-u", "HOME", kReferenceHost}, 1, "HOME is not set");
  expect({kReferenceHost}, 2, "cannot open");
  home.ConfigDir();
  WriteFile(RequestFifo(), "");
  expect({kReferenceHost}, 2, "is not a FIFO");
  expect({kReferenceHost, "--version"}, 0, "TessmarFirefox " TESSMAR_TEST_VERSION "\n");
  expect({kReferenceHost, "surplus"}, 1, "");
}

}  // namespace
}  // namespace tessmar::testing
