// Cost of one in-process request: tsmx_Invoke with no host running, on an
// echo request that the module host answers without loading a module, next
// to the floor any such call has: one json_parse + json_value_free of the
// same text and one malloc'ed copy of it, in the same run.
#include <benchmark/benchmark.h>
#include <json.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "echo_request.h"
#include "tessmar/bridge.h"

namespace {

void BM_InvokeInProcess(benchmark::State& state) {
  const std::string request =
      EchoRequest(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    char* reply = tsmx_Invoke(request.c_str());
    if (reply == nullptr) {
      state.SkipWithError("no reply");
      break;
    }
    benchmark::DoNotOptimize(reply);
    tsmx_Free(reply);
  }
}

void BM_ParseAndCopy(benchmark::State& state) {
  const std::string request =
      EchoRequest(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    json_value* tree = json_parse(request.c_str(), request.size());
    benchmark::DoNotOptimize(tree);
    json_value_free(tree);
    char* copy = static_cast<char*>(std::malloc(request.size() + 1));
    std::memcpy(copy, request.c_str(), request.size() + 1);
    benchmark::DoNotOptimize(copy);
    std::free(copy);
  }
}

BENCHMARK(BM_InvokeInProcess)->Name("in_process/tsmx_Invoke")
    ->Arg(100)->Arg(4096);
BENCHMARK(BM_ParseAndCopy)->Name("in_process/json_parse_and_copy")
    ->Arg(100)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
