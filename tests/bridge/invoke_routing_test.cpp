// tsmx_Invoke's three routes: to the host while it runs, local version
// queries, and the in-process module host, including the example module end
// to end. Scenarios that load modules or change the bridge's state run in a
// child process of their own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "bridge/bridge_state.h"
#include "support/bridge_calls.h"
#include "support/fixture_log.h"
#include "support/isolated_process.h"
#include "support/module_sandbox.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using tessmar::testing::InvokeText;
using tessmar::testing::ModuleSandbox;
using tessmar::testing::PopMessages;
using tessmar::testing::PopText;
using tessmar::testing::RunIsolated;
using tessmar::testing::SignedInstallation;
using tessmar::testing::TempHome;
using namespace std::chrono_literals;

std::string Envelope(const std::string& id, const std::string& tabid,
                     const std::string& status, const std::string& reply,
                     const std::string& callback) {
  return "{\"response\": {\"id\": \"" + id + "\", \"tabid\":\"" + tabid +
         "\", \"status\":\"" + status + "\", \"reply\":" + reply +
         ", \"callback\": \"" + callback + "\"}}";
}

std::string EchoEnvelope(const std::string& request) {
  return Envelope("1", "", "TRUE",
                  "{\"reply\":{\"status\":\"0\", \"reply\":" + request + "}}",
                  "");
}

std::string CallbackMessage(const std::string& tabid,
                            const std::string& callback,
                            const std::string& reply) {
  return "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"" + tabid +
         "\", \"callback\":\"" + callback + "\", \"reply\":" + reply + "}}";
}

// --- Local answers (no host, no module loaded) ------------------------------

// An installation with a framework version and two client modules.
class LocalQueries : public ::testing::Test {
 protected:
  LocalQueries() {
    const std::string library = home_.WriteHomeFile("lib/libclient.so", "lib");
    home_.WriteConfig("config.json", "{\"Version\":\"2.5.0.1\"}");
    home_.WriteConfig("morrowhost.json",
                      "{\"Name\":\"morrowhost\",\"Path\":\"" + library +
                          "\",\"Sig\":\"s\",\"Version\":\"3.1.0.7\"}");
    home_.WriteConfig("other.json", "{\"Name\":\"other\",\"Path\":\"" +
                                        library +
                                        "\",\"Sig\":\"s\",\"Version\":"
                                        "\"1.2.3.4\"}");
  }
  TempHome home_;
};

TEST_F(LocalQueries, GetVersionReportsTheNamedClientOrMorrowhost) {
  const struct {
    const char* request;
    const char* answer;
  } cases[] = {
      {"{\"init\":\"get_version\"}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":\"\"}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":5}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":\"other\"}",
       "\"version: 1.2.3.4\""},
      {"{\"init\":\"get_version\",\"module\":\"missing\"}", "\"version: \""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(InvokeText(c.request), c.answer);
  }
}

TEST_F(LocalQueries, GetVersionsAnswersReloadFrameworkAndClientVersions) {
  const std::string clients =
      "[{\"name\":\"other\",\"version\":\"1.2.3.4\"},"
      "{\"name\":\"missing\",\"version\":\"\"}]";
  const struct {
    const char* pv;
    const char* reload;
  } cases[] = {{"2.5.0.1", "false"},  // as expected: no reload
               {"2.4.9.9", "false"},
               {"2.5.0.2", "true"},  // the extension expects a newer one
               {"2.5", "false"}};    // not comparable
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pv);
    EXPECT_EQ(InvokeText(std::string("{\"init\":\"get_versions\",\"m\":"
                                     "\"other,missing\",\"pv\":\"") +
                         c.pv + "\"}"),
              std::string("{\"reload\":") + c.reload +
                  ", \"qx\":\"2.5.0.1\",\"m\":" + clients + "}");
  }
  EXPECT_EQ(InvokeText("{\"init\":\"get_versions\"}"),
            "{\"reload\":false, \"qx\":\"2.5.0.1\",\"m\":[]}");
}

