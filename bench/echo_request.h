// The request both bridge benchmarks send: an echo request, answered by the
// module host without loading any module, padded to exactly `size` bytes.
#ifndef TESSMAR_BENCH_ECHO_REQUEST_H
#define TESSMAR_BENCH_ECHO_REQUEST_H

#include <string>

inline std::string EchoRequest(std::size_t size) {
  const std::string head =
      R"({"cmd":"native","id":"1","tabid":"t","callback":"c","echo":true,)"
      R"("pad":")";
  const std::string tail = "\"}";
  return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

#endif  // TESSMAR_BENCH_ECHO_REQUEST_H
