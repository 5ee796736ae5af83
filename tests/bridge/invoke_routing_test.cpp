// tsmx_Invoke's local version queries and in-process module host (forwarding
// to a running host: bridge_host/fifo_framing_test). Stateful scenarios run
// in a child process.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "bridge/bridge_state.h"
#include "bridge/set_callback_message.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "support/module_sandbox.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using namespace tessmar::testing;
using namespace std::chrono_literals;

// Texts pinned byte for byte in tests/modhost and callback_queue_test.
std::string Envelope(const std::string& id, const std::string& tabid,
                     const std::string& reply, const std::string& callback) {
  return BuildReplyEnvelope(id.c_str(), tabid.c_str(), REPLY_TRUE,
                            reply.c_str(), callback.c_str());
}
using tessmar::bridge::SetCallbackMessage;

TEST(LocalQueries, InitRequestsAreAnsweredFromTheConfigFiles) {
  TempHome home;
  const std::string library = home.WriteHomeFile("lib/libclient.so", "lib");
  home.WriteConfig("config.json", "{\"Version\":\"2.5.0.1\"}");
  for (const char* name_version : {"morrowhost\",\"Version\":\"3.1.0.7",
                                   "other\",\"Version\":\"1.2.3.4"}) {
    const std::string nv = name_version;
    home.WriteConfig(
        nv.substr(0, nv.find('"')) + ".json",
        "{\"Path\":\"" + library + "\",\"Sig\":\"s\",\"Name\":\"" + nv + "\"}");
  }
  const std::string clients =
      ", \"qx\":\"2.5.0.1\",\"m\":[{\"name\":\"other\",\"version\":\"1.2.3.4\"}"
      ",{\"name\":\"missing\",\"version\":\"\"}]}";
  const std::string versions =
      "{\"init\":\"get_versions\",\"m\":\"other,missing\"";
  const struct {
    std::string request;
    std::string answer;
  } cases[] = {
      {"{\"init\":\"get_version\"}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":5}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":\"other\"}",
       "\"version: 1.2.3.4\""},
      {"{\"init\":\"get_version\",\"module\":\"missing\"}", "\"version: \""},
      // reload only when the extension expects a newer, comparable version
      {versions + ",\"pv\":\"2.5.0.1\"}", "{\"reload\":false" + clients},
      {versions + ",\"pv\":\"2.5.0.2\"}", "{\"reload\":true" + clients},
      {versions + ",\"pv\":\"2.5\"}", "{\"reload\":false" + clients},
      {"{\"init\":\"get_versions\"}",
       "{\"reload\":false, \"qx\":\"2.5.0.1\",\"m\":[]}"},
      // other values answer "" and never reach the echo below
      {"{\"init\":\"get_Version\",\"cmd\":\"native\",\"id\":\"1\",\"echo\":"
       "true}",
       ""},
      {"{\"init\":\"x\"}", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(InvokeText(c.request), c.answer);
  }
}

TEST(InvokeRouting, OtherRequestsGoToTheModuleHost) {
  for (const char* init : {"\"INIT\":\"get_version\"", "\"init\":5"}) {
    SCOPED_TRACE(init);
    const std::string request =
        std::string("{") + init +
        ",\"cmd\":\"native\",\"id\":\"1\",\"echo\":true}";
    EXPECT_EQ(
        InvokeText(request),
        Envelope("1", "",
                 "{\"reply\":{\"status\":\"0\", \"reply\":" + request + "}}",
                 ""));
  }
  // No answer from the module host gives NULL.
  EXPECT_EQ(InvokeText(nullptr), std::nullopt);
  for (const char* request :
       {"{}", "not json", "{\"cmd\":\"native\",\"module\":\"echo\"}"}) {
    EXPECT_EQ(InvokeText(request), std::nullopt) << request;
  }
  EXPECT_EQ(GetLoadedClientList(), "");
}