TEST_F(LocalQueries, OtherInitValuesGiveEmptyTextWithoutReachingModules) {
  // Without the "init" member this request would be echoed.
  EXPECT_EQ(InvokeText("{\"init\":\"get_Version\",\"cmd\":\"native\","
                       "\"id\":\"1\",\"echo\":true}"),
            "");
  EXPECT_EQ(InvokeText("{\"init\":\"x\"}"), "");
}

TEST(InvokeRouting, RequestsWithoutAStringInitGoToTheModuleHost) {
  for (const char* init : {"\"INIT\":\"get_version\"", "\"init\":5",
                           "\"init\":\"\"", "\"init\":null"}) {
    SCOPED_TRACE(init);
    const std::string request =
        std::string("{") + init +
        ",\"cmd\":\"native\",\"id\":\"1\",\"echo\":true}";
    EXPECT_EQ(InvokeText(request), EchoEnvelope(request));
  }
}

TEST(InvokeRouting, NoAnswerFromTheModuleHostGivesNull) {
  EXPECT_EQ(InvokeText(nullptr), std::nullopt);
  EXPECT_EQ(InvokeText("{}"), std::nullopt);
  EXPECT_EQ(InvokeText("not json"), std::nullopt);
  EXPECT_EQ(InvokeText("{\"cmd\":\"native\",\"module\":\"echo\"}"),
            std::nullopt);
  EXPECT_EQ(GetLoadedClientList(), "");
}

// --- Host mode
// ----------------------------------------------------------------

std::string Frame(const std::string& body) {
  const uint32_t length = static_cast<uint32_t>(body.size());
  return std::string(reinterpret_cast<const char*>(&length), 4) + body;
}

// Reads exactly `size` bytes; fewer when the pipe reports an error.
std::string ReadExactly(int fd, std::size_t size) {
  std::string data(size, '\0');
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = read(fd, &data[done], size - done);
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  data.resize(done);
  return data;
}

TEST(InvokeRouting, WhileTheHostRunsEveryRequestIsForwardedUnexamined) {
  EXPECT_TRUE(RunIsolated([] {
    int request_pipe[2];
    int reply_pipe[2];
    ASSERT_EQ(pipe(request_pipe), 0);
    ASSERT_EQ(pipe(reply_pipe), 0);
    // The host's replies, ready before the requests are sent.
    const std::string replies = Frame("first reply") + Frame("\"second\"");
    ASSERT_EQ(write(reply_pipe[1], replies.data(), replies.size()),
              static_cast<ssize_t>(replies.size()));
    tessmar::bridge::w_fifo = request_pipe[1];
    tessmar::bridge::r_fifo = reply_pipe[0];
    tessmar::bridge::set_Startup = true;

    const std::string not_json = "not json at all";
    const std::string query = "{\"init\":\"get_version\"}";
    EXPECT_EQ(InvokeText(not_json), "first reply");
    EXPECT_EQ(InvokeText(query), "\"second\"");
    const std::string sent = Frame(not_json) + Frame(query);
    EXPECT_EQ(ReadExactly(request_pipe[0], sent.size()), sent);
  }));
}

// --- In-process modules ---------------------------------------------------

TEST(InvokeRouting, InProcessModulesReceiveTheBridgesHostTable) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    EXPECT_EQ(InvokeText("{\"cmd\":\"native\",\"id\":\"2\",\"module\":\"rec\","
                         "\"sendCallback\":1}"),
              Envelope("2", "", "TRUE", "{\"from\":\"a\",\"call\":1}", ""));
    char host[32];
    std::snprintf(host, sizeof host, "%p",
                  static_cast<void*>(&tessmar::bridge::g_bridgeHostFuncs));
    EXPECT_EQ(
        s.log.Lines().at(1),
        tessmar::testing::LogLine({"a", "SetHostFuncs", "1", "48", "2", host}));
    // The module's SendCallback went to the queue at once.
    EXPECT_EQ(PopText(),
              CallbackMessage("rec-tab", "rec-cb", "{\"from\":\"a\"}"));
    EXPECT_EQ(PopText(), "");
  }));
}

