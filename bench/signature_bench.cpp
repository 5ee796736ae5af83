// The check of a 64 MiB client module (CheckQXClientModuleSignature: read the
// file, ten strengthening rounds) against the floor of any such check: the
// same file read whole and hashed once with OpenSSL's SHA-256, in one run.
// Likewise the making of an installation signature over four 4 MiB files
// (makeSig) against reading each file and hashing it once with OpenSSL.
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
std::string g_stage;      // directory of the four installation files
const char* const kInstallFiles[] = {"libnpTessmarPlugin.so", "libTessmarFirefox.so",
                                     "TessmarChrome", "zz.qx.pelmora.morrowhost.json"};

// One read of the file into memory and one OpenSSL SHA-256 pass over it.
void ReadAndHash(const std::string& path, std::vector<unsigned char>& buffer,
                 unsigned char digest[EVP_MAX_MD_SIZE]) {
  FILE* file = std::fopen(path.c_str(), "rb");
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
  for (std::size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), file)) > 0;) {
    EVP_DigestUpdate(ctx, buffer.data(), n);
  }
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx, digest, &length);
  EVP_MD_CTX_free(ctx);
  std::fclose(file);
}

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
    unsigned char digest[EVP_MAX_MD_SIZE];
    ReadAndHash(g_module, buffer, digest);
    benchmark::DoNotOptimize(digest);
  }
}

void BM_InstallationSignature(benchmark::State& state) {
  for (auto _ : state) {
    std::string sig_path;
    const std::string sig = makeSig("morrowhost", "pelmora", g_stage, sig_path);
    if (sig.size() != 32) {
      state.SkipWithError("no installation signature");
      break;
    }
  }
}

// Each file read whole, as the signature reads it, and hashed once.
void BM_InstallationReadAndSha256(benchmark::State& state) {
  for (auto _ : state) {
    for (const char* name : kInstallFiles) {
      const std::string path = g_stage + "/" + name;
      std::vector<unsigned char> buffer(4 << 20);
      unsigned char digest[EVP_MAX_MD_SIZE];
      ReadAndHash(path, buffer, digest);
      benchmark::DoNotOptimize(digest);
    }
  }
}

BENCHMARK(BM_ClientModuleCheck)->Name("client_module_check/64MiB/ours")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAndSha256)->Name("client_module_check/64MiB/openssl")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InstallationSignature)->Name("installation_sign/4x4MiB/ours")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InstallationReadAndSha256)->Name("installation_sign/4x4MiB/openssl")
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
  g_stage = std::string(tmp != nullptr ? tmp : "/tmp") + "/tessmar-bench-stage-XXXXXX";
  if (mkdtemp(&g_stage[0]) == nullptr) return 1;
  for (const char* name : kInstallFiles) {
    FILE* out = std::fopen((g_stage + "/" + name).c_str(), "wb");
    if (out == nullptr) return 1;
    for (int i = 0; i < 4; ++i) std::fwrite(chunk.data(), 1, chunk.size(), out);
    std::fclose(out);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(g_module.c_str());
  for (const char* name : kInstallFiles) std::remove((g_stage + "/" + name).c_str());
  std::remove(g_stage.c_str());
  return 0;
}
