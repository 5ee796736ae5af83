// The reference host TessmarFirefox, started by the library: it must answer
// as the in-process path does and carry module callbacks to tsmx_Pop.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bridge/bridge_state.h"
#include "bridge/set_callback_message.h"
#include "bridge_host/host_fixture.h"
#include "support/signed_installation.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

namespace tessmar::testing {
namespace {

constexpr char kReferenceHost[] = TESSMAR_TEST_REFERENCE_HOST;
constexpr char kVersioned[] = "\"Version\":\"1.2.3.4\",";

TEST(ReferenceHostTest, AnswersEveryRequestAsTheInProcessPathDoes) {
  TempHome home;
  InstallHost(home, kReferenceHost, kVersioned);
  home.WriteConfig("morrowhost.json",
                   R"({"Name":"morrowhost","Path":"/opt/c","Sig":"s",)"
                   R"("Version":"3.1.0.7"})");
  home.WriteConfig("other.json",
                   R"({"Name":"other","Path":"/opt/o","Sig":"s",)"
                   R"("Version":"0.9.0.1"})");
  const std::vector<std::string> requests = {
      R"({"init":"get_version"})",
      R"({"init":"get_version","module":"other"})",
      R"({"init":"get_versions","m":"morrowhost,other,absent","pv":"1.2.3.5"})",
      R"({"init":"get_versions","m":"other","pv":"1.2.3.3"})",
      R"({"cmd":"native","id":"7","tabid":"t","callback":"cb","echo":true})",
      R"({"cmd":"native","id":"8","module":"absent"})",
      R"({"cmd":"other","id":"9"})",
      "not json",
  };

  RunScenario([&] {
    std::vector<std::string> in_process;
    for (const std::string& request : requests) {
      in_process.push_back(InvokeText(request));
    }
    // The configuration was found, so the comparison below means something.
    EXPECT_EQ("\"version: 3.1.0.7\"", in_process[0]);

    ASSERT_EQ(0, tsmx_Startup());
    for (std::size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(in_process[i], InvokeText(requests[i])) << requests[i];
    }
    // In-process an unknown query gives "", which the framing cannot carry:
    // the host's empty answer is a zero-length reply.
    EXPECT_EQ("<null>", InvokeText(R"({"init":"unknown"})"));
    tsmx_End();
  });
}

TEST(ReferenceHostTest, ModuleCallbacksFromManyThreadsArriveWholeAndInOrder) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), kReferenceHost);
  install.AddModule("cbmod", TESSMAR_TEST_CALLBACK_MODULE);
  const std::string request =
      R"({"cmd":"native","id":"1","tabid":"t1","callback":"cb","module":"cbmod"})";

  RunScenario([&] {
    ASSERT_EQ(0, tsmx_Startup());
    EXPECT_EQ(BuildReplyEnvelope("1", "t1", REPLY_TRUE, "{\"sent\":101}", "cb"),
              InvokeText(request));
    const std::vector<std::string> messages = PopMessages(101);
    ASSERT_EQ(101u, messages.size());
    // The host builds the same text as the library's own SendCallback.
    EXPECT_EQ(tessmar::bridge::SetCallbackMessage("t1", "cb", ""), messages[0]);
    // Each thread's messages arrive whole and in the order it sent them.
    int next[4] = {0, 0, 0, 0};
    for (std::size_t i = 1; i < messages.size(); ++i) {
      bool matched = false;
      for (int t = 0; t < 4 && !matched; ++t) {
        const std::string reply = "{\"thread\":" + std::to_string(t) +
                                  ",\"seq\":" + std::to_string(next[t]) + "}";
        if (messages[i] ==
            tessmar::bridge::SetCallbackMessage("t1", "cb", reply.c_str())) {
          ++next[t];
          matched = true;
        }
      }
      EXPECT_TRUE(matched) << messages[i];
    }
    tsmx_End();
  });
  EXPECT_TRUE(!Absent(home.path() + "/module-terminated"))
      << "the host unloads its modules on the stop message";
}

TEST(ReferenceHostTest, ExampleModuleAnswersAndCallsBackAsInProcess) {
  TempHome home;
  const SignedInstallation install(home);
  LinkHost(install.install_dir(), kReferenceHost);
  install.AddModule("echo", TESSMAR_TEST_ECHO_MODULE);
  const std::vector<std::string> requests = {
      R"({"cmd":"native","id":"5","tabid":"t","callback":"cb",)"
      R"("module":"echo","origin":"https://page.example"})",
      R"({"cmd":"setcallback","id":"6","tabid":"t","callback":"onEcho",)"
      R"("module":"echo","origin":"https://page.example"})",
  };

  RunScenario([&] {
    // In-process the module's callbacks reach the queue directly; through
    // the host they take the callback FIFO. Both must end up the same.
    std::vector<std::string> in_process;
    for (const std::string& request : requests) {
      in_process.push_back(InvokeText(request));
    }
    const std::vector<std::string> queued = PopMessages(8, milliseconds(500));
    ASSERT_FALSE(queued.empty()) << "the example calls back after setcallback";
    ASSERT_EQ(0, tsmx_Startup());
    for (std::size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(in_process[i], InvokeText(requests[i])) << requests[i];
    }
    EXPECT_EQ(queued, PopMessages(queued.size() + 1, milliseconds(500)));
    tsmx_End();
  });
}

TEST(ReferenceHostTest, ReportsItsOwnFailuresWithExitCodes) {
  TempHome home;
  ProgramResult result = RunProgram({kReferenceHost}, "", {"HOME"});
  EXPECT_EQ(1, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("HOME is not set"));

  result = RunProgram({kReferenceHost});  // no FIFOs under this HOME
  EXPECT_EQ(2, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("cannot open"));

  home.ConfigDir();
  WriteFile(RequestFifo(), "");
  result = RunProgram({kReferenceHost});
  EXPECT_EQ(2, result.exit_code);
  EXPECT_NE(std::string::npos, result.err.find("is not a FIFO"));

  result = RunProgram({kReferenceHost, "--help"});
  EXPECT_EQ(0, result.exit_code);
  EXPECT_NE(std::string::npos, result.out.find("exit status"));
  EXPECT_EQ(1, RunProgram({kReferenceHost, "surplus"}).exit_code);
}

}  // namespace
}  // namespace tessmar::testing
