// Test support: the bridge's exported calls, with what they return released
// through tsmx_Free as the extension does.
#ifndef TESSMAR_TESTS_SUPPORT_BRIDGE_CALLS_H
#define TESSMAR_TESTS_SUPPORT_BRIDGE_CALLS_H

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tessmar/bridge.h"

namespace tessmar::testing {

// tsmx_Invoke's answer; nullopt for NULL.
inline std::optional<std::string> InvokeText(const std::string& request) {
  char* answer = tsmx_Invoke(request.c_str());
  if (answer == nullptr) return std::nullopt;
  const std::string text(answer);
  tsmx_Free(answer);
  return text;
}

// One tsmx_Pop; "" when nothing is queued, "<NULL>" (never expected) for NULL.
inline std::string PopText() {
  char* text = tsmx_Pop();
  const std::string copy = text != nullptr ? text : "<NULL>";
  tsmx_Free(text);
  return copy;
}

// Pops until `count` messages arrived or `timeout` passed.
inline std::vector<std::string> PopMessages(std::size_t count, std::chrono::milliseconds timeout) {
  std::vector<std::string> messages;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (messages.size() < count && std::chrono::steady_clock::now() < deadline) {
    std::string text = PopText();
    if (!text.empty()) messages.push_back(std::move(text));
    else std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return messages;
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_BRIDGE_CALLS_H
