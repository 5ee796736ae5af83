// Cost of one request through the host: tsmx_Invoke in host mode, with the
// reference host answering an echo request, next to a bare two-process FIFO
// ping-pong with the same framing and no library, in one run.
//
// The bridge can be started once per process, so main() sets everything up
// once: a temporary HOME whose config.json points at the reference host, the
// ping-pong peer (forked before tsmx_Startup starts the reader thread), and
// the host. Wall-clock time is what counts here: both cases mostly wait on
// the other process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "echo_request.h"
#include "frame.h"
#include "tessmar/bridge.h"

namespace {

constexpr char kConfigSubdirectory[] = "/.config/Pelmora/Tessmar/morrowhost";

int g_pingRequest = -1;  // parent's write end
int g_pingReply = -1;    // parent's read end
pid_t g_pingPeer = -1;

bool SendFrame(int fd, const std::string& body) {
  return tessmar::tools::WriteFrame(fd, body);
}

bool ReceiveFrame(int fd, std::string& body) {
  return tessmar::tools::ReadFrame(fd, body) == tessmar::tools::FrameRead::kMessage;
}

// The ping-pong peer: echoes every frame until the pipe closes.
[[noreturn]] void PingPongPeer(const std::string& request_path,
                               const std::string& reply_path) {
  const int in = open(request_path.c_str(), O_RDONLY);
  const int out = open(reply_path.c_str(), O_WRONLY);
  std::string body;
  while (in >= 0 && out >= 0 && ReceiveFrame(in, body) &&
         SendFrame(out, body)) {
  }
  _exit(0);
}

bool StartPingPong(const std::string& dir) {
  const std::string request_path = dir + "/ping.request";
  const std::string reply_path = dir + "/ping.reply";
  if (mkfifo(request_path.c_str(), 0600) != 0 ||
      mkfifo(reply_path.c_str(), 0600) != 0) {
    return false;
  }
  g_pingPeer = fork();
  if (g_pingPeer < 0) return false;
  if (g_pingPeer == 0) PingPongPeer(request_path, reply_path);
  // Same opening order as the peer, or both block. Close-on-exec: the host
  // that tsmx_Startup forks inherits every other descriptor and would keep
  // the peer from ever seeing the end of its pipe.
  g_pingRequest = open(request_path.c_str(), O_WRONLY | O_CLOEXEC);
  g_pingReply = open(reply_path.c_str(), O_RDONLY | O_CLOEXEC);
  return g_pingRequest >= 0 && g_pingReply >= 0;
}

void StopPingPong() {
  if (g_pingRequest >= 0) close(g_pingRequest);
  if (g_pingReply >= 0) close(g_pingReply);
  // Reaped here, before tsmx_End, whose wait takes any child.
  if (g_pingPeer > 0) waitpid(g_pingPeer, nullptr, 0);
}

void BM_HostRoundTrip(benchmark::State& state) {
  const std::string request = EchoRequest(static_cast<std::size_t>(state.range(0)));
  std::size_t reply_bytes = 0;
  for (auto _ : state) {
    char* reply = tsmx_Invoke(request.c_str());
    if (reply == nullptr) {
      state.SkipWithError("the host gave no reply");
      break;
    }
    reply_bytes = std::strlen(reply);
    tsmx_Free(reply);
  }
  state.counters["reply_bytes"] = static_cast<double>(reply_bytes);
}

void BM_FifoPingPong(benchmark::State& state) {
  const std::string request = EchoRequest(static_cast<std::size_t>(state.range(0)));
  std::string reply;
  for (auto _ : state) {
    if (!SendFrame(g_pingRequest, request) ||
        !ReceiveFrame(g_pingReply, reply)) {
      state.SkipWithError("the ping-pong peer is gone");
      break;
    }
    benchmark::DoNotOptimize(reply.data());
  }
  state.counters["reply_bytes"] = static_cast<double>(reply.size());
}

BENCHMARK(BM_HostRoundTrip)->Name("host_roundtrip/tsmx_Invoke")
    ->Arg(100)->Arg(4096)->UseRealTime();
BENCHMARK(BM_FifoPingPong)->Name("host_roundtrip/fifo_pingpong")
    ->Arg(100)->Arg(4096)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // A vanished host or peer must show as an error, not end the run.
  signal(SIGPIPE, SIG_IGN);

  const char* tmp = std::getenv("TMPDIR");
  std::string home =
      std::string(tmp != nullptr ? tmp : "/tmp") + "/tessmar-bench-XXXXXX";
  if (mkdtemp(&home[0]) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  setenv("HOME", home.c_str(), 1);
  const std::string install = home + "/install";
  const std::string config = home + kConfigSubdirectory;
  std::string command = "mkdir -p '" + install + "' '" + config + "'";
  if (std::system(command.c_str()) != 0 ||
      symlink(TESSMAR_BENCH_REFERENCE_HOST,
              (install + "/TessmarFirefox").c_str()) != 0) {
    std::fprintf(stderr, "cannot lay out the installation in %s\n",
                 home.c_str());
    return 1;
  }
  std::ofstream(config + "/config.json") << "{\"Tessmar\":\"" << install
                                         << "\"}";

  int status = 0;
  if (!StartPingPong(home)) {
    std::perror("ping-pong peer");
    status = 1;
  } else if (tsmx_Startup() != 0) {
    std::fprintf(stderr, "tsmx_Startup failed\n");
    status = 1;
  } else {
    benchmark::RunSpecifiedBenchmarks();
  }
  StopPingPong();
  tsmx_End();
  benchmark::Shutdown();

  command = "rm -rf '" + home + "'";
  if (std::system(command.c_str()) != 0) status = 1;
  return status;
}
