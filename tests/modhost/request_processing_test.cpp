// Request processing: refused requests, echo replies, dispatch to one module
// and broadcasts, each reply compared byte for byte. Scenarios that load
// modules run in a child process of their own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "modhost/module_registry.h"
#include "support/fixture_log.h"
#include "support/isolated_process.h"
#include "support/module_sandbox.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/modhost.h"

namespace {

using tessmar::testing::FixtureLog;
using tessmar::testing::LogLine;
using tessmar::testing::ModuleSandbox;
using tessmar::testing::ReadFile;
using tessmar::testing::ReplaceFile;
using tessmar::testing::RunIsolated;
using tessmar::testing::SignedInstallation;
using Lines = std::vector<std::string>;

std::string Process(const std::string& request, QXHostFuncs* host = nullptr) {
  return process_request(nullptr, request.c_str(),
                         static_cast<int>(request.size()), host);
}

// The envelope format, spelled out once for the expectations below.
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

// Log lines written after the first `skip` ones, sorted: modules of a
// broadcast are called in registry order, which is not fixed.
Lines SortedLinesAfter(const FixtureLog& log, std::size_t skip) {
  const Lines lines = log.Lines();
  Lines tail(lines.begin() + static_cast<long>(std::min(skip, lines.size())),
             lines.end());
  std::sort(tail.begin(), tail.end());
  return tail;
}

// --- Requests answered without any module ---------------------------------

TEST(ProcessRequest, RefusesTextsThatAreNotUsableRequests) {
  const std::string cases[] = {
      "",
      "not json",
      "[\"cmd\",\"native\"]",
      "{}",
      "{\"cmd\":\"other\",\"id\":\"1\",\"echo\":true}",
      "{\"cmd\":\"Native\",\"id\":\"1\",\"echo\":true}",
      "{\"cmd\":5,\"id\":\"1\",\"echo\":true}",
      "{\"CMD\":\"native\",\"id\":\"1\",\"echo\":true}",
      "{\"cmd\":\"other\",\"cmd\":\"native\",\"id\":\"1\",\"echo\":true}",
  };
  for (const std::string& request : cases) {
    SCOPED_TRACE(request);
    EXPECT_EQ(Process(request), "");
  }
  // Only `length` bytes are parsed: a cut request is not JSON.
  const std::string echo = "{\"cmd\":\"native\",\"id\":\"1\",\"echo\":true}";
  EXPECT_EQ(process_request(nullptr, echo.c_str(), 10, nullptr), "");
  EXPECT_EQ(GetLoadedClientList(), "");
}

TEST(ProcessRequest, EchoWrapsTheWholeRequestWithoutAModule) {
  const std::string request =
      "{\"cmd\":\"native\",\"id\":\"7\",\"tabid\":\"t\",\"callback\":\"cb\","
      "\"echo\":true,\"module\":\"nowhere\",\"x\":[1]}";
  EXPECT_EQ(Process(request),
            Envelope("7", "t", "TRUE", EchoAnswer(request), "cb"));

  const std::string setcallback =
      "{\"cmd\":\"setcallback\",\"echo\":true,\"tabid\":\"t\"}";
  EXPECT_EQ(Process(setcallback),
            Envelope("", "t", "TRUE", EchoAnswer(setcallback), ""));

  // The echo holds the `length` bytes given, not what follows them.
  const std::string padded = request + "trailing bytes";
  EXPECT_EQ(process_request(nullptr, padded.c_str(),
                            static_cast<int>(request.size()), nullptr),
            Envelope("7", "t", "TRUE", EchoAnswer(request), "cb"));
  EXPECT_EQ(GetLoadedClientList(), "");
}

TEST(ProcessRequest, FirstMemberCountsAndEchoMustBeTheLiteralTrue) {
  const std::string first_cmd =
      "{\"cmd\":\"native\",\"cmd\":\"other\",\"id\":\"1\",\"echo\":true}";
  EXPECT_EQ(Process(first_cmd),
            Envelope("1", "", "TRUE", EchoAnswer(first_cmd), ""));
  // Not echoes: they go to a module, and without "id" get no reply at all.
  for (const char* echo :
       {"\"true\"", "1", "false", "null", "false,\"echo\":true"}) {
    SCOPED_TRACE(echo);
    EXPECT_EQ(
        Process(std::string("{\"cmd\":\"native\",\"echo\":") + echo + "}"), "");
  }
}

TEST(ProcessRequest, ModuleRequestWithoutIdGetsNoReply) {
  EXPECT_EQ(Process("{\"cmd\":\"native\",\"module\":\"x\",\"tabid\":\"t\"}"),
            "");
  EXPECT_EQ(Process("{\"cmd\":\"setcallback\",\"tabid\":\"t\"}"), "");
  EXPECT_EQ(Process("{\"cmd\":\"native\",\"id\":7}"), "");
  EXPECT_EQ(GetLoadedClientList(), "");
}

TEST(ProcessRequest, BroadcastWithNothingLoadedLoadsNothing) {
  EXPECT_EQ(Process("{\"cmd\":\"native\",\"id\":\"9\",\"tabid\":\"t\","
                    "\"callback\":\"c\",\"module\":\"_all_\"}"),
            Envelope("9", "t", "TRUE", "{}", "c"));
  EXPECT_EQ(Process("{\"cmd\":\"setcallback\",\"tabid\":\"t\","
                    "\"module\":\"_all_\"}"),
            Envelope("", "t", "TRUE", "{}", ""));
  EXPECT_EQ(GetLoadedClientList(), "");
}

// --- Requests served by modules --------------------------------------------

TEST(ProcessRequest, ModuleAnswerIsWrappedWithTheRequestsOwnFields) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    QXHostFuncs host = tessmar::g_defaultHostFuncs;
    const std::string request =
        "{\"cmd\":\"native\",\"id\":\"42\",\"tabid\":\"tab\",\"callback\":"
        "\"cb\",\"module\":\"rec\",\"origin\":\"https://o.example\","
        "\"extra\":[1,2]}";

