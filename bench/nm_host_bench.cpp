// The native-messaging adapter as a browser sees it, beside a minimal
// native-messaging host that only answers, in one run:
//   nm_roundtrip/adapter, nm_roundtrip/minimal_host: a 100-byte echo request
//       and its reply over the standard streams;
//   nm_callback_delay/adapter: from a module thread's SendCallback to the
//       callback message read from the adapter's output;
//   nm_request_during_slow_call/adapter: an echo request to one adapter
//       while another (the extension runs one per module) is in a 1500 ms
//       module call;
//   nm_idle/*: wake-ups per second of an idle process (a counter).
// Every figure is wall-clock time: the programs mostly wait on each other.
#include <benchmark/benchmark.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "echo_request.h"
#include "frame.h"
#include "support/piped_child.h"

namespace {

using tessmar::testing::PipedChild;

constexpr char kConfigSubdirectory[] = "/.config/Pelmora/Tessmar/morrowhost";

long long MonotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// {"seq":N,"request":TEXT}, as the extension writes it.
std::string Message(int seq, const std::string& request) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  writer.Key("seq");
  writer.Int(seq);
  writer.Key("request");
  writer.String(request.data(), static_cast<rapidjson::SizeType>(request.size()));
  writer.EndObject();
  return buffer.GetString();
}

bool SendFrame(int fd, const std::string& body) {
  return tessmar::tools::WriteFrame(fd, body);
}

bool ReceiveFrame(int fd, std::string& body) {
  return tessmar::tools::ReadFrame(fd, body) == tessmar::tools::FrameRead::kMessage;
}

// The anchor: reads a message, answers a reply of `reply_bytes`, until its
// input ends. Nothing else.
[[noreturn]] void MinimalHost(std::size_t reply_bytes) {
  const std::string reply = "{\"seq\":1,\"reply\":\"" + std::string(reply_bytes - 20, 'x') + "\"}";
  std::string body;
  while (ReceiveFrame(0, body) && SendFrame(1, reply)) {
  }
  _exit(0);
}

// A child process on a pair of pipes: the adapter, or the anchor.
class Peer {
 public:
  // Runs `argv` and reads its {"mode":...} message, or MinimalHost(reply_bytes)
  // when argv is empty.
  explicit Peer(std::vector<std::string> argv, std::size_t reply_bytes = 0)
      : child_(argv.empty()
                   ? std::make_unique<PipedChild>([reply_bytes] { MinimalHost(reply_bytes); })
                   : std::make_unique<PipedChild>(argv)) {
    std::string mode;
    if (!argv.empty()) Receive(mode);
  }
  bool Send(const std::string& body) {
    child_->Write(tessmar::tools::Frame(body));
    return true;
  }
  bool Receive(std::string& body) {
    body = child_->Read();
    return body != "<none>";
  }
  long ContextSwitches() const { return child_->ContextSwitches(); }

 private:
  std::unique_ptr<PipedChild> child_;
};

std::size_t g_reply_bytes = 0;  // the adapter's reply to the echo request

void BM_AdapterRoundTrip(benchmark::State& state) {
  Peer adapter({TESSMAR_BENCH_NM_HOST, "--library", TESSMAR_BENCH_LIBRARY});
  const std::string message = Message(1, EchoRequest(100));
  std::string reply;
  for (auto _ : state) {
    if (!adapter.Send(message) || !adapter.Receive(reply)) {
      state.SkipWithError("the adapter is gone");
      break;
    }
  }
  g_reply_bytes = reply.size();
  state.counters["reply_bytes"] = static_cast<double>(reply.size());
}

void BM_MinimalHostRoundTrip(benchmark::State& state) {
  Peer host({}, g_reply_bytes != 0 ? g_reply_bytes : 150);
  const std::string message = Message(1, EchoRequest(100));
  std::string reply;
  for (auto _ : state) {
    if (!host.Send(message) || !host.Receive(reply)) {
      state.SkipWithError("the minimal host is gone");
      break;
    }
  }
  state.counters["reply_bytes"] = static_cast<double>(reply.size());
}

