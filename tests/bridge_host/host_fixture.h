// End-to-end bridge tests in real processes. tsmx_Startup can succeed only
// once per process, so every scenario runs under RunIsolated.
#ifndef TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H
#define TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "tessmar/host_protocol.h"
#include "config/config_location.h"
#include "frame.h"
#include "support/bridge_calls.h"
#include "support/isolated_process.h"
#include "support/run_program.h"  // and temp_home.h

namespace tessmar::testing {

using std::chrono::milliseconds;

// A message as it travels on the FIFOs and the adapter's standard streams.
using tools::Frame;

inline std::string Fifo(const char* name) {
  return std::string(std::getenv("HOME")) + kUserConfigSubdirectory + "/" + name;
}
inline std::string ReplyFifo() { return Fifo(bridge::kReplyFifoName); }
inline std::string RequestFifo() { return Fifo(bridge::kRequestFifoName); }
inline std::string CallbackFifo() { return Fifo(bridge::kCallbackFifoName); }

// "p600", "d755"... for what is at `path` (links not followed), or "absent".
inline std::string Node(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return "absent";
  char text[8];
  std::snprintf(text, sizeof text, "%c%o",
                S_ISFIFO(info.st_mode) ? 'p' : S_ISDIR(info.st_mode) ? 'd' : '-',
                static_cast<unsigned>(info.st_mode & 07777));
  return text;
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H
