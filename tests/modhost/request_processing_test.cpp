// Page origins, the reply envelope and request processing, replies compared
// byte for byte: the envelope's blanks are irregular on purpose and
// extensions in the field parse exactly this text. Scenarios that load
// modules run isolated.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "modhost/module_registry.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "tessmar/modhost.h"

namespace {

using namespace tessmar::testing;

std::string Process(const std::string& request, QXHostFuncs* host = nullptr) {
  return process_request(nullptr, request.c_str(), static_cast<int>(request.size()), host);
}

// The envelope as extensions parse it.
std::string Envelope(const std::string& id, const std::string& tabid, const std::string& status,
                     const std::string& reply, const std::string& callback) {
  return R"({"response": {"id": ")" + id + R"(", "tabid":")" + tabid + R"(", "status":")" +
         status + R"(", "reply":)" + reply + R"(, "callback": ")" + callback + R"("}})";
}

TEST(ParseOrigin, SplitsSchemeHostAndPortQuirksIncludedAndGetCSIDJoinsTheLastTwo) {
  // Origin, then scheme|host|port. The scheme is compared ignoring case; other
  // schemes get port 0.
  const char* const cases[][2] = {
      {"https://h", "https|h|443"}, {"hTtP://h", "hTtP|h|80"}, {"ftp://h", "ftp|h|0"},
      {"https://h:8443", "https|h|8443"}, {"://h", "|h|0"},
      // Whatever follows the authority stays in the last part; the first ":" splits.
      {"http://h/x", "http|h/x|80"}, {"http://[::1]:80", "http|[|:1]:80"},
      // Without "://" the rest starts at the third character; the scheme is the whole origin.
      {"http", "http|tp|80"}, {"ab:cd", "ab:cd||cd"},
      // Origins shorter than four characters clear all three parts.
      {"", "||"}, {"abc", "||"}};
  for (const auto& c : cases) {
    std::string scheme = "old", host = "old", port = "old";
    ParseOrigin(c[0], scheme, host, port);
    EXPECT_EQ(scheme + "|" + host + "|" + port, c[1]) << c[0];
    EXPECT_EQ(GetCSID(c[0]), host + ":" + port) << c[0];
  }
}

// Only BuildReplyEnvelope reaches CANCEL, unknown codes and a missing id.
TEST(ReplyEnvelope, StatusCodesMapToTheirWordsAndPiecesAreCopiedUnescaped) {
  const char* const words[] = {"TRUE", "FALSE", "CANCEL", "FALSE", "BLOCK:QX", "BLOCK:CLIENT"};
  for (int code = -1; code <= 6; ++code) {
    EXPECT_EQ(BuildReplyEnvelope("1", "", code, "{}", ""),
              Envelope("1", "", code < 0 || code > 5 ? "FALSE" : words[code], "{}", ""))
        << code;
  }
  EXPECT_EQ(BuildReplyEnvelope("9", nullptr, REPLY_TRUE, nullptr, nullptr),
            Envelope("9", "", "TRUE", "{}", ""));
  EXPECT_EQ(BuildReplyEnvelope(nullptr, "t", REPLY_TRUE, "{}", "cb"), "");
  EXPECT_EQ(BuildReplyEnvelope("a\"b", "c\\d", REPLY_TRUE, "[1,\"x\"]", "e\nf"),
            Envelope("a\"b", "c\\d", "TRUE", "[1,\"x\"]", "e\nf"));
}

TEST(ProcessRequest, OnlyUsableRequestsAreAnsweredAndEchoNeedsNoModule) {
  const std::string echo = R"({"cmd":"native","id":"1","echo":true})";
  // echo must be the literal true; else the request goes to a module, needing "id".
  for (const std::string request :
       {"", "not json", R"(["cmd","native"])", R"({"cmd":"Native","id":"1","echo":true})",
        R"({"cmd":5,"id":"1","echo":true})", R"({"cmd":"native","echo":"true"})",
        R"({"cmd":"native","id":7})", R"({"cmd":"setcallback","tabid":"t"})"}) {
    EXPECT_EQ(Process(request), "") << request;
  }
  // Only `length` bytes are parsed: a cut request is not JSON.
  EXPECT_EQ(process_request(nullptr, echo.c_str(), 10, nullptr), "");
  EXPECT_EQ(process_request(nullptr, echo.c_str(), -1, nullptr), "");
  EXPECT_EQ(process_request(nullptr, nullptr, 0, nullptr), "");

  // Echo and an empty broadcast are answered without a module.
  const std::string request = R"({"cmd":"native","id":"7","tabid":"t","callback":"cb",)"
                              R"("echo":true,"module":"nowhere"})";
  // The echo holds the `length` bytes given, not what follows them.
  const std::string padded = request + "trailing bytes";
  EXPECT_EQ(process_request(nullptr, padded.c_str(), static_cast<int>(request.size()), nullptr),
            Envelope("7", "t", "TRUE", R"({"reply":{"status":"0", "reply":)" + request + "}}",
                     "cb"));
  EXPECT_EQ(Process(R"({"cmd":"native","id":"9","tabid":"t","callback":"c","module":"_all_"})"),
            Envelope("9", "t", "TRUE", "{}", "c"));
}

