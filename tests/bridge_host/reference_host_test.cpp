// The reference host must answer as the in-process path does and carry
// module callbacks to tsmx_Pop.
#include "bridge/bridge_state.h"
#include "bridge/set_callback_message.h"
#include "bridge_host/host_fixture.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kReferenceHost[] = TESSMAR_TEST_REFERENCE_HOST;

std::vector<std::string> InvokeAll(const std::vector<std::string>& requests) {
  std::vector<std::string> replies;
  for (const std::string& request : requests) {
    replies.push_back(InvokeText(request));
  }
  return replies;
}

TEST(ReferenceHostTest, AnswersEveryRequestAsTheInProcessPathDoes) {
  TempHome home;
  InstallHost(home, kReferenceHost, "\"Version\":\"1.2.3.4\",");
  home.WriteConfig("morrowhost.json",
                   R"({"Name":"morrowhost","Path":"/opt/c","Sig":"s",)"
                   R"("Version":"3.1.0.7"})");
  const std::vector<std::string> requests = {
      R"({"init":"get_version"})",
      R"({"\u0069nit":"get_version","module":"absent"})",
      R"({"init":"get_versions","m":"morrowhost,absent","pv":"1.2.3.5"})",
      R"({"cmd":"native","id":"7","tabid":"t","callback":"cb","echo":true})",
      R"({"cmd":"native","id":"8","module":"absent"})",
      R"({"cmd":"other","id":"9"})",
      "not json",
  };
  RunScenario([&] {
    const std::vector<std::string> in_process = InvokeAll(requests);
    EXPECT_EQ("\"version: 3.1.0.7\"", in_process[0]);
    EXPECT_EQ("\"version: \"", in_process[1]);
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ(in_process, InvokeAll(requests));
    // "" cannot be framed: the host's empty answer is a zero-length reply.
    EXPECT_EQ("<null>", InvokeText(R"({"init":"unknown"})"));
    tsmx_End();
  });
}

TEST(ReferenceHostTest, CarriesModuleRepliesAndCallbacksAsInProcess) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), kReferenceHost);
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  install.AddModule("echo", TESSMAR_TEST_ECHO_MODULE);
  const std::vector<std::string> echo_requests = {
      R"({"cmd":"native","id":"5","tabid":"t","callback":"cb",)"
      R"("module":"echo","origin":"https://page.example"})",
      R"({"cmd":"setcallback","id":"6","tabid":"t","callback":"onEcho",)"
      R"("module":"echo","origin":"https://page.example"})",
  };
  RunScenario([&] {
    const std::vector<std::string> in_process = InvokeAll(echo_requests);
    const std::vector<std::string> queued = PopMessages(8, milliseconds(500));
    ASSERT_FALSE(queued.empty()) << "the example calls back after setcallback";
    ASSERT_EQ(0, tsmx_Startup());

    // cbmod sends 101 callbacks from four threads at once.
    EXPECT_EQ(BuildReplyEnvelope("1", "t1", REPLY_TRUE, "{\"sent\":101}", "cb"),
              InvokeText(R"({"cmd":"native","id":"1","tabid":"t1",)"
                         R"("callback":"cb","module":"cbmod"})"));
    const std::vector<std::string> messages = PopMessages(101);
    ASSERT_EQ(101u, messages.size());
    // Each thread's messages in order.
    EXPECT_EQ(bridge::SetCallbackMessage("t1", "cb", ""), messages[0]);
    int next[4] = {0, 0, 0, 0};
    for (std::size_t i = 1; i < messages.size(); ++i) {
      bool matched = false;
      for (int t = 0; t < 4 && !matched; ++t) {
        const std::string reply = "{\"thread\":" + std::to_string(t) +
                                  ",\"seq\":" + std::to_string(next[t]) + "}";
        matched = messages[i] == bridge::SetCallbackMessage("t1", "cb",
                                                            reply.c_str());
        if (matched) ++next[t];
      }
      EXPECT_TRUE(matched) << messages[i];
    }

    EXPECT_EQ(in_process, InvokeAll(echo_requests));
    EXPECT_EQ(queued, PopMessages(queued.size() + 1, milliseconds(500)));
    tsmx_End();
  });
  EXPECT_FALSE(Absent(home.path() + "/module-terminated"))
      << "the host unloads its modules on the stop message";
}

