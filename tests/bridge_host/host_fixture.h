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
#include "support/run_program.h"
#include "support/temp_home.h"

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

// Links INSTALL_DIR/TessmarFirefox to `host`; returns the link's path.
inline std::string LinkHost(const std::string& install_dir, const std::string& host) {
  MakeDirectories(install_dir);
  const std::string path = install_dir + "/" + bridge::kHostExecutableName;
  EXPECT_EQ(0, symlink(host.c_str(), path.c_str())) << path;
  return path;
}

// An unsigned installation in HOME/install named by config.json, its host
// the scripted one (/proc/self/exe names whichever test forks the host);
// returns the host's path.
inline std::string InstallScriptedHost(const TempHome& home) {
  home.WriteConfig("config.json", "{\"Tessmar\":\"" + home.path() + "/install\"}");
  return LinkHost(home.path() + "/install", "/proc/self/exe");
}

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

inline void ExpectFifos(const std::string& node) {
  for (const std::string& fifo : {ReplyFifo(), RequestFifo(), CallbackFifo()}) {
    EXPECT_EQ(node, Node(fifo)) << fifo;
  }
}

// The scripted host: this executable started under the host's name. It
// records its argv (NUL-terminated) in HOME/argv and every request byte in
// HOME/input, then exits 0 (1 when a step failed).
inline constexpr char kScriptVariable[] = "TESSMAR_TEST_HOST_SCRIPT";

class HostScript {
 public:
  HostScript& Read() { return Step('r', ""); }   // one whole request message
  HostScript& Drain() { return Step('d', ""); }  // requests until closed
  HostScript& Reply(const std::string& body) { return Raw(Frame(body)); }
  HostScript& Raw(const std::string& bytes) { return Step('w', bytes); }
  HostScript& Callback(const std::string& body) { return Step('c', Frame(body)); }
  HostScript& SleepMs(int ms) { return Step('s', std::to_string(ms)); }
  // Once `bytes` request bytes lie unread (at most 5 s), closes the request
  // FIFO: the library's writes then fail.
  HostScript& CloseRequestsAt(int bytes) { return Step('x', std::to_string(bytes)); }
  // For the next host started: the steps go to HOME/script, each one letter
  // and its framed argument.
  void Use() const {
    const std::string path = std::string(std::getenv("HOME")) + "/script";
    WriteFile(path, text_);
    setenv(kScriptVariable, path.c_str(), 1);
  }

 private:
  HostScript& Step(char op, const std::string& argument) {
    text_ += op + Frame(argument);
    return *this;
  }
  std::string text_;
};

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H