void BM_CallbackDelay(benchmark::State& state) {
  Peer adapter({TESSMAR_BENCH_NM_HOST, "--library", TESSMAR_BENCH_LIBRARY});
  const std::string message = Message(
      1, R"({"cmd":"setcallback","id":"1","tabid":"t","callback":"c","module":"stamp","delayMs":2})");
  std::string reply, callback;
  for (auto _ : state) {
    if (!adapter.Send(message) || !adapter.Receive(reply) || !adapter.Receive(callback)) {
      state.SkipWithError("the adapter is gone");
      break;
    }
    const long long now = MonotonicNs();
    const std::size_t at = callback.find("ns\\\":");
    if (at == std::string::npos) {
      state.SkipWithError(("no time stamp in " + callback).c_str());
      break;
    }
    const long long sent = std::strtoll(callback.c_str() + at + 5, nullptr, 10);
    state.SetIterationTime(static_cast<double>(now - sent) / 1e9);
  }
}

void BM_RequestDuringSlowCall(benchmark::State& state) {
  Peer slow({TESSMAR_BENCH_NM_HOST, "--library", TESSMAR_BENCH_LIBRARY});
  Peer other({TESSMAR_BENCH_NM_HOST, "--library", TESSMAR_BENCH_LIBRARY});
  const std::string slow_call = Message(
      1, R"({"cmd":"native","id":"1","tabid":"t","module":"stamp","sleepMs":1500})");
  const std::string echo = Message(2, EchoRequest(100));
  std::string reply;
  for (auto _ : state) {
    slow.Send(slow_call);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const long long start = MonotonicNs();
    if (!other.Send(echo) || !other.Receive(reply)) {
      state.SkipWithError("the adapter is gone");
      break;
    }
    state.SetIterationTime(static_cast<double>(MonotonicNs() - start) / 1e9);
    slow.Receive(reply);
  }
}

void IdleWakeups(benchmark::State& state, Peer& peer) {
  // Let it reach its waiting point first: going to sleep is a switch too.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (auto _ : state) {
    const long before = peer.ContextSwitches();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    state.counters["wakeups_per_second"] = static_cast<double>(peer.ContextSwitches() - before);
  }
}

void BM_AdapterIdle(benchmark::State& state) {
  Peer adapter({TESSMAR_BENCH_NM_HOST, "--library", TESSMAR_BENCH_LIBRARY});
  IdleWakeups(state, adapter);
}

void BM_MinimalHostIdle(benchmark::State& state) {
  Peer host({}, 150);
  IdleWakeups(state, host);
}

BENCHMARK(BM_AdapterRoundTrip)->Name("nm_roundtrip/adapter")->UseRealTime();
BENCHMARK(BM_MinimalHostRoundTrip)->Name("nm_roundtrip/minimal_host")->UseRealTime();
BENCHMARK(BM_CallbackDelay)->Name("nm_callback_delay/adapter")->UseManualTime()
    ->Iterations(200);
BENCHMARK(BM_RequestDuringSlowCall)->Name("nm_request_during_slow_call/adapter")
    ->UseManualTime()->Iterations(2);
BENCHMARK(BM_AdapterIdle)->Name("nm_idle/adapter")->Iterations(1);
BENCHMARK(BM_MinimalHostIdle)->Name("nm_idle/minimal_host")->Iterations(1);

bool Run(const std::string& command) { return std::system(command.c_str()) == 0; }

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  signal(SIGPIPE, SIG_IGN);  // a vanished peer shows as an error

  const char* tmp = std::getenv("TMPDIR");
  std::string home = std::string(tmp != nullptr ? tmp : "/tmp") + "/tessmar-nm-bench-XXXXXX";
  if (mkdtemp(&home[0]) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  setenv("HOME", home.c_str(), 1);
  // A signed sandbox installation with the stamp module.
  const std::string config = home + kConfigSubdirectory;
  const std::string sign = std::string("'") + TESSMAR_BENCH_SIGN + "' ";
  if (!Run("mkdir -p '" + config + "' '" + home + "/install'") ||
      symlink(TESSMAR_BENCH_LIBRARY, (home + "/install/libTessmarFirefox.so").c_str()) != 0) {
    return 1;
  }
  std::ofstream(config + "/config.json") << "{\"Tessmar\":\"" << home << "/install\"}";
  int status = 0;
  if (!Run(sign + "install >/dev/null 2>&1") ||
      !Run(sign + "module stamp '" TESSMAR_BENCH_STAMP_MODULE "' >/dev/null")) {
    std::fprintf(stderr, "cannot sign the sandbox installation in %s\n", home.c_str());
    status = 1;
  } else {
    benchmark::RunSpecifiedBenchmarks();
  }
  benchmark::Shutdown();
  if (!Run("rm -rf '" + home + "'")) status = 1;
  return status;
}
