// The module host: finding and loading client modules, page origins, the
// reply envelope and request processing. Replies are compared byte for
// byte: the envelope's blanks are irregular on purpose and extensions in
// the field parse exactly this text. Each scenario that loads modules runs
// in a child process; one of them with files no installation holds.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>
#include <tuple>

#include "modhost/module_registry.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "tessmar/bridge.h"
#include "tessmar/config.h"
#include "tessmar/modhost.h"
#include "tessmar/signature.h"

namespace {

using tessmar::g_defaultHostFuncs;
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

TEST(ModuleLoader, LoadsOnceAndFindsModulesByTheirWholeName) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("ab", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("a", FIXTURE_RECORDING_B_PATH);
    QXHostFuncs host = g_defaultHostFuncs;
    char name[] = "ab";
    EXPECT_EQ(LoadQxClient(name, &host), QX_LOAD_OK);
    name[0] = 'x';  // the registry keeps a copy of the name
    ASSERT_NE(GetInvoke("ab"), nullptr);
    for (const char* other : {"a", "abc", "xb", "ab ", "", "AB"}) {
      EXPECT_EQ(GetInvoke(other), nullptr) << other;
    }
    EXPECT_EQ(GetInvoke(nullptr), nullptr);
    EXPECT_EQ(LoadQxClient("ab", &host), QX_LOAD_OK);
    EXPECT_EQ(s.Log(), (Lines{"a\tInitialize", SetHostFuncsLine("a", &host)}));
  }));
}

// Order: module signature (even when loaded), "already loaded", installation.
TEST(ModuleLoader, ChecksComeInTheirFixedOrder) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    const std::string copy = s.install.AddModuleCopy("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    s.install.WriteModuleFile("wrongsig", FIXTURE_RECORDING_B_PATH,
                              SignedInstallation::ModuleSignature(copy));
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    QxClientFuncs* funcs = GetInvoke("a");

    s.install.Tamper();
    EXPECT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_INSTALLATION_BLOCKED);
    EXPECT_EQ(LoadQxClient("wrongsig", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(GetInvoke("b"), nullptr);

    ASSERT_TRUE(ReplaceFile(copy, ReadFile(copy) + "x"));
    EXPECT_EQ(LoadQxClient("a", nullptr), QX_LOAD_CLIENT_BLOCKED);
    EXPECT_EQ(GetInvoke("a"), funcs);  // refused, yet still registered

    s.install.Sign();
    EXPECT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);
  }));
}

TEST(ModuleLoader, LibrariesThatCannotBeInitializedStayUnregistered) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("text", s.home.WriteHomeFile("modules/libtext.so", "not a library\n"));
    s.install.AddModule("bare", FIXTURE_NO_INITIALIZE_PATH);
    s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
    EXPECT_EQ(LoadQxClient("text", nullptr), QX_LOAD_OPEN_FAILED);
    // No Initialize or a failing one: 0, and each attempt retries.
    for (const char* name : {"bare", "failing", "bare", "failing"}) {
      EXPECT_EQ(LoadQxClient(name, nullptr), QX_LOAD_OK) << name;
      EXPECT_EQ(GetInvoke(name), nullptr) << name;
    }
    EXPECT_EQ(s.Log(), (Lines{"failing\tInitialize", "failing\tInitialize"}));
    // No module file: nothing to open (dlopen("") would open the program itself).
    EXPECT_EQ(LoadQxClient("absent", nullptr), QX_LOAD_OPEN_FAILED);
  }));
}

