// tsmx_Invoke's three routes: to the host while it runs, local version
// queries, and the in-process module host, including the example module end
// to end. Scenarios that load modules or change the bridge's state run in a
// child process of their own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "bridge/bridge_state.h"
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

std::string Envelope(const std::string& id, const std::string& tabid,
                     const std::string& reply, const std::string& callback) {
  return "{\"response\": {\"id\": \"" + id + "\", \"tabid\":\"" + tabid +
         "\", \"status\":\"TRUE\", \"reply\":" + reply + ", \"callback\": \"" +
         callback + "\"}}";
}

std::string CallbackMessage(const std::string& tabid,
                            const std::string& callback,
                            const std::string& reply) {
  return "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"" + tabid +
         "\", \"callback\":\"" + callback + "\", \"reply\":" + reply + "}}";
}

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
      {"{\"init\":\"get_version\",\"module\":\"\"}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":5}", "\"version: 3.1.0.7\""},
      {"{\"init\":\"get_version\",\"module\":\"other\"}",
       "\"version: 1.2.3.4\""},
      {"{\"init\":\"get_version\",\"module\":\"missing\"}", "\"version: \""},
      // reload only when the extension expects a newer, comparable version
      {versions + ",\"pv\":\"2.5.0.1\"}", "{\"reload\":false" + clients},
      {versions + ",\"pv\":\"2.4.9.9\"}", "{\"reload\":false" + clients},
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
  for (const char* init : {"\"INIT\":\"get_version\"", "\"init\":5",
                           "\"init\":\"\"", "\"init\":null"}) {
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

std::string Frame(const std::string& body) {
  const uint32_t length = static_cast<uint32_t>(body.size());
  return std::string(reinterpret_cast<const char*>(&length), 4) + body;
}

TEST(InvokeRouting, WhileTheHostRunsEveryRequestIsForwardedUnexamined) {
  EXPECT_TRUE(RunIsolated([] {
    int request_pipe[2];
    int reply_pipe[2];
    ASSERT_EQ(pipe(request_pipe), 0);
    ASSERT_EQ(pipe(reply_pipe), 0);
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
    close(request_pipe[1]);
    std::string got(sent.size() + 1, '\0');
    std::size_t done = 0;
    for (ssize_t n;
         (n = read(request_pipe[0], &got[done], got.size() - done)) > 0;) {
      done += static_cast<std::size_t>(n);
    }
    EXPECT_EQ(got.substr(0, done), sent);
  }));
}

TEST(InvokeRouting, InProcessModulesReceiveTheBridgesHostTable) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    EXPECT_EQ(InvokeText("{\"cmd\":\"native\",\"id\":\"2\",\"module\":\"rec\","
                         "\"sendCallback\":1}"),
              Envelope("2", "", "{\"from\":\"a\",\"call\":1}", ""));
    EXPECT_EQ(s.Log().at(1),
              SetHostFuncsLine("a", &tessmar::bridge::g_bridgeHostFuncs));
    // The module's SendCallback went to the queue at once.
    EXPECT_EQ(PopText(),
              CallbackMessage("rec-tab", "rec-cb", "{\"from\":\"a\"}"));
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
              std::vector<std::string>{CallbackMessage(
                  "t", "c",
                  "{\"module\":\"echo\",\"event\":\"ping\",\"id\":\"8\"}")});

    // Unloading stops the worker: a registration not yet answered when
    // Terminate runs is dropped, and nothing arrives once it has returned.
    ASSERT_NE(InvokeText(EchoRegistration("9")), std::nullopt);
    UnloadQxClient();
    EXPECT_LE(DrainQueue(), 1u);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(PopText(), "");
    // Loaded afresh by the next request, with a worker of its own again.
    ASSERT_NE(InvokeText(EchoRegistration("10")), std::nullopt);
    EXPECT_EQ(PopMessages(1, 10s).size(), 1u);
    UnloadQxClient();
  }));
}

// The bridge never unloads its modules: the process exits, running the
// module's static destructors while its worker may still wait.
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
