// The callback queue under concurrent producers while one thread pops:
// nothing lost or duplicated, each producer's order kept.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bridge/bridge_state.h"
#include "bridge/set_callback_message.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/modhost.h"

namespace {

using namespace tessmar::testing;

std::string Reply(int producer, int seq) {
  return "{\"producer\":" + std::to_string(producer) +
         ",\"seq\":" + std::to_string(seq) + "}";
}

std::string Message(int producer, int seq) {
  return tessmar::bridge::SetCallbackMessage("chat", "onChat",
                                             Reply(producer, seq).c_str());
}

// Pops until all messages arrived (or 60 s), each checked against the next
// one its producer must send.
void ConsumeInOrder(int producers, int per_producer) {
  std::vector<int> next(static_cast<std::size_t>(producers), 0);
  int received = 0;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (received < producers * per_producer &&
         std::chrono::steady_clock::now() < deadline) {
    const std::string text = PopText();
    if (text.empty()) {
      std::this_thread::yield();
      continue;
    }
    const std::size_t at = text.find("{\"producer\":");
    ASSERT_NE(at, std::string::npos) << text;
    const int producer = std::atoi(text.c_str() + at + 12);
    ASSERT_TRUE(producer >= 0 && producer < producers) << text;
    ASSERT_EQ(text,
              Message(producer, next[static_cast<std::size_t>(producer)]++));
    ++received;
  }
  EXPECT_EQ(received, producers * per_producer) << "messages missing";
}

TEST(CallbackQueueStress, ConcurrentProducersLoseNothingAndKeepTheirOrder) {
  DrainQueue();
  constexpr int kProducers = 8;
  constexpr int kMessages = 2000;
  std::atomic<bool> go{false};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&go, p] {
      while (!go.load()) std::this_thread::yield();
      for (int seq = 0; seq < kMessages; ++seq) {
        if (p == 0) {  // as the reader thread queues a message of the host
          tessmar::bridge::QueueCallback(Message(p, seq));
        } else {
          tessmar::bridge::PushSetCallbackReply("chat", nullptr, "onChat",
                                                Reply(p, seq).c_str());
        }
      }
    });
  }
  go = true;
  ConsumeInOrder(kProducers, kMessages);
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(PopText(), "");
}

TEST(CallbackQueueStress, ModuleThreadsSendingThroughTheBridge) {
  TempHome home;  // removed by this process even if the child is killed
  EXPECT_TRUE(RunIsolated(
      [&home] {
        SignedInstallation install(home);
        install.AddModule("chatty", FIXTURE_CHATTY_PATH);
        EXPECT_EQ(InvokeText("{\"cmd\":\"setcallback\",\"id\":\"1\","
                             "\"tabid\":\"chat\",\"callback\":\"onChat\","
                             "\"module\":\"chatty\",\"threads\":6,"
                             "\"messages\":500}"),
                  "{\"response\": {\"id\": \"1\", \"tabid\":\"chat\", "
                  "\"status\":\"TRUE\", \"reply\":{\"started\":6}, "
                  "\"callback\": \"onChat\"}}");
        ConsumeInOrder(6, 500);
        UnloadQxClient();  // Terminate joins the module's threads
        EXPECT_EQ(PopText(), "");
      },
      /*timeout_seconds=*/90));
}

}  // namespace
