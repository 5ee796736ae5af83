// A host process for framing tests: the test binary itself, re-executed
// under the host's name, follows a script of reads and writes and records
// what it saw.
//
// The script and the record directory travel in the environment, which the
// library hands to the host unchanged. The host records its argument vector
// (each argument followed by a NUL) in RECORD/argv and every byte it reads
// from the request FIFO in RECORD/input.
#ifndef TESSMAR_TESTS_BRIDGE_HOST_SCRIPTED_HOST_H
#define TESSMAR_TESTS_BRIDGE_HOST_SCRIPTED_HOST_H

#include <string>

namespace tessmar::testing {

inline constexpr char kScriptVariable[] = "TESSMAR_TEST_HOST_SCRIPT";
inline constexpr char kRecordVariable[] = "TESSMAR_TEST_HOST_RECORD";

// Builds a script; steps run in order, then the host closes its pipes and
// exits 0 (1 with a message on stderr when a step fails).
class HostScript {
 public:
  // Reads one whole request message.
  HostScript& Read() { return Step("read", ""); }
  // Reads the request FIFO until the library closes it (after tsmx_End).
  HostScript& Drain() { return Step("drain", ""); }
  // One reply message: the length with one write, the body with another.
  HostScript& Reply(const std::string& body) { return Step("reply", body); }
  // `bytes` as they stand on the reply FIFO, in one write.
  HostScript& Raw(const std::string& bytes) { return Step("raw", bytes); }
  // One message on the callback FIFO.
  HostScript& Callback(const std::string& body) {
    return Step("callback", body);
  }
  HostScript& SleepMs(int ms) { return Step("sleep", std::to_string(ms)); }

  const std::string& text() const { return text_; }

 private:
  HostScript& Step(const char* op, const std::string& argument);
  std::string text_;
};

// True when this process was started as the scripted host: under the host
// executable's name, with a script in the environment.
bool IsScriptedHostRole(const char* argv0);

// The scripted host's main.
int RunScriptedHost(int argc, char** argv);

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_BRIDGE_HOST_SCRIPTED_HOST_H
