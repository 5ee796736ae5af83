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

using tessmar::testing::PopMessages;
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
  const std::vector<std::string> messages =
      PopMessages(kProducers * kMessages, std::chrono::seconds(60));
  for (std::thread& producer : producers) producer.join();
  ASSERT_EQ(messages.size(), std::size_t{kProducers * kMessages}) << "messages missing";
  std::vector<int> next(kProducers, 0);
  for (const std::string& text : messages) {
    const unsigned p = static_cast<unsigned>(text.at(text.find("\"reply\":[") + 9) - '0') % kProducers;
    ASSERT_EQ(text, tessmar::bridge::SetCallbackMessage("chat", "onChat",
                                                        Reply(p, next[p]++).c_str()));
  }
  EXPECT_EQ(PopText(), "");
}

}  // namespace