    EXPECT_EQ(
        Process(request, &host),
        Envelope("42", "tab", "TRUE", "{\"from\":\"a\",\"call\":1}", "cb"));
    EXPECT_EQ(
        Process(request, &host),
        Envelope("42", "tab", "TRUE", "{\"from\":\"a\",\"call\":2}", "cb"));

    char host_pointer[32];
    std::snprintf(host_pointer, sizeof host_pointer, "%p",
                  static_cast<void*>(&host));
    const std::string invoke =
        LogLine({"a", "Invoke", "https://o.example", "42", request});
    EXPECT_EQ(
        s.log.Lines(),
        (Lines{"a\tInitialize",
               LogLine({"a", "SetHostFuncs", "1", "48", "2", host_pointer}),
               invoke, "a\tFreeString\t{\"from\":\"a\",\"call\":1}", invoke,
               "a\tFreeString\t{\"from\":\"a\",\"call\":2}"}));
  }));
}

TEST(ProcessRequest, RequestWithoutModuleGoesToMorrowhost) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("morrowhost", FIXTURE_RECORDING_A_PATH);
    int call = 0;
    for (const char* module : {"", ",\"module\":\"\"", ",\"module\":5"}) {
      SCOPED_TRACE(module);
      EXPECT_EQ(
          Process(std::string("{\"cmd\":\"native\",\"id\":\"1\"") + module +
                  "}"),
          Envelope("1", "", "TRUE",
                   "{\"from\":\"a\",\"call\":" + std::to_string(++call) + "}",
                   ""));
    }
    EXPECT_EQ(GetLoadedClientList(), "morrowhost");
  }));
}

TEST(ProcessRequest, NullAnswerIsFalseAndEmptyAnswerIsTrue) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("null", FIXTURE_NULL_ANSWER_PATH);
    s.install.AddModule("empty", FIXTURE_EMPTY_ANSWER_PATH);
    const auto request = [](const char* cmd, const char* module) {
      return std::string("{\"cmd\":\"") + cmd +
             "\",\"id\":\"3\",\"tabid\":\"t\",\"callback\":\"c\","
             "\"module\":\"" +
             module + "\"}";
    };
    EXPECT_EQ(Process(request("native", "null")),
              Envelope("3", "t", "FALSE", "{}", "c"));
    EXPECT_EQ(Process(request("native", "empty")),
              Envelope("3", "t", "TRUE", "{}", "c"));
    // An empty or missing answer to "setcallback" is still a success.
    EXPECT_EQ(Process(request("setcallback", "null")),
              Envelope("3", "t", "TRUE", "{}", "c"));
    EXPECT_EQ(Process(request("setcallback", "empty")),
              Envelope("3", "t", "TRUE", "{}", "c"));
  }));
}