TEST(ProcessRequest, ModuleAnswersAreWrappedWithTheRequestsOwnFields) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    QXHostFuncs host = tessmar::g_defaultHostFuncs;
    const std::string request = R"({"cmd":"native","id":"42","tabid":"tab","callback":"cb",)"
                                R"("module":"rec","origin":"https://o.example"})";
    EXPECT_EQ(Process(request, &host),
              Envelope("42", "tab", "TRUE", R"({"from":"a","call":1})", "cb"));
    EXPECT_EQ(s.Log(), (Lines{"a\tInitialize", SetHostFuncsLine("a", &host),
                              LogLine({"a", "Invoke", "https://o.example", "42", request}),
                              "a\tFreeString\t{\"from\":\"a\",\"call\":1}"}));

    const std::string setcallback = R"({"cmd":"setcallback","id":"5","tabid":"tab-1",)"
                                    R"("callback":"onX","module":"rec","origin":"o"})";
    EXPECT_EQ(Process(setcallback),
              Envelope("5", "tab-1", "TRUE", R"({"from":"a","setcallback":1})", "onX"));
    EXPECT_EQ(s.Log().at(4), LogLine({"a", "SetCallback", "o", "5", setcallback, "tab-1", "1"}));

    // Without a module name the request goes to "morrowhost".
    s.install.AddModule("morrowhost", FIXTURE_RECORDING_B_PATH);
    int call = 0;
    for (const std::string module : {"", R"(,"module":"")"}) {
      EXPECT_EQ(Process(R"({"cmd":"native","id":"1")" + module + "}"),
                Envelope("1", "", "TRUE",
                         R"({"from":"b","call":)" + std::to_string(++call) + "}", ""))
          << module;
    }
  }));
}

TEST(ProcessRequest, StatusWordsOfOddAndRefusedModules) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.WriteModuleFile("unsigned", FIXTURE_RECORDING_A_PATH, "");
    s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
    s.install.AddModule("null", FIXTURE_NULL_ANSWER_PATH);
    s.install.AddModule("empty", FIXTURE_EMPTY_ANSWER_PATH);
    s.install.AddModule("nocb", FIXTURE_NO_SETCALLBACK_PATH);
    // setcallback is fine without an answer and with a module lacking the entry.
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"native", "null", "FALSE"}, {"native", "empty", "TRUE"},
        {"setcallback", "null", "TRUE"}, {"setcallback", "nocb", "TRUE"},
        {"native", "unsigned", "BLOCK:CLIENT"}, {"native", "absent", "FALSE"},
        {"native", "failing", "FALSE"}};
    for (const auto& [cmd, module, status] : cases) {
      EXPECT_EQ(Process(std::string(R"({"cmd":")") + cmd +
                        R"(","id":"8","tabid":"t","callback":"c","module":")" + module + "\"}"),
                Envelope("8", "t", status, "{}", "c"))
          << module;
    }
    EXPECT_EQ(Process(R"({"cmd":"native","id":"7","module":"nocb"})"),
              Envelope("7", "", "TRUE", R"({"from":"nocb","call":1})", ""));
    s.install.Tamper();  // refused before the module file is even opened
    EXPECT_EQ(Process(R"({"cmd":"native","id":"8","module":"absent"})"),
              Envelope("8", "", "BLOCK:QX", "{}", ""));
  }));
}

TEST(ProcessRequest, BroadcastReachesExactlyTheLoadedModules) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    s.install.AddModule("c", FIXTURE_RECORDING_A_PATH);  // never loaded
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    ASSERT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);

    const std::string native = R"({"cmd":"native","id":"5","tabid":"t","callback":"cb",)"
                               R"("module":"_all_","origin":"o"})";
    EXPECT_EQ(Process(native), Envelope("5", "t", "TRUE", "{}", "cb"));
    Lines log = s.Log();  // the order of a broadcast is not fixed
    ASSERT_EQ(log.size(), 8u);
    std::sort(log.begin() + 4, log.end());
    EXPECT_EQ(Lines(log.begin() + 4, log.end()),
              (Lines{"a\tFreeString\t{\"from\":\"a\",\"call\":1}",
                     LogLine({"a", "Invoke", "o", "5", native}),
                     "b\tFreeString\t{\"from\":\"b\",\"call\":1}",
                     LogLine({"b", "Invoke", "o", "5", native})}));

    // Without an id nothing is dispatched, yet the broadcast is answered.
    EXPECT_EQ(Process(R"({"cmd":"native","tabid":"t","module":"_all_"})"),
              Envelope("", "t", "TRUE", "{}", ""));
    EXPECT_EQ(s.Log().size(), 8u);
    EXPECT_EQ(GetInvoke("c"), nullptr);
  }));
}

}  // namespace
