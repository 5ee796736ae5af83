// SHA-256 (FIPS 180-4) behind the init/update/final context interface.
#include <cstddef>
#include <cstring>

#include "crypto/byte_order.h"
#include "crypto/digest_engine.h"
#include "crypto/digest_variant.h"
#include "crypto/sha256_constants.h"
#include "tessmar/digest.h"

namespace {

using tessmar::crypto::kSha256RoundConstant;
using tessmar::crypto::load_be32;
using tessmar::crypto::rotr32;

constexpr uint32_t kBlockSize = 64;

constexpr uint32_t kInitial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372,
                                  0xa54ff53a, 0x510e527f, 0x9b05688c,
                                  0x1f83d9ab, 0x5be0cd19};


// One round with the roles of the eight working words passed in: the caller
// rotates the argument order instead of moving eight words every round.
[[gnu::always_inline]] inline void Round(uint32_t a, uint32_t b, uint32_t c,
                                         uint32_t& d, uint32_t e, uint32_t f,
                                         uint32_t g, uint32_t& h,
                                         uint32_t k_plus_w) {
  const uint32_t t1 = h + (rotr32(e, 6) ^ rotr32(e, 11) ^ rotr32(e, 25)) +
                      (g ^ (e & (f ^ g))) + k_plus_w;
  const uint32_t t2 = (rotr32(a, 2) ^ rotr32(a, 13) ^ rotr32(a, 22)) +
                      ((a & b) | (c & (a | b)));
  d += t1;
  h = t1 + t2;
}

// Expanding the whole schedule up front, then running the rounds eight at a
// time, keeps the working words in registers; it measured clearly faster
// than interleaving a 16-word schedule ring with fully unrolled rounds.
void Compress(uint32_t state[8], const unsigned char* block) {
  uint32_t w[64];
  for (unsigned t = 0; t < 16; ++t) w[t] = load_be32(block + 4 * t);
  for (unsigned t = 16; t < 64; ++t) {
    const uint32_t w15 = w[t - 15];
    const uint32_t w2 = w[t - 2];
    w[t] = w[t - 16] + (rotr32(w15, 7) ^ rotr32(w15, 18) ^ (w15 >> 3)) +
           w[t - 7] + (rotr32(w2, 17) ^ rotr32(w2, 19) ^ (w2 >> 10));
  }
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
  for (unsigned t = 0; t < 64; t += 8) {
    Round(a, b, c, d, e, f, g, h, kSha256RoundConstant[t] + w[t]);
    Round(h, a, b, c, d, e, f, g, kSha256RoundConstant[t + 1] + w[t + 1]);
    Round(g, h, a, b, c, d, e, f, kSha256RoundConstant[t + 2] + w[t + 2]);
    Round(f, g, h, a, b, c, d, e, kSha256RoundConstant[t + 3] + w[t + 3]);
    Round(e, f, g, h, a, b, c, d, kSha256RoundConstant[t + 4] + w[t + 4]);
    Round(d, e, f, g, h, a, b, c, kSha256RoundConstant[t + 5] + w[t + 5]);
    Round(c, d, e, f, g, h, a, b, kSha256RoundConstant[t + 6] + w[t + 6]);
    Round(b, c, d, e, f, g, h, a, kSha256RoundConstant[t + 7] + w[t + 7]);
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
  state[4] += e;
  state[5] += f;
  state[6] += g;
  state[7] += h;
}

}  // namespace

namespace tessmar::crypto {

void Sha256BlocksPortable(uint32_t state[8], const unsigned char* data,
                    std::size_t blocks) {
  for (; blocks > 0; --blocks, data += kBlockSize) Compress(state, data);
}

}  // namespace tessmar::crypto

namespace {

struct Sha256 {
  using Context = sha256_state_structure;
  static constexpr uint32_t kBlockSize = ::kBlockSize, kLengthFieldSize = 8;
  static constexpr const uint32_t (&kInitial)[8] = ::kInitial;
  // Every block goes through the variant picked for this CPU.
  static void CompressBlocks(uint32_t state[8], const unsigned char* data,
                             std::size_t blocks) {
    tessmar::crypto::ActiveDigests().sha256_blocks(state, data, blocks);
  }
  static constexpr auto StoreBitCount = tessmar::crypto::store_be64;
  static constexpr auto StoreWord = tessmar::crypto::store_be32;
  static constexpr bool kChecksDigest = false, kIndexCheckedOnEntry = true;
  static constexpr int kArgs = SHA256_ERR_ARGS,
                       kUpdateBlockIndex = SHA256_ERR_UPDATE_BLOCK_INDEX,
                       kZeroLength = SHA256_ERR_UPDATE_ZERO_LENGTH,
                       kInputCount = SHA256_ERR_UPDATE_INPUT_COUNT,
                       kFinalBlockIndex = SHA256_ERR_FINAL_BLOCK_INDEX;
};

}  // namespace

int init_SHA256(sha256_state_structure* ctx) {
  return tessmar::crypto::InitDigest<Sha256>(ctx);
}
int update_SHA256(sha256_state_structure* ctx, unsigned char const* data,
                  unsigned int length) {
  return tessmar::crypto::UpdateDigest<Sha256>(ctx, data, length);
}
int final_SHA256(sha256_state_structure* ctx, unsigned char* digest) {
  return tessmar::crypto::FinalDigest<Sha256>(ctx, digest);
}
