// The module SDK (include/tessmar/module.hpp): the JSON RapidJSON writes for
// every kind of reply value, the request members as the host looks them up,
// and a module built on it, loaded as the host loads it: exceptions stay
// inside it, its threads end at Terminate and at exit, and its callback
// handle works from other threads until Terminate and not after.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <thread>

#include "tessmar/module.hpp"

namespace {

using namespace std::chrono_literals;

TEST(SdkReplyTest, ValuesAreWrittenAsJson) {
  const std::string control("a\"b\\c\n\x01\x1f/\xc3\xa9", 12);
  const tessmar::Reply reply = {
      {"text", control},
      {"numbers", tessmar::Value::array({-1, std::numeric_limits<std::uint64_t>::max(), 0.5})},
      {"flags", tessmar::Value::array({true, false, nullptr})},
      {"nested", {{"empty", tessmar::Value::array({})}, {"k", "v"}}}};
  EXPECT_EQ(reply.json(),
            R"({"text":"a\"b\\c\n\u0001\u001F/)" "\xc3\xa9" R"(\u0000",)"
            R"("numbers":[-1,18446744073709551615,0.5],"flags":[true,false,null],)"
            R"("nested":{"empty":[],"k":"v"}})");
}

TEST(SdkReplyTest, RequestMembersFirstMatchAndDefaults) {
  const tessmar::Request request(
      nullptr, "9",
      R"({"callback":"cb","tabid":"t1","n":5,"callback":"second","s":"x\u0000y"})");
  EXPECT_EQ(request.origin(), "");
  EXPECT_EQ(request.callback(), "cb");
  EXPECT_EQ(request.tabid(), "t1");
  EXPECT_EQ(request.string("n"), "");  // not a string
  EXPECT_EQ(request.string("s"), std::string_view("x\0y", 3));
  EXPECT_EQ(request.member("absent"), nullptr);
  // The host's tab argument wins over the member.
  EXPECT_EQ(tessmar::Request("o", "1", R"({"tabid":"m"})", "host").tabid(), "host");
  // Text that is not a JSON object has no members.
  EXPECT_EQ(tessmar::Request("o", "1", "[1]").member("0"), nullptr);
}

std::atomic<int> g_callbacks{0};

int RecordCallback(const char* tabid, const void*, const char* callback,
                   const char* reply) {
  if (std::string(tabid) == "t" && std::string(callback) == "cb" &&
      std::string(reply) == R"({"tick":true})") {
    ++g_callbacks;
  }
  return 0;
}

QXHostFuncs g_host = {1, 48, 2, std::malloc, std::free, RecordCallback};
QxClientFuncs g_table;

// The module, loaded and initialised as LoadQxClient does.
QxClientFuncs* Load() {
  void* handle = dlopen(SDK_BOUNDARY_MODULE, RTLD_LAZY);
  if (handle == nullptr) return nullptr;
  auto initialize = reinterpret_cast<QxInitializeFunc>(dlsym(handle, "Initialize"));
  QxClientFuncs* funcs = &g_table;
  std::memset(funcs, 0xa5, sizeof *funcs);  // the host does not clear it
  if (initialize == nullptr || initialize(funcs) != 0) return nullptr;
  funcs->SetHostFuncs(&g_host);
  return funcs;
}

// The module's answer as the host sees it, "<null>" for none.
std::string Answer(QxClientFuncs* funcs, const char* request) {
  char* answer = funcs->Invoke("https://a.example", "7", request);
  if (answer == nullptr) return "<null>";
  std::string text = answer;
  funcs->FreeString(answer);
  return text;
}

// An exception is "no answer" and a line on stderr; the module keeps serving.
// A host that never unloads its modules: the process exits with the module's
// threads running, and must not abort.
TEST(SdkBoundaryTest, ExceptionsAndThreadsAtExitStayInside) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the module starts threads
  EXPECT_EXIT(
      {
        QxClientFuncs* funcs = Load();
        if (funcs == nullptr) std::_Exit(2);
        if (Answer(funcs, R"({"do":"throw"})") != "<null>") std::_Exit(3);
        if (Answer(funcs, R"({"do":"nothing"})") != "<null>") std::_Exit(4);
        if (Answer(funcs, R"({"do":"linger"})") != R"({"did":"linger","id":"7"})") std::_Exit(5);
        std::this_thread::sleep_for(10ms);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "invoke: the module gave up; no answer");
}

// Callbacks sent from a thread of the module reach the host until Terminate
// returns, and not one afterwards.
TEST(SdkBoundaryTest, CallbacksFromAnotherThreadStopAtTerminate) {
  QxClientFuncs* funcs = Load();
  ASSERT_NE(funcs, nullptr) << dlerror();
  char* answer = funcs->SetCallback("https://a.example", "1",
                                    R"({"callback":"cb"})", "t", 1);
  EXPECT_STREQ(answer, R"({"registered":true})");
  funcs->FreeString(answer);
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (g_callbacks < 5 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_GE(g_callbacks, 5);
  funcs->Terminate();
  const int at_terminate = g_callbacks;
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(g_callbacks, at_terminate) << "callbacks sent after Terminate";
}

}  // namespace