// The host as installed into a staging prefix of this build tree: in the
// installation directory beside the library, and in a bin/ directory next
// to the library directory.
TEST(ReferenceHostTest, StartsFromEitherInstalledLayout) {
  TempHome home;
  const std::string installed = TESSMAR_TEST_STAGING "/" TESSMAR_TEST_INSTALL_DIR;
  const std::string prefix = home.path() + "/prefix";
  MakeDirectories(prefix + "/bin");
  MakeDirectories(prefix + "/" TESSMAR_TEST_LIBDIR);
  WriteFile(prefix + "/bin/TessmarFirefox",
            ReadFile(installed + "/TessmarFirefox"));
  ASSERT_EQ(0, chmod((prefix + "/bin/TessmarFirefox").c_str(), 0755));
  WriteFile(prefix + "/" TESSMAR_TEST_LIBDIR "/libTessmarFirefox.so",
            ReadFile(installed + "/libTessmarFirefox.so"));

  for (const std::string& dir : {installed, prefix + "/bin"}) {
    SCOPED_TRACE(dir);
    home.WriteConfig("config.json", "{\"Tessmar\":\"" + dir +
                                        "\",\"Version\":\"1.2.3.4\"}");
    RunScenario([&] {
      ASSERT_EQ(0, tsmx_Startup());
      EXPECT_EQ("{\"reload\":false, \"qx\":\"1.2.3.4\",\"m\":[]}",
                InvokeText(R"({"init":"get_versions"})"));
      tsmx_End();
    });
  }
}

std::size_t PipeMaxSize() {
  return std::stoul(ReadFile("/proc/sys/fs/pipe-max-size"));
}

// The library reads each body with one read call: what cannot fit the pipe
// whole is left out, and the host goes on serving.
TEST(ReferenceHostTest, FramesLargerThanThePipeFitOrAreLeftOut) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), kReferenceHost);
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  const auto echo = [](std::size_t pad) {
    return R"({"cmd":"native","id":"1","echo":true,"pad":")" +
           std::string(pad, 'x') + "\"}";
  };
  const auto callbacks = [](std::size_t bytes) {
    return R"({"cmd":"native","id":"2","module":"cbmod","callbackBytes":)" +
           std::to_string(bytes) + "}";
  };
  const std::size_t limit = PipeMaxSize();
  RunScenario([&] {
    const std::string small = echo(1), large = echo(300 << 10);
    const std::string small_reply = InvokeText(small);
    const std::string large_reply = InvokeText(large);
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ(large_reply, InvokeText(large));
    EXPECT_EQ("<null>", InvokeText(echo(limit)));
    EXPECT_EQ(small_reply, InvokeText(small)) << "still serving";

    EXPECT_NE("<null>", InvokeText(callbacks(300 << 10)));
    std::vector<std::string> messages = PopMessages(2);
    ASSERT_EQ(2u, messages.size());
    EXPECT_EQ(bridge::SetCallbackMessage(
                  "t1", "big", ("\"" + std::string(300 << 10, 'x') + "\"").c_str()),
              messages[0]);
    EXPECT_NE("<null>", InvokeText(callbacks(limit)));
    messages = PopMessages(1);
    EXPECT_EQ((std::vector<std::string>{
                  bridge::SetCallbackMessage("t1", "after", "{}")}),
              messages);
    tsmx_End();
  });
}

TEST(ReferenceHostTest, ReportsItsOwnFailuresWithExitCodes) {
  TempHome home;
  struct {
    std::vector<std::string> argv;
    bool without_home;
    int exit_code;
    std::string ProgramResult::*stream;
    const char* text;
  } const cases[] = {
      {{kReferenceHost}, true, 1, &ProgramResult::err, "HOME is not set"},
      {{kReferenceHost}, false, 2, &ProgramResult::err, "cannot open"},
      {{kReferenceHost, "--help"}, false, 0, &ProgramResult::out, "exit status"},
      {{kReferenceHost, "--version"}, true, 0, &ProgramResult::out,
       "TessmarFirefox " TESSMAR_TEST_VERSION "\n"},
      {{kReferenceHost, "surplus"}, false, 1, &ProgramResult::err, "usage"},
      {{kReferenceHost, "--version", "surplus"}, false, 1, &ProgramResult::err,
       "usage"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.argv.back());
    const ProgramResult result = RunProgram(c.argv, "", c.without_home);
    EXPECT_EQ(c.exit_code, result.exit_code);
    EXPECT_NE(std::string::npos, (result.*c.stream).find(c.text));
    EXPECT_EQ("", c.stream == &ProgramResult::out ? result.err : result.out);
  }
  home.ConfigDir();
  WriteFile(RequestFifo(), "");
  const ProgramResult result = RunProgram({kReferenceHost});
  EXPECT_EQ(2, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("is not a FIFO"));
}

}  // namespace
}  // namespace tessmar::testing
