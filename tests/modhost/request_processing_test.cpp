// Request processing, replies compared byte for byte; scenarios that load
// modules run isolated.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "modhost/module_registry.h"
#include "support/isolated_process.h"
#include "support/module_sandbox.h"
#include "tessmar/modhost.h"

namespace {

using namespace tessmar::testing;

std::string Process(const std::string& request, QXHostFuncs* host = nullptr) {
  return process_request(nullptr, request.c_str(),
                         static_cast<int>(request.size()), host);
}

std::string Envelope(const std::string& id, const std::string& tabid,
                     const std::string& status, const std::string& reply,
                     const std::string& callback) {
  return "{\"response\": {\"id\": \"" + id + "\", \"tabid\":\"" + tabid +
         "\", \"status\":\"" + status + "\", \"reply\":" + reply +
         ", \"callback\": \"" + callback + "\"}}";
}

std::string EchoAnswer(const std::string& request) {
  return "{\"reply\":{\"status\":\"0\", \"reply\":" + request + "}}";
}

// Log lines after the first `skip`, sorted (broadcast order is not fixed).
Lines SortedLogAfter(const ModuleSandbox& s, std::size_t skip) {
  Lines lines = s.Log();
  lines.erase(lines.begin(), lines.begin() + static_cast<long>(skip));
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST(ProcessRequest, UnusableRequestsAndModuleRequestsWithoutIdGetNoReply) {
  const std::string with_id = ",\"id\":\"1\",\"echo\":true}";
  const std::string cases[] = {
      "", "not json", "[\"cmd\",\"native\"]", "{}",
      "{\"cmd\":\"other\"" + with_id, "{\"cmd\":\"Native\"" + with_id,
      "{\"cmd\":5" + with_id, "{\"CMD\":\"native\"" + with_id,
      "{\"cmd\":\"other\",\"cmd\":\"native\"" + with_id,
      // echo must be the literal true; else it goes to a module, needing "id"
      "{\"cmd\":\"native\",\"echo\":\"true\"}",
      "{\"cmd\":\"native\",\"echo\":1}", "{\"cmd\":\"native\",\"echo\":null}",
      "{\"cmd\":\"native\",\"echo\":false,\"echo\":true}",
      "{\"cmd\":\"native\",\"module\":\"x\",\"tabid\":\"t\"}",
      "{\"cmd\":\"setcallback\",\"tabid\":\"t\"}",
      "{\"cmd\":\"native\",\"id\":7}"};
  for (const std::string& request : cases) {
    SCOPED_TRACE(request);
    EXPECT_EQ(Process(request), "");
  }
  // Only `length` bytes are parsed: a cut request is not JSON.
  const std::string echo = "{\"cmd\":\"native\"" + with_id;
  EXPECT_EQ(process_request(nullptr, echo.c_str(), 10, nullptr), "");
  EXPECT_EQ(GetLoadedClientList(), "");
}

TEST(ProcessRequest, EchoAndEmptyBroadcastAreAnsweredWithoutAModule) {
  const std::string request =
      "{\"cmd\":\"native\",\"id\":\"7\",\"tabid\":\"t\",\"callback\":\"cb\","
      "\"echo\":true,\"module\":\"nowhere\",\"x\":[1]}";
  EXPECT_EQ(Process(request),
            Envelope("7", "t", "TRUE", EchoAnswer(request), "cb"));
  // The echo holds the `length` bytes given, not what follows them.
  const std::string padded = request + "trailing bytes";
  EXPECT_EQ(process_request(nullptr, padded.c_str(),
                            static_cast<int>(request.size()), nullptr),
            Envelope("7", "t", "TRUE", EchoAnswer(request), "cb"));
  const std::string setcallback =
      "{\"cmd\":\"setcallback\",\"echo\":true,\"tabid\":\"t\"}";
  EXPECT_EQ(Process(setcallback),
            Envelope("", "t", "TRUE", EchoAnswer(setcallback), ""));
  EXPECT_EQ(Process("{\"cmd\":\"native\",\"id\":\"9\",\"tabid\":\"t\","
                    "\"callback\":\"c\",\"module\":\"_all_\"}"),
            Envelope("9", "t", "TRUE", "{}", "c"));
  EXPECT_EQ(Process("{\"cmd\":\"setcallback\",\"tabid\":\"t\","
                    "\"module\":\"_all_\"}"),
            Envelope("", "t", "TRUE", "{}", ""));
  EXPECT_EQ(GetLoadedClientList(), "");
}

TEST(ProcessRequest, ModuleAnswersAreWrappedWithTheRequestsOwnFields) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    QXHostFuncs host = tessmar::g_defaultHostFuncs;
    const std::string request =
        "{\"cmd\":\"native\",\"id\":\"42\",\"tabid\":\"tab\",\"callback\":"
        "\"cb\",\"module\":\"rec\",\"origin\":\"https://o.example\"}";
    for (const char* call : {"1", "2"}) {
      EXPECT_EQ(Process(request, &host),
                Envelope("42", "tab", "TRUE",
                         std::string("{\"from\":\"a\",\"call\":") + call + "}",
                         "cb"));
    }
    const std::string invoke =
        LogLine({"a", "Invoke", "https://o.example", "42", request});
    EXPECT_EQ(s.Log(),
              (Lines{"a\tInitialize", SetHostFuncsLine("a", &host), invoke,
                     "a\tFreeString\t{\"from\":\"a\",\"call\":1}", invoke,
                     "a\tFreeString\t{\"from\":\"a\",\"call\":2}"}));

    const std::string setcallback =
        "{\"cmd\":\"setcallback\",\"id\":\"5\",\"tabid\":\"tab-1\","
        "\"callback\":\"onX\",\"module\":\"rec\",\"origin\":\"o\"}";
    EXPECT_EQ(Process(setcallback),
              Envelope("5", "tab-1", "TRUE",
                       "{\"from\":\"a\",\"setcallback\":1}", "onX"));
    EXPECT_EQ(s.Log().at(6), LogLine({"a", "SetCallback", "o", "5", setcallback,
                                      "tab-1", "1"}));

    // Without a module name the request goes to "morrowhost".
    s.install.AddModule("morrowhost", FIXTURE_RECORDING_B_PATH);
    int call = 0;
    for (const char* module : {"", ",\"module\":\"\"", ",\"module\":5"}) {
      SCOPED_TRACE(module);
      EXPECT_EQ(
          Process("{\"cmd\":\"native\",\"id\":\"1\"" + std::string(module) +
                  "}"),
          Envelope("1", "", "TRUE",
                   "{\"from\":\"b\",\"call\":" + std::to_string(++call) + "}",
                   ""));
    }
  }));
}

