// A module built on the SDK, loaded as the host loads it: exceptions stay
// inside it, its threads end at Terminate and at exit, and its callback
// handle works from other threads until Terminate and not after.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "tessmar/module.h"

namespace {

using namespace std::chrono_literals;

std::atomic<int> g_callbacks{0};
std::atomic<bool> g_from_other_thread{false};
std::thread::id g_request_thread;

int RecordCallback(const char* tabid, const void*, const char* callback,
                   const char* reply) {
  if (std::string(tabid) == "t" && std::string(callback) == "cb" &&
      std::string(reply) == R"({"tick":true})") {
    ++g_callbacks;
  }
  if (std::this_thread::get_id() != g_request_thread) g_from_other_thread = true;
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
  g_request_thread = std::this_thread::get_id();
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

class SdkBoundaryTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SdkBoundaryTest, AnswersAndNoAnswer) {
  QxClientFuncs* funcs = Load();
  ASSERT_NE(funcs, nullptr) << dlerror();
  EXPECT_EQ(Answer(funcs, R"({"do":"say \"hi\"\n"})"), R"({"did":"say \"hi\"\n","id":"7"})");
  EXPECT_EQ(Answer(funcs, R"({"do":"nothing"})"), "<null>");
  funcs->Terminate();
}

// An exception is "no answer" and a line on stderr; the module keeps serving.
TEST_F(SdkBoundaryTest, ExceptionBecomesNoAnswer) {
  EXPECT_EXIT(
      {
        QxClientFuncs* funcs = Load();
        if (funcs == nullptr) std::_Exit(2);
        if (Answer(funcs, R"({"do":"throw"})") != "<null>") std::_Exit(3);
        if (Answer(funcs, R"({"do":"again"})") != R"({"did":"again","id":"7"})") std::_Exit(4);
        funcs->Terminate();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "invoke: the module gave up; no answer");
}

// A host that never unloads its modules: the process exits with the module's
// threads running, and must not abort.
TEST_F(SdkBoundaryTest, ThreadsRunningAtExitDoNotAbort) {
  EXPECT_EXIT(
      {
        QxClientFuncs* funcs = Load();
        if (funcs == nullptr) std::_Exit(2);
        Answer(funcs, R"({"do":"linger"})");
        std::this_thread::sleep_for(10ms);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Callbacks sent from a thread of the module reach the host until Terminate
// returns, and not one afterwards.
TEST_F(SdkBoundaryTest, CallbacksFromAnotherThreadStopAtTerminate) {
  QxClientFuncs* funcs = Load();
  ASSERT_NE(funcs, nullptr) << dlerror();
  char* answer = funcs->SetCallback("https://a.example", "1",
                                    R"({"callback":"cb"})", "t", 1);
  ASSERT_NE(answer, nullptr);
  EXPECT_STREQ(answer, R"({"registered":true})");
  funcs->FreeString(answer);
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (g_callbacks < 5 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_GE(g_callbacks, 5);
  EXPECT_TRUE(g_from_other_thread);
  funcs->Terminate();
  const int at_terminate = g_callbacks;
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(g_callbacks, at_terminate) << "callbacks sent after Terminate";
}

}  // namespace
