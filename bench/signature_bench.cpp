// The check of a 64 MiB client module (CheckQXClientModuleSignature: read the
// file, ten strengthening rounds) against the floor of any such check: the
// same file read whole and hashed once with OpenSSL's SHA-256, in one run.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tessmar/signature.h"

namespace {

std::string g_module;     // path of the 64 MiB file
std::string g_signature;  // its signature text

void BM_ClientModuleCheck(benchmark::State& state) {
  for (auto _ : state) {
    if (!CheckQXClientModuleSignature(g_module.c_str(), g_signature.c_str())) {
      state.SkipWithError("the signature did not match");
      break;
    }
  }
}

void BM_ReadAndSha256(benchmark::State& state) {
  std::vector<unsigned char> buffer(1 << 20);
  for (auto _ : state) {
    FILE* file = std::fopen(g_module.c_str(), "rb");
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    for (std::size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), file)) > 0;) {
      EVP_DigestUpdate(ctx, buffer.data(), n);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx, digest, &length);
    EVP_MD_CTX_free(ctx);
    std::fclose(file);
    benchmark::DoNotOptimize(digest);
  }
}

BENCHMARK(BM_ClientModuleCheck)->Name("client_module_check/64MiB/ours")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAndSha256)->Name("client_module_check/64MiB/openssl")
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const char* tmp = std::getenv("TMPDIR");
  g_module = std::string(tmp != nullptr ? tmp : "/tmp") + "/tessmar-bench-module-XXXXXX";
  const int fd = mkstemp(&g_module[0]);
  FILE* file = fd >= 0 ? fdopen(fd, "wb") : nullptr;
  if (file == nullptr) return 1;
  std::vector<char> chunk(1 << 20);
  for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 131);
  for (int i = 0; i < 64; ++i) std::fwrite(chunk.data(), 1, chunk.size(), file);
  std::fclose(file);
  g_signature = MakeBase64Encode(makeClientSig("morrowhost", "pelmora", g_module));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(g_module.c_str());
  return 0;
}
