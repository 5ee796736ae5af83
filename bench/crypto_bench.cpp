// Throughput of the library's digests and AES modes next to OpenSSL's, in
// one run. Each case is registered twice in a row, "<case>/ours" and
// "<case>/openssl", so the pairs sit together in the output; key setup and
// context creation stay outside the timed loop. Before timing, each "ours"
// case checks its output against OpenSSL's and is skipped on a mismatch, so
// a broken primitive cannot produce a flattering number.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tessmar/block_cipher.h"
#include "tessmar/digest.h"

namespace {

constexpr size_t kMiB = size_t{1} << 20;

const std::vector<unsigned char>& Message() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> bytes(kMiB);
    std::mt19937 rng(0x5eed);
    for (auto& b : bytes) b = static_cast<unsigned char>(rng());
    return bytes;
  }();
  return data;
}

const unsigned char kKey[32] = {0x60, 0x3d, 0xeb, 0x10, 0x15, 0xca, 0x71, 0xbe,
                                0x2b, 0x73, 0xae, 0xf0, 0x85, 0x7d, 0x77, 0x81,
                                0x1f, 0x35, 0x2c, 0x07, 0x3b, 0x61, 0x08, 0xd7,
                                0x2d, 0x98, 0x10, 0xa3, 0x09, 0x14, 0xdf, 0xf4};
const unsigned char kIv[16] = {0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7,
                               0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd, 0xfe, 0xff};

// ---- digests ---------------------------------------------------------------

struct DigestCase {
  const char* label;         // benchmark name prefix
  const char* openssl_name;  // EVP_MD_fetch name
  unsigned size;             // digest bytes
  // One whole message through the library's init/update/final.
  bool (*ours)(const unsigned char* data, unsigned length, unsigned char* out);
};

template <typename Ctx, int (*Init)(Ctx*),
          int (*Update)(Ctx*, const unsigned char*, unsigned int),
          int (*Final)(Ctx*, unsigned char*)>
bool OneShot(const unsigned char* data, unsigned length, unsigned char* out) {
  Ctx ctx;
  return Init(&ctx) == 0 && Update(&ctx, data, length) == 0 &&
         Final(&ctx, out) == 0;
}

const DigestCase kDigests[] = {
    {"MD5", "MD5", MD5_DIGEST_SIZE,
     OneShot<md5_state_structure, init_MD5, update_MD5, final_MD5>},
    {"SHA1", "SHA1", SHA1_DIGEST_SIZE,
     OneShot<sha1_state_structure, init_SHA1, update_SHA1, final_SHA1>},
    {"SHA256", "SHA256", SHA256_DIGEST_SIZE,
     OneShot<sha256_state_structure, init_SHA256, update_SHA256, final_SHA256>},
    {"SHA512", "SHA512", SHA512_DIGEST_SIZE,
     OneShot<sha512_state_structure, init_SHA512, update_SHA512, final_SHA512>},
};

// OpenSSL with a fetched algorithm and a reused context, the way a careful
// caller would hash many messages; EVP_Digest would add an allocation and an
// algorithm lookup per message, which dominates at 64 bytes.
class OpensslDigest {
 public:
  explicit OpensslDigest(const char* name)
      : md_(EVP_MD_fetch(nullptr, name, nullptr)), ctx_(EVP_MD_CTX_new()) {}
  ~OpensslDigest() {
    EVP_MD_CTX_free(ctx_);
    EVP_MD_free(md_);
  }
  OpensslDigest(const OpensslDigest&) = delete;
  OpensslDigest& operator=(const OpensslDigest&) = delete;

  bool Run(const unsigned char* data, size_t length, unsigned char* out) {
    unsigned int out_length = 0;
    return md_ != nullptr && ctx_ != nullptr &&
           EVP_DigestInit_ex(ctx_, md_, nullptr) == 1 &&
           EVP_DigestUpdate(ctx_, data, length) == 1 &&
           EVP_DigestFinal_ex(ctx_, out, &out_length) == 1;
  }

 private:
  EVP_MD* md_;
  EVP_MD_CTX* ctx_;
};

