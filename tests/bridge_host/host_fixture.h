// Support for end-to-end bridge tests in real processes.
//
// tsmx_Startup can succeed once per process (its flag is never cleared), so
// every scenario runs in a forked child of its own, with a deadline: a
// scenario that hangs in a blocking open or read is killed, together with
// the host it started, and fails fast.
#ifndef TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H
#define TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/temp_home.h"

namespace tessmar::testing {

using std::chrono::milliseconds;
inline constexpr milliseconds kScenarioDeadline{20000};

// Runs `body` in a forked child that leads a process group of its own and
// ignores SIGPIPE (the library installs no handler; a write to a host that
// is gone must fail, not kill the scenario). gtest assertions work inside
// `body`; the child prints its own failures, and the calling test fails too
// when the child did, crashed or ran past the deadline. Unlike a plain
// isolated run, a timeout kills the whole group: the host that the scenario
// started, blocked in a read, goes with it.
void RunScenario(const std::function<void()>& body,
                        milliseconds deadline = kScenarioDeadline);

struct ProgramResult {
  int exit_code = -1;  // -1 when killed by a signal or the deadline
  bool timed_out = false;
  std::string out;
  std::string err;
};

// Runs `argv` with `input` on its standard input, the current environment
// minus the variables named in `unset`, and a deadline.
ProgramResult RunProgram(const std::vector<std::string>& argv,
                         const std::string& input = "",
                         const std::vector<std::string>& unset = {},
                         milliseconds deadline = kScenarioDeadline);

// The running test executable, resolved through /proc.
std::string SelfExecutable();

// The three FIFO paths under the current HOME.
std::string ReplyFifo();
std::string RequestFifo();
std::string CallbackFifo();

// Links INSTALL_DIR/TessmarFirefox to `host`; returns the link's path.
std::string LinkHost(const std::string& install_dir, const std::string& host);

// An unsigned installation: config.json's "Tessmar" names HOME/install,
// after `extra` (JSON members, each followed by a comma), and the host there
// is linked to `host`. Returns the host's path. (For module requests use
// SignedInstallation and LinkHost.)
std::string InstallHost(const TempHome& home, const std::string& host,
                        const std::string& extra = "");

// Pops callback messages until `count` have arrived or the deadline passes.
std::vector<std::string> PopMessages(std::size_t count,
                                     milliseconds deadline = milliseconds(5000));

// tsmx_Invoke's result as a value, released; "<null>" for NULL.
std::string InvokeText(const std::string& request);

// True when nothing, not even a dangling link, is at `path`.
bool Absent(const std::string& path);

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_BRIDGE_HOST_HOST_FIXTURE_H
