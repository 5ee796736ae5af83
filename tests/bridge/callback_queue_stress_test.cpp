// The callback queue under concurrent producers: module threads calling
// SendCallback (PushSetCallbackReply) and the reader thread's pushes, while
// the extension's thread pops. Nothing may be lost or duplicated, and each
// producer's messages must come out in the order it sent them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bridge/bridge_state.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "support/signed_installation.h"
#include "support/temp_home.h"
#include "tessmar/modhost.h"

namespace {

using tessmar::testing::DrainQueue;
using tessmar::testing::InvokeText;
using tessmar::testing::PopText;
using tessmar::testing::RunIsolated;
using tessmar::testing::SignedInstallation;
using tessmar::testing::TempHome;

constexpr auto kDeadline = std::chrono::seconds(60);

std::string Message(const std::string& tabid, const std::string& callback,
                    const std::string& reply) {
  return "{\"response\":{\"id\":\"setcallback\", \"tabid\":\"" + tabid +
         "\", \"callback\":\"" + callback + "\", \"reply\":" + reply + "}}";
}

// Pops until every producer has delivered `per_producer` messages or the
// deadline passes, checking each message against the one its producer must
// send next. `expected(producer, seq)` gives that text; `identify` finds the
// producer and sequence number of a popped text (false when it cannot).
template <typename Expected, typename Identify>
void ConsumeInOrder(int producers, int per_producer, Expected expected,
                    Identify identify) {
  std::vector<int> next(static_cast<std::size_t>(producers), 0);
  int received = 0;
  const int total = producers * per_producer;
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (received < total && std::chrono::steady_clock::now() < deadline) {
    const std::string text = PopText();
    if (text.empty()) {
      std::this_thread::yield();
      continue;
    }
    int producer = -1;
    int seq = -1;
    ASSERT_TRUE(identify(text, &producer, &seq)) << text;
    ASSERT_TRUE(producer >= 0 && producer < producers) << text;
    ASSERT_EQ(seq, next[static_cast<std::size_t>(producer)])
        << "producer " << producer << " out of order";
    ASSERT_EQ(text, expected(producer, seq));
    ++next[static_cast<std::size_t>(producer)];
    ++received;
  }
  EXPECT_EQ(received, total) << "messages missing when the deadline passed";
}

TEST(CallbackQueueStress, ConcurrentProducersLoseNothingAndKeepTheirOrder) {
  DrainQueue();
  constexpr int kProducers = 8;
  constexpr int kMessages = 2000;
  const auto expected = [](int producer, int seq) {
    return Message("p" + std::to_string(producer), "cb",
                   "{\"seq\":" + std::to_string(seq) + "}");
  };

  std::atomic<bool> go{false};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&go, &expected, p] {
      while (!go.load()) std::this_thread::yield();
      const std::string tabid = "p" + std::to_string(p);
      for (int seq = 0; seq < kMessages; ++seq) {
        if (p == 0) {
          // What the reader thread does with a message of the host.
          tessmar::bridge::QueueCallback(expected(p, seq));
        } else {
          const std::string reply = "{\"seq\":" + std::to_string(seq) + "}";
          tessmar::bridge::PushSetCallbackReply(tabid.c_str(), nullptr, "cb",
                                                reply.c_str());
        }
      }
    });
  }
  go = true;
  ConsumeInOrder(kProducers, kMessages, expected,
                 [](const std::string& text, int* producer, int* seq) {
                   return std::sscanf(text.c_str(),
                                      "{\"response\":{\"id\":\"setcallback\", "
                                      "\"tabid\":\"p%d\", \"callback\":\"cb\", "
                                      "\"reply\":{\"seq\":%d}}}",
                                      producer, seq) == 2;
                 });
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(PopText(), "");
}

TEST(CallbackQueueStress, ModuleThreadsSendingThroughTheBridge) {
  TempHome home;  // removed by this process even if the child is killed
  EXPECT_TRUE(RunIsolated(
      [&home] {
        SignedInstallation install(home);
        install.AddModule("chatty", FIXTURE_CHATTY_PATH);
        constexpr int kThreads = 6;
        constexpr int kMessages = 500;

        // The module starts its threads before it answers.
        EXPECT_EQ(
            InvokeText("{\"cmd\":\"setcallback\",\"id\":\"1\","
                       "\"tabid\":\"chat\",\"callback\":\"onChat\","
                       "\"module\":\"chatty\",\"threads\":" +
                       std::to_string(kThreads) +
                       ",\"messages\":" + std::to_string(kMessages) + "}"),
            "{\"response\": {\"id\": \"1\", \"tabid\":\"chat\", "
            "\"status\":\"TRUE\", \"reply\":{\"started\":" +
                std::to_string(kThreads) + "}, \"callback\": \"onChat\"}}");
        ConsumeInOrder(
            kThreads, kMessages,
            [](int producer, int seq) {
              return Message("chat", "onChat",
                             "{\"producer\":" + std::to_string(producer) +
                                 ",\"seq\":" + std::to_string(seq) + "}");
            },
            [](const std::string& text, int* producer, int* seq) {
              return std::sscanf(text.c_str(),
                                 "{\"response\":{\"id\":\"setcallback\", "
                                 "\"tabid\":\"chat\", \"callback\":\"onChat\", "
                                 "\"reply\":{\"producer\":%d,\"seq\":%d}}}",
                                 producer, seq) == 2;
            });
        UnloadQxClient();  // Terminate joins the module's threads
        EXPECT_EQ(PopText(), "");
      },
      /*timeout_seconds=*/90));
}

}  // namespace