// Install paths of client modules, with and without the signature check,
// and of the native client. The unverified lookup hands out even a missing
// library's path; GetClientInstallPath passes a refusal on as its path.
TEST(InstallPath, LookupsNeedANameAndAPathAndVerifiedOnesTheSignature) {
  TempHome home;
  const std::string library =
      home.WriteHomeFile("lib/libreader.so", std::string("module\0bytes", 12));
  const std::string missing = home.path() + "/lib/missing.so";
  const std::string sig = SignedInstallation::ModuleSignature(library);
  home.WriteConfig("reader.json", ModuleJson("reader", missing, sig));
  EXPECT_EQ(GetClientInstallPathModule("reader", false), missing);
  EXPECT_EQ(GetClientInstallPathModule("reader", true), "BLOCK:CLIENT");
  home.WriteConfig("reader.json", ModuleJson("", library, sig));
  EXPECT_EQ(GetClientInstallPathModule("reader", false), "");

  home.WriteConfig("config.json", R"({"TessmarClient":"/opt/client"})");
  const std::pair<std::string, std::string> client_cases[] = {
      {ModuleJson("morrowhost", library, sig), library},
      {ModuleJson("morrowhost", missing, sig), "BLOCK:CLIENT"},
      // A module file without a usable path falls through to config.json.
      {ModuleJson("morrowhost", "", ""), "/opt/client"}};
  for (const auto& [module_file, expected] : client_cases) {
    SCOPED_TRACE(module_file);
    home.WriteConfig("morrowhost.json", module_file);
    EXPECT_EQ(GetClientInstallPath(), expected);
  }
}