// Modules loaded in-process get the bridge's host table; a module name is
// looked up in the configuration directory, never followed as a path.
TEST(InvokeRouting, InProcessModulesGetTheBridgesHostTableAndNoPathNames) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    // A correctly signed module file that a page got saved below HOME.
    const std::string file =
        "{\"Name\":\"x\",\"Path\":\"" FIXTURE_RECORDING_A_PATH "\",\"Sig\":\"" +
        SignedInstallation::ModuleSignature(FIXTURE_RECORDING_A_PATH) +
        "\",\"Version\":\"6.6.6.6\"}";
    s.home.WriteHomeFile("Downloads/x.json", file);
    const std::string name = "../../../../Downloads/x";
    EXPECT_EQ(InvokeText("{\"cmd\":\"native\",\"id\":\"1\",\"module\":\"" +
                         name + "\"}"),
              BuildReplyEnvelope("1", "", REPLY_FALSE, nullptr, ""));
    EXPECT_EQ(InvokeText("{\"init\":\"get_version\",\"module\":\"" + name +
                         "\"}"),
              "\"version: \"");
    EXPECT_TRUE(s.Log().empty()) << "the module was loaded";

    s.home.WriteConfig("x.json", file);
    EXPECT_EQ(InvokeText("{\"cmd\":\"native\",\"id\":\"2\",\"module\":\"x\","
                         "\"sendCallback\":1}"),
              Envelope("2", "", "{\"from\":\"a\",\"call\":1}", ""));
    EXPECT_EQ(s.Log().at(1),
              SetHostFuncsLine("a", &tessmar::bridge::g_bridgeHostFuncs));
    EXPECT_EQ(PopText(),
              SetCallbackMessage("rec-tab", "rec-cb", "{\"from\":\"a\"}"));
    EXPECT_EQ(PopText(), "");
  }));
}

std::string EchoRegistration(const std::string& id) {
  return "{\"cmd\":\"setcallback\",\"id\":\"" + id +
         "\",\"tabid\":\"t\",\"callback\":\"c\",\"module\":\"echo\"}";
}

TEST(EchoModule, AnswersAndSendsOneCallbackFromItsOwnThread) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("echo", FIXTURE_TESSMAR_ECHO_MODULE_PATH);
    const std::string request =
        "{\"cmd\":\"native\",\"id\":\"7\",\"tabid\":\"tab-3\",\"callback\":"
        "\"cb\",\"module\":\"echo\",\"origin\":\"https://"
        "a\\\"b\\\\c\\t\\u0001\"}";
    EXPECT_EQ(InvokeText(request),
              Envelope("7", "tab-3",
                       "{\"module\":\"echo\",\"origin\":"
                       "\"https://a\\\"b\\\\c\\t\\u0001\",\"id\":\"7\","
                       "\"length\":" +
                           std::to_string(request.size()) + "}",
                       "cb"));
    // Declined without a callback name.
    EXPECT_EQ(
        InvokeText("{\"cmd\":\"setcallback\",\"id\":\"8\",\"tabid\":"
                   "\"t\",\"module\":\"echo\"}"),
        Envelope("8", "t", "{\"module\":\"echo\",\"registered\":false}", ""));
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(PopText(), "");  // neither of them sends a callback

    EXPECT_EQ(InvokeText(EchoRegistration("8")),
              Envelope("8", "t",
                       "{\"module\":\"echo\",\"registered\":true,"
                       "\"callback\":\"c\"}",
                       "c"));
    EXPECT_EQ(PopMessages(1, 10s),
              std::vector<std::string>{SetCallbackMessage(
                  "t", "c",
                  "{\"module\":\"echo\",\"event\":\"ping\",\"id\":\"8\"}")});

    // Unloading stops the worker: nothing arrives after Terminate returns.
    ASSERT_NE(InvokeText(EchoRegistration("9")), std::nullopt);
    UnloadQxClient();
    EXPECT_LE(DrainQueue(), 1u);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(PopText(), "");
    // Reloaded by the next request, with a new worker.
    ASSERT_NE(InvokeText(EchoRegistration("10")), std::nullopt);
    EXPECT_EQ(PopMessages(1, 10s).size(), 1u);
    UnloadQxClient();
  }));
}

// Exit without unloading: static destructors run while the worker waits.
TEST(EchoModule, ProcessExitsCleanlyWithoutUnloadingTheModule) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable();  // the registry is kept until exit on purpose
#endif
    s.install.AddModule("echo", FIXTURE_TESSMAR_ECHO_MODULE_PATH);
    ASSERT_NE(InvokeText(EchoRegistration("1")), std::nullopt);
    ASSERT_EQ(PopMessages(1, 10s).size(), 1u);  // the worker now waits
    ASSERT_NE(InvokeText(EchoRegistration("2")), std::nullopt);  // one pending
    if (!::testing::Test::HasFailure()) std::exit(0);
  }));
}

}  // namespace
