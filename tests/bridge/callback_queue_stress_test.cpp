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

namespace {

using tessmar::testing::PopText;

std::string Reply(int producer, int seq) {
  return "{\"producer\":" + std::to_string(producer) +
         ",\"seq\":" + std::to_string(seq) + "}";
}

TEST(CallbackQueueStress, ConcurrentProducersLoseNothingAndKeepTheirOrder) {
  tessmar::testing::DrainQueue();
  constexpr int kProducers = 8;
  constexpr int kMessages = 2000;
  std::atomic<bool> go{false};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&go, p] {
      while (!go.load()) std::this_thread::yield();
      for (int seq = 0; seq < kMessages; ++seq) {
        if (p == 0) {  // as the reader thread queues a message of the host
          tessmar::bridge::QueueCallback(tessmar::bridge::SetCallbackMessage(
              "chat", "onChat", Reply(p, seq).c_str()));
        } else {  // as a module thread calls back
          tessmar::bridge::PushSetCallbackReply("chat", nullptr, "onChat",
                                                Reply(p, seq).c_str());
        }
      }
    });
  }
  go = true;
  std::vector<int> next(kProducers, 0);
  int received = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (received < kProducers * kMessages &&
         std::chrono::steady_clock::now() < deadline) {
    const std::string text = PopText();
    if (text.empty()) {
      std::this_thread::yield();
      continue;
    }
    const std::size_t at = text.find("{\"producer\":");
    ASSERT_NE(at, std::string::npos) << text;
    const int p = std::atoi(text.c_str() + at + 12);
    ASSERT_TRUE(p >= 0 && p < kProducers) << text;
    ASSERT_EQ(text, tessmar::bridge::SetCallbackMessage(
                        "chat", "onChat", Reply(p, next[p]++).c_str()));
    ++received;
  }
  EXPECT_EQ(received, kProducers * kMessages) << "messages missing";
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(PopText(), "");
}

}  // namespace