void DigestOurs(benchmark::State& state, const DigestCase& dc, size_t length) {
  const unsigned char* data = Message().data();
  unsigned char ours[64] = {};
  unsigned char reference[64] = {};
  OpensslDigest openssl(dc.openssl_name);
  if (!dc.ours(data, static_cast<unsigned>(length), ours) ||
      !openssl.Run(data, length, reference) ||
      std::memcmp(ours, reference, dc.size) != 0) {
    state.SkipWithError("digest differs from OpenSSL or failed");
    return;
  }
  for (auto _ : state) {
    dc.ours(data, static_cast<unsigned>(length), ours);
    benchmark::DoNotOptimize(ours);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
}

void DigestOpenssl(benchmark::State& state, const DigestCase& dc,
                   size_t length) {
  const unsigned char* data = Message().data();
  unsigned char out[EVP_MAX_MD_SIZE];
  OpensslDigest openssl(dc.openssl_name);
  if (!openssl.Run(data, length, out)) {
    state.SkipWithError("OpenSSL digest failed");
    return;
  }
  for (auto _ : state) {
    openssl.Run(data, length, out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
}

// ---- AES -------------------------------------------------------------------

struct CipherCase {
  const char* label;
  uint8_t mode;   // BC_MODE_*
  int direction;  // 1 encrypt, 0 decrypt
  const char* openssl_mode;
};

const CipherCase kCipherModes[] = {
    {"ECB-enc", BC_MODE_ECB, 1, "ECB"},
    {"CBC-enc", BC_MODE_CBC, 1, "CBC"},
    {"CBC-dec", BC_MODE_CBC, 0, "CBC"},
    {"CTR", BC_MODE_CTR, 1, "CTR"},
};

struct KeySize {
  int bits;
  uint32_t algorithm;
};

const KeySize kKeySizes[] = {{128, BC_ALG_AES128}, {256, BC_ALG_AES256}};

class OpensslCipher {
 public:
  OpensslCipher(int bits, const CipherCase& cc) : ctx_(EVP_CIPHER_CTX_new()) {
    const std::string name =
        "AES-" + std::to_string(bits) + "-" + cc.openssl_mode;
    cipher_ = EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr);
    ok_ = cipher_ != nullptr && ctx_ != nullptr &&
          EVP_CipherInit_ex2(ctx_, cipher_, kKey,
                             cc.mode == BC_MODE_ECB ? nullptr : kIv,
                             cc.direction, nullptr) == 1 &&
          EVP_CIPHER_CTX_set_padding(ctx_, 0) == 1;
  }
  ~OpensslCipher() {
    EVP_CIPHER_CTX_free(ctx_);
    EVP_CIPHER_free(cipher_);
  }
  OpensslCipher(const OpensslCipher&) = delete;
  OpensslCipher& operator=(const OpensslCipher&) = delete;

  bool Update(const unsigned char* in, size_t length, unsigned char* out) {
    int out_length = 0;
    return ok_ &&
           EVP_CipherUpdate(ctx_, out, &out_length, in,
                            static_cast<int>(length)) == 1 &&
           static_cast<size_t>(out_length) == length;
  }

 private:
  EVP_CIPHER_CTX* ctx_;
  EVP_CIPHER* cipher_ = nullptr;
  bool ok_ = false;
};

class OurCipher {
 public:
  OurCipher(const KeySize& ks, const CipherCase& cc)
      : ctx_(new_BLOCK_CIPHER_CTX()) {
    ok_ = ctx_ != nullptr &&
          init_BlockCipher(ctx_, ks.algorithm, cc.mode, /*no_padding=*/1, kKey,
                           cc.mode == BC_MODE_ECB ? nullptr : kIv,
                           cc.direction) == BC_OK;
  }
  ~OurCipher() { free_BLOCK_CIPHER_CTX(ctx_); }
  OurCipher(const OurCipher&) = delete;
  OurCipher& operator=(const OurCipher&) = delete;

  bool Update(const unsigned char* in, size_t length, unsigned char* out) {
    uint32_t out_length = 0;
    return ok_ &&
           update_BlockCipher(ctx_, in, static_cast<uint32_t>(length), out,
                              &out_length) == BC_OK &&
           out_length == length;
  }

 private:
  BLOCK_CIPHER_CTX* ctx_;
  bool ok_ = false;
};

void CipherOurs(benchmark::State& state, KeySize ks, const CipherCase& cc) {
  const unsigned char* in = Message().data();
  std::vector<unsigned char> out(kMiB + 32);  // update needs one spare block
  std::vector<unsigned char> reference(kMiB + 32);
  OurCipher ours(ks, cc);
  OpensslCipher openssl(ks.bits, cc);
  if (!ours.Update(in, kMiB, out.data()) ||
      !openssl.Update(in, kMiB, reference.data()) ||
      std::memcmp(out.data(), reference.data(), kMiB) != 0) {
    state.SkipWithError("cipher output differs from OpenSSL or failed");
    return;
  }
  for (auto _ : state) {
    ours.Update(in, kMiB, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMiB));
}

void CipherOpenssl(benchmark::State& state, KeySize ks, const CipherCase& cc) {
  const unsigned char* in = Message().data();
  std::vector<unsigned char> out(kMiB + 32);
  OpensslCipher openssl(ks.bits, cc);
  if (!openssl.Update(in, kMiB, out.data())) {
    state.SkipWithError("OpenSSL cipher failed");
    return;
  }
  for (auto _ : state) {
    openssl.Update(in, kMiB, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMiB));
}

void RegisterAll() {
  const std::pair<const char*, size_t> sizes[] = {{"1MiB", kMiB}, {"64B", 64}};
  for (const DigestCase& dc : kDigests) {
    for (const auto& [size_label, length] : sizes) {
      const std::string base = std::string(dc.label) + "/" + size_label;
      benchmark::RegisterBenchmark((base + "/ours").c_str(), DigestOurs, dc,
                                   length);
      benchmark::RegisterBenchmark((base + "/openssl").c_str(), DigestOpenssl,
                                   dc, length);
    }
  }
  for (const KeySize& ks : kKeySizes) {
    for (const CipherCase& cc : kCipherModes) {
      const std::string base =
          "AES" + std::to_string(ks.bits) + "-" + cc.label + "/1MiB";
      benchmark::RegisterBenchmark((base + "/ours").c_str(), CipherOurs, ks,
                                   cc);
      benchmark::RegisterBenchmark((base + "/openssl").c_str(), CipherOpenssl,
                                   ks, cc);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