TEST(ParseOrigin, SplitsSchemeHostAndPortQuirksIncluded) {
  // Origin, then scheme|host|port. The scheme is compared ignoring case; other
  // schemes get port 0.
  const char* const cases[][2] = {
      {"https://h", "https|h|443"}, {"hTtP://h", "hTtP|h|80"}, {"ftp://h", "ftp|h|0"},
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
  // echo must be the literal true; else the request goes to a module, needing "id".
  for (const std::string request :
       {"not json", R"(["cmd","native"])", R"({"cmd":"Native","id":"1","echo":true})",
        R"({"cmd":5,"id":"1","echo":true})", R"({"cmd":"native","echo":"true"})"}) {
    EXPECT_EQ(Process(request), "") << request;
  }

  // Echo and an empty broadcast are answered without a module.
  const std::string request = R"({"cmd":"native","id":"7","tabid":"t","callback":"cb",)"
                              R"("echo":true,"module":"nowhere"})";
  // Only the `length` bytes given are parsed and echoed, not what follows them.
  const std::string padded = request + "trailing bytes";
  EXPECT_EQ(process_request(nullptr, padded.c_str(), static_cast<int>(request.size()), nullptr),
            Envelope("7", "t", "TRUE", R"({"reply":{"status":"0", "reply":)" + request + "}}",
                     "cb"));
  EXPECT_EQ(process_request(nullptr, request.c_str(), -1, nullptr), "");
  EXPECT_EQ(process_request(nullptr, nullptr, 0, nullptr), "");
  EXPECT_EQ(Process(R"({"cmd":"native","id":"9","tabid":"t","callback":"c","module":"_all_"})"),
            Envelope("9", "t", "TRUE", "{}", "c"));
}

TEST(ProcessRequest, ModuleAnswersAreWrappedWithTheRequestsOwnFields) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("rec", FIXTURE_RECORDING_A_PATH);
    QXHostFuncs host = g_defaultHostFuncs;
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
    EXPECT_EQ(Process(R"({"cmd":"native","id":"1","module":""})"),
              Envelope("1", "", "TRUE", R"({"from":"b","call":1})", ""));
  }));
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Odd modules, and files no installation holds where the loader reads (a
// FIFO, an oversized JSON file), which read as unreadable. The scenario runs
// with a memory limit and a timeout and must be over within a second,
// leaving no descriptor open: a reader that blocks, reads without end or
// leaks a refused file's descriptor fails instead of hanging.
TEST(ProcessRequest, StatusWordsOfOddRefusedAndUnreadableModules) {
  ModuleSandbox s;
  s.install.AddModule("failing", FIXTURE_FAILING_INITIALIZE_PATH);
  s.install.AddModule("null", FIXTURE_NULL_ANSWER_PATH);
  s.install.AddModule("empty", FIXTURE_EMPTY_ANSWER_PATH);
  s.install.AddModule("nocb", FIXTURE_NO_SETCALLBACK_PATH);
  const std::string signature = SignedInstallation::ModuleSignature(FIXTURE_RECORDING_A_PATH);
  ASSERT_EQ(mkfifo((s.home.ConfigDir() + "/fifo.json").c_str(), 0600), 0);
  // Would load and answer, were it not over the 1 MiB limit.
  s.home.WriteConfig("huge.json", ModuleJson("huge", FIXTURE_RECORDING_A_PATH, signature) +
                                      std::string(1 << 20, ' '));
  // Signed as the fixture is, so only the library's kind can make it fail.
  const std::string fifo = s.home.path() + "/libfifo.so";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  s.install.WriteModuleFile("fifolib", fifo, signature);
  EXPECT_TRUE(RunIsolated(
      [&] {
        const std::ptrdiff_t descriptors = OpenDescriptors();
        const auto start = std::chrono::steady_clock::now();
        // setcallback is fine without an answer and with a module lacking the entry.
        const std::tuple<const char*, const char*, const char*> cases[] = {
            {"native", "null", "FALSE"}, {"native", "empty", "TRUE"},
            {"setcallback", "null", "TRUE"}, {"setcallback", "nocb", "TRUE"},
            {"native", "failing", "FALSE"}, {"native", "fifo", "FALSE"},
            {"native", "huge", "FALSE"}, {"native", "fifolib", "BLOCK:CLIENT"}};
        for (const auto& [cmd, module, status] : cases) {
          EXPECT_EQ(Process(std::string(R"({"cmd":")") + cmd +
                            R"(","id":"8","tabid":"t","callback":"c","module":")" + module + "\"}"),
                    Envelope("8", "t", status, "{}", "c"))
              << module;
        }
        // A covered file that reads as unreadable: refused before the module
        // file is even opened.
        const std::string covered = s.install.install_dir() + "/TessmarChrome";
        ASSERT_EQ(std::remove(covered.c_str()), 0);
        ASSERT_EQ(mkfifo(covered.c_str(), 0600), 0);
        EXPECT_EQ(Process(R"({"cmd":"native","id":"8","module":"absent"})"),
                  Envelope("8", "", "BLOCK:QX", "{}", ""));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_EQ(OpenDescriptors(), descriptors);
      },
      5, std::size_t{256} << 20));
}

// A broadcast reaches exactly the loaded modules; unloading terminates every
// module and starts afresh.
TEST(ProcessRequest, BroadcastReachesTheLoadedModulesUntilTheyAreUnloaded) {
  ModuleSandbox s;
  EXPECT_TRUE(RunIsolated([&] {
    s.install.AddModule("a", FIXTURE_RECORDING_A_PATH);
    s.install.AddModule("b", FIXTURE_RECORDING_B_PATH);
    s.install.AddModule("c", FIXTURE_RECORDING_A_PATH);  // never loaded
    ASSERT_EQ(LoadQxClient("a", nullptr), QX_LOAD_OK);
    ASSERT_EQ(LoadQxClient("b", nullptr), QX_LOAD_OK);
    const std::string list = GetLoadedClientList();  // in registry order
    EXPECT_TRUE(list == "a,b" || list == "b,a") << list;

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

    UnloadQxClient();
    UnloadQxClient();  // nothing loaded: nothing happens
    log = s.Log();
    ASSERT_EQ(log.size(), 10u);
    std::sort(log.begin() + 8, log.end());
    EXPECT_EQ(Lines(log.begin() + 8, log.end()), (Lines{"a\tTerminate", "b\tTerminate"}));

    // Without a host table a module gets the default one, whose callbacks go nowhere.
    EXPECT_NE(Process(R"({"cmd":"native","id":"1","module":"b","sendCallback":1})"), "");
    EXPECT_EQ(s.Log().at(11), SetHostFuncsLine("b", &g_defaultHostFuncs));
    EXPECT_EQ(s.Log().at(13), "b\tSendCallback\t0");
    char* queued = tsmx_Pop();
    EXPECT_STREQ(queued, "");
    tsmx_Free(queued);
  }));
}

}  // namespace
