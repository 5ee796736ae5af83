// The callback queue under concurrent producers while one thread pops:
// nothing lost or duplicated, each producer's order kept.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bridge/bridge_state.h"
#include "support/bridge_calls.h"

namespace {

using tessmar::testing::PopText;

// Producer p's reply number seq; p is a single digit.
std::string Reply(unsigned p, int seq) {
  return "[" + std::to_string(p) + "," + std::to_string(seq) + "]";
}

TEST(CallbackQueueStress, ConcurrentProducersLoseNothingAndKeepTheirOrder) {
  constexpr int kProducers = 8;
  constexpr int kMessages = 2000;
  std::vector<std::thread> producers;
  for (unsigned p = 0; p < kProducers; ++p) {
    producers.emplace_back([p] {
      for (int seq = 0; seq < kMessages; ++seq) {
        tessmar::bridge::PushSetCallbackReply("chat", nullptr, "onChat",
                                              Reply(p, seq).c_str());
      }
    });
  }
  std::vector<int> next(kProducers, 0);
  int received = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (received < kProducers * kMessages &&
         std::chrono::steady_clock::now() < deadline) {
    const std::string text = PopText();
    const std::size_t at = text.find("\"reply\":[");
    if (at == std::string::npos) {
      ASSERT_EQ(text, "");
      std::this_thread::yield();
      continue;
    }
    const unsigned p = static_cast<unsigned>(text[at + 9] - '0') % kProducers;
    ASSERT_EQ(text, tessmar::bridge::SetCallbackMessage("chat", "onChat",
                                                        Reply(p, next[p]++).c_str()));
    ++received;
  }
  EXPECT_EQ(received, kProducers * kMessages) << "messages missing";
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(PopText(), "");
}

}  // namespace
