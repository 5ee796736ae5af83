// tsmx_Invoke without a host: version queries and the in-process module host.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "bridge/bridge_state.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "tessmar/bridge.h"
#include "tessmar/modhost.h"

namespace {

using namespace tessmar::testing;
using tessmar::bridge::SetCallbackMessage;

TEST(LocalQueries, InitRequestsAreAnsweredFromTheConfigFiles) {
  TempHome home;
  const std::string library = home.WriteHomeFile("lib/libclient.so", "lib");
  home.WriteConfig("config.json", R"({"Version":"2.5.0.1"})");
  home.WriteConfig("morrowhost.json", ModuleJson("morrowhost", library, "s", "3.1.0.7"));
  home.WriteConfig("other.json", ModuleJson("other", library, "s", "1.2.3.4"));
  const std::string clients =
      R"(, "qx":"2.5.0.1","m":[{"name":"other","version":"1.2.3.4"})"
      R"(,{"name":"missing","version":""}]})";
  const std::string versions = R"({"init":"get_versions","m":"other,missing")";
  const struct { std::string request, answer; } cases[] = {
      {R"({"init":"get_version"})", R"("version: 3.1.0.7")"},
      {R"({"init":"get_version","module":"other"})", R"("version: 1.2.3.4")"},
      // reload only when the extension expects a newer, comparable version
      {versions + R"(,"pv":"2.5.0.1"})", R"({"reload":false)" + clients},
      {versions + R"(,"pv":"2.5.0.2"})", R"({"reload":true)" + clients},
      // other values answer "" and never reach the echo below
      {R"({"init":"get_Version","cmd":"native","id":"1","echo":true})", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(InvokeText(c.request), c.answer);
  }
}

TEST(InvokeRouting, OtherRequestsGoToTheModuleHost) {
  TempHome home;  // never the user's configuration
  for (const char* init : {R"("INIT":"get_version")", R"("init":5)"}) {
    const std::string request =
        std::string("{") + init + R"(,"cmd":"native","id":"1","echo":true})";
    const std::string echo = R"({"reply":{"status":"0", "reply":)" + request + "}}";
    EXPECT_EQ(InvokeText(request), BuildReplyEnvelope("1", "", REPLY_TRUE, echo.c_str(), ""));
  }
  // No answer from the module host gives NULL.
  for (const char* request : {static_cast<const char*>(nullptr), "{}", "not json"}) {
    EXPECT_EQ(InvokeText(request), std::nullopt) << (request ? request : "NULL");
  }
}

// Modules loaded in-process get the bridge's host table; a module name is
// looked up in the configuration directory, never followed as a path.
TEST(InvokeRouting, InProcessModulesGetTheBridgesHostTableAndNoPathNames) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    // A correctly signed module file a page saved below HOME.
    const std::string file = ModuleJson(
        "x", FIXTURE_RECORDING_A_PATH, SignedInstallation::ModuleSignature(FIXTURE_RECORDING_A_PATH));
    s.home.WriteHomeFile("Downloads/x.json", file);
    EXPECT_EQ(InvokeText(R"({"cmd":"native","id":"1","module":"../../../../Downloads/x"})"),
              BuildReplyEnvelope("1", "", REPLY_FALSE, nullptr, ""));
    EXPECT_EQ(InvokeText(R"({"init":"get_version","module":"../../../../Downloads/x"})"),
              R"("version: ")");
    EXPECT_TRUE(s.Log().empty()) << "the module was loaded";

    s.home.WriteConfig("x.json", file);
    EXPECT_EQ(InvokeText(R"({"cmd":"native","id":"2","module":"x","sendCallback":1})"),
              BuildReplyEnvelope("2", "", REPLY_TRUE, R"({"from":"a","call":1})", ""));
    EXPECT_EQ(s.Log().at(1), SetHostFuncsLine("a", &tessmar::bridge::g_bridgeHostFuncs));
    EXPECT_EQ(PopText(), SetCallbackMessage("rec-tab", "rec-cb", R"({"from":"a"})"));
    EXPECT_EQ(PopText(), "");
  }));
}

}  // namespace