TEST(EchoModule, AnswersWithEscapedFieldsOfTheRequest) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("echo", FIXTURE_TESSMAR_ECHO_MODULE_PATH);
    const std::string request =
        "{\"cmd\":\"native\",\"id\":\"7\",\"tabid\":\"tab-3\",\"callback\":"
        "\"cb\",\"module\":\"echo\",\"origin\":\"https://"
        "a\\\"b\\\\c\\t\\u0001\"}";
    EXPECT_EQ(InvokeText(request),
              Envelope("7", "tab-3", "TRUE",
                       "{\"module\":\"echo\",\"origin\":"
                       "\"https://a\\\"b\\\\c\\t\\u0001\",\"id\":\"7\","
                       "\"length\":" +
                           std::to_string(request.size()) + "}",
                       "cb"));
    EXPECT_EQ(PopText(), "");  // ordinary requests send no callback
  }));
}

TEST(EchoModule, SendsOneCallbackFromItsOwnThreadAfterSetCallback) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("echo", FIXTURE_TESSMAR_ECHO_MODULE_PATH);
    EXPECT_EQ(
        InvokeText("{\"cmd\":\"setcallback\",\"id\":\"8\",\"tabid\":"
                   "\"tab-3\",\"callback\":\"onEcho\",\"module\":\"echo\"}"),
        Envelope("8", "tab-3", "TRUE",
                 "{\"module\":\"echo\",\"registered\":true,"
                 "\"callback\":\"onEcho\"}",
                 "onEcho"));
    EXPECT_EQ(PopMessages(1, 10s),
              std::vector<std::string>{CallbackMessage(
                  "tab-3", "onEcho",
                  "{\"module\":\"echo\",\"event\":\"ping\",\"id\":\"8\"}")});

    // Unloading stops the worker: a registration not yet answered when
    // Terminate runs is dropped, and nothing arrives once it has returned.
    ASSERT_NE(InvokeText("{\"cmd\":\"setcallback\",\"id\":\"9\",\"tabid\":"
                         "\"t\",\"callback\":\"c\",\"module\":\"echo\"}"),
              std::nullopt);
    UnloadQxClient();
    EXPECT_LE(tessmar::testing::DrainQueue(), 1u);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(PopText(), "");

    // Loaded afresh by the next request, with a worker of its own again.
    ASSERT_NE(InvokeText("{\"cmd\":\"setcallback\",\"id\":\"10\",\"tabid\":"
                         "\"t\",\"callback\":\"c\",\"module\":\"echo\"}"),
              std::nullopt);
    EXPECT_EQ(PopMessages(1, 10s).size(), 1u);
    UnloadQxClient();
  }));
}

// The bridge never unloads its modules: the process simply exits, running
// the module's static destructors while its worker thread may still wait.
TEST(EchoModule, ProcessExitsCleanlyWithoutUnloadingTheModule) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
#if defined(__SANITIZE_ADDRESS__)
    // The registry's records are kept until exit on purpose; this scenario
    // ends with a normal exit, so keep them out of the leak report.
    __lsan_disable();
#endif
    s.install.AddModule("echo", FIXTURE_TESSMAR_ECHO_MODULE_PATH);
    ASSERT_NE(InvokeText("{\"cmd\":\"setcallback\",\"id\":\"1\",\"tabid\":"
                         "\"t\",\"callback\":\"c\",\"module\":\"echo\"}"),
              std::nullopt);
    ASSERT_EQ(PopMessages(1, 10s).size(), 1u);  // the worker now waits
    ASSERT_NE(InvokeText("{\"cmd\":\"setcallback\",\"id\":\"2\",\"tabid\":"
                         "\"t\",\"callback\":\"c\",\"module\":\"echo\"}"),
              std::nullopt);  // and now has one pending
    if (!::testing::Test::HasFailure()) std::exit(0);
  }));
}

TEST(EchoModule, RegistrationWithoutCallbackNameIsDeclined) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("echo", FIXTURE_TESSMAR_ECHO_MODULE_PATH);
    EXPECT_EQ(InvokeText("{\"cmd\":\"setcallback\",\"id\":\"8\",\"tabid\":"
                         "\"t\",\"module\":\"echo\"}"),
              Envelope("8", "t", "TRUE",
                       "{\"module\":\"echo\",\"registered\":false}", ""));
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(PopText(), "");
    UnloadQxClient();
  }));
}

}  // namespace