TEST(ProcessRequest, StatusWordsOfOddAndRefusedModules) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    const std::string tampered =
        s.install.AddModuleCopy("tampered", FIXTURE_RECORDING_A_PATH);
    ASSERT_TRUE(ReplaceFile(tampered, ReadFile(tampered) + "x"));
    s.install.WriteModuleFile("unsigned", FIXTURE_RECORDING_A_PATH, "");
    s.install.AddModule(
        "text", s.home.WriteHomeFile("modules/libtext.so", "plain text\n"));
    s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
    s.install.AddModule("null", FIXTURE_NULL_ANSWER_PATH);
    s.install.AddModule("empty", FIXTURE_EMPTY_ANSWER_PATH);
    s.install.AddModule("nocb", FIXTURE_NO_SETCALLBACK_PATH);
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    const struct {
      const char* cmd;
      const char* module;
      const char* status;
    } cases[] = {{"native", "null", "FALSE"},
                 {"native", "empty", "TRUE"},
                 {"setcallback", "null", "TRUE"},  // no answer is fine here
                 {"setcallback", "nocb", "TRUE"},  // no SetCallback entry
                 {"native", "tampered", "BLOCK:CLIENT"},
                 {"native", "unsigned", "BLOCK:CLIENT"},
                 {"native", "text", "FALSE"},
                 {"native", "absent", "FALSE"},
                 {"native", "failing", "FALSE"}};
    for (const auto& c : cases) {
      SCOPED_TRACE(c.module);
      EXPECT_EQ(Process(std::string("{\"cmd\":\"") + c.cmd +
                        "\",\"id\":\"8\",\"tabid\":\"t\",\"callback\":\"c\","
                        "\"module\":\"" +
                        c.module + "\"}"),
                Envelope("8", "t", c.status, "{}", "c"));
    }
    EXPECT_EQ(Process("{\"cmd\":\"native\",\"id\":\"7\",\"module\":\"nocb\"}"),
              Envelope("7", "", "TRUE", "{\"served\":\"invoke\"}", ""));
    s.install.Tamper();
    EXPECT_EQ(Process("{\"cmd\":\"native\",\"id\":\"8\",\"module\":\"rec\"}"),
              Envelope("8", "", "BLOCK:QX", "{}", ""));
  }));
}

TEST(ProcessRequest, BroadcastReachesExactlyTheLoadedModules) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    s.install.AddModule("c", FIXTURE_RECORDING_A_PATH);  // never loaded
    ASSERT_NE(Process("{\"cmd\":\"native\",\"id\":\"1\",\"module\":\"a\"}"),
              "");
    ASSERT_NE(Process("{\"cmd\":\"native\",\"id\":\"1\",\"module\":\"b\"}"),
              "");
    std::size_t seen = s.Log().size();

    const std::string native =
        "{\"cmd\":\"native\",\"id\":\"5\",\"tabid\":\"t\",\"callback\":\"cb\","
        "\"module\":\"_all_\",\"origin\":\"o\"}";
    EXPECT_EQ(Process(native), Envelope("5", "t", "TRUE", "{}", "cb"));
    EXPECT_EQ(SortedLogAfter(s, seen),
              (Lines{"a\tFreeString\t{\"from\":\"a\",\"call\":2}",
                     LogLine({"a", "Invoke", "o", "5", native}),
                     "b\tFreeString\t{\"from\":\"b\",\"call\":2}",
                     LogLine({"b", "Invoke", "o", "5", native})}));
    seen = s.Log().size();

    const std::string setcallback =
        "{\"cmd\":\"setcallback\",\"id\":\"6\",\"tabid\":\"t\","
        "\"module\":\"_all_\"}";
    EXPECT_EQ(Process(setcallback), Envelope("6", "t", "TRUE", "{}", ""));
    EXPECT_EQ(
        SortedLogAfter(s, seen),
        (Lines{"a\tFreeString\t{\"from\":\"a\",\"setcallback\":1}",
               LogLine({"a", "SetCallback", "", "6", setcallback, "t", "1"}),
               "b\tFreeString\t{\"from\":\"b\",\"setcallback\":1}",
               LogLine({"b", "SetCallback", "", "6", setcallback, "t", "1"})}));
    seen = s.Log().size();
    // Without an id nothing is dispatched, yet the broadcast is answered.
    EXPECT_EQ(
        Process("{\"cmd\":\"native\",\"tabid\":\"t\",\"module\":\"_all_\"}"),
        Envelope("", "t", "TRUE", "{}", ""));
    EXPECT_EQ(s.Log().size(), seen);
    EXPECT_EQ(GetInvoke("c"), nullptr);
  }));
}

}  // namespace