TEST(ProcessRequest, SetCallbackGoesToSlotSevenWithFlagOneOrAnswersEmpty) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("nocb", FIXTURE_NO_SETCALLBACK_PATH);
    const std::string request =
        "{\"cmd\":\"setcallback\",\"id\":\"5\",\"tabid\":\"tab-1\","
        "\"callback\":\"onX\",\"module\":\"rec\",\"origin\":\"o\"}";
    EXPECT_EQ(Process(request),
              Envelope("5", "tab-1", "TRUE",
                       "{\"from\":\"a\",\"setcallback\":1}", "onX"));
    const Lines lines = s.log.Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2],
              LogLine({"a", "SetCallback", "o", "5", request, "tab-1", "1"}));
    EXPECT_EQ(lines[3], "a\tFreeString\t{\"from\":\"a\",\"setcallback\":1}");

    // A module without SetCallback: an empty successful reply, and its
    // ordinary requests still work.
    EXPECT_EQ(Process("{\"cmd\":\"setcallback\",\"id\":\"6\",\"tabid\":\"t\","
                      "\"callback\":\"c\",\"module\":\"nocb\"}"),
              Envelope("6", "t", "TRUE", "{}", "c"));
    EXPECT_EQ(Process("{\"cmd\":\"native\",\"id\":\"7\",\"module\":\"nocb\"}"),
              Envelope("7", "", "TRUE", "{\"served\":\"invoke\"}", ""));
  }));
}

TEST(ProcessRequest, RefusedModulesGiveTheirStatusWordAndAnEmptyReply) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    const std::string tampered =
        s.install.AddModuleCopy("tampered", FIXTURE_RECORDING_A_PATH);
    ASSERT_TRUE(ReplaceFile(tampered, ReadFile(tampered) + "x"));
    s.install.WriteModuleFile("unsigned", FIXTURE_RECORDING_A_PATH, "");
    s.install.AddModule(
        "text", s.home.WriteHomeFile("modules/libtext.so", "plain text\n"));
    s.install.AddModule("bare", FIXTURE_NO_INITIALIZE_PATH);
    s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    const auto request = [](const std::string& module) {
      return "{\"cmd\":\"native\",\"id\":\"8\",\"tabid\":\"t\","
             "\"callback\":\"c\",\"module\":\"" +
             module + "\"}";
    };
    const struct {
      const char* module;
      const char* status;
    } cases[] = {{"tampered", "BLOCK:CLIENT"},
                 {"unsigned", "BLOCK:CLIENT"},
                 {"text", "FALSE"},
                 {"absent", "FALSE"},
                 {"bare", "FALSE"},
                 {"failing", "FALSE"}};
    for (const auto& c : cases) {
      SCOPED_TRACE(c.module);
      EXPECT_EQ(Process(request(c.module)),
                Envelope("8", "t", c.status, "{}", "c"));
    }

    s.install.Tamper();
    EXPECT_EQ(Process(request("rec")),
              Envelope("8", "t", "BLOCK:QX", "{}", "c"));
    EXPECT_EQ(GetLoadedClientList(), "");
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
    std::size_t seen = s.log.Lines().size();

    const std::string native =
        "{\"cmd\":\"native\",\"id\":\"5\",\"tabid\":\"t\",\"callback\":\"cb\","
        "\"module\":\"_all_\",\"origin\":\"o\"}";
    EXPECT_EQ(Process(native), Envelope("5", "t", "TRUE", "{}", "cb"));
    EXPECT_EQ(SortedLinesAfter(s.log, seen),
              (Lines{"a\tFreeString\t{\"from\":\"a\",\"call\":2}",
                     LogLine({"a", "Invoke", "o", "5", native}),
                     "b\tFreeString\t{\"from\":\"b\",\"call\":2}",
                     LogLine({"b", "Invoke", "o", "5", native})}));
    seen = s.log.Lines().size();

    const std::string setcallback =
        "{\"cmd\":\"setcallback\",\"id\":\"6\",\"tabid\":\"t\","
        "\"module\":\"_all_\"}";
    EXPECT_EQ(Process(setcallback), Envelope("6", "t", "TRUE", "{}", ""));
    EXPECT_EQ(
        SortedLinesAfter(s.log, seen),
        (Lines{"a\tFreeString\t{\"from\":\"a\",\"setcallback\":1}",
               LogLine({"a", "SetCallback", "", "6", setcallback, "t", "1"}),
               "b\tFreeString\t{\"from\":\"b\",\"setcallback\":1}",
               LogLine({"b", "SetCallback", "", "6", setcallback, "t", "1"})}));
    seen = s.log.Lines().size();

    // Without an id every dispatch stops at its id test, yet the broadcast
    // itself is answered.
    EXPECT_EQ(
        Process("{\"cmd\":\"native\",\"tabid\":\"t\",\"module\":\"_all_\"}"),
        Envelope("", "t", "TRUE", "{}", ""));
    EXPECT_EQ(s.log.Lines().size(), seen);
    EXPECT_EQ(GetInvoke("c"), nullptr);
  }));
}

}  // namespace
