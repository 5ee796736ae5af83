// SHA-512 (FIPS 180-4) behind the init/update/final context interface.
#include <cstddef>
#include <cstring>

#include "crypto/byte_order.h"
#include "crypto/digest_engine.h"
#include "crypto/digest_variant.h"
#include "crypto/sha512_constants.h"
#include "tessmar/digest.h"

namespace {

using tessmar::crypto::kSha512RoundConstant;
using tessmar::crypto::load_be64;
using tessmar::crypto::rotr64;

constexpr uint32_t kBlockSize = 128;

constexpr uint64_t kInitial[8] = {0x6a09e667f3bcc908, 0xbb67ae8584caa73b,
                                  0x3c6ef372fe94f82b, 0xa54ff53a5f1d36f1,
                                  0x510e527fade682d1, 0x9b05688c2b3e6c1f,
                                  0x1f83d9abfb41bd6b, 0x5be0cd19137e2179};


// One round with the roles of the eight working words passed in: the caller
// rotates the argument order instead of moving eight words every round.
// The sums are grouped so that the words of the previous round (e, then a)
// come in last: the empty asm statements keep the compiler from regrouping
// them. Maj is written so that a ^ b is this round's and b ^ c the previous
// round's same value.
[[gnu::always_inline]] inline void Round(uint64_t a, uint64_t b, uint64_t c,
                                         uint64_t& d, uint64_t e, uint64_t f,
                                         uint64_t g, uint64_t& h,
                                         uint64_t k_plus_w) {
  uint64_t early = h + k_plus_w + (g ^ (e & (f ^ g)));
  asm("" : "+r"(early));
  const uint64_t t1 =
      early + (rotr64(e, 14) ^ rotr64(e, 18) ^ rotr64(e, 41));
  d += t1;
  uint64_t t2 = (rotr64(a, 28) ^ rotr64(a, 34) ^ rotr64(a, 39)) +
                (b ^ ((a ^ b) & (b ^ c)));
  asm("" : "+r"(t2));
  h = t2 + t1;
}

// Expanding the whole schedule up front, then running the rounds eight at a
// time, keeps the working words in registers; it measured clearly faster
// than interleaving a 16-word schedule ring with fully unrolled rounds. The
// schedule stays scalar: vectorised two words at a time, each step loads a
// pair straddling two earlier stores, which cost a quarter of the time.
void Compress(uint64_t state[8], const unsigned char* block) {
  uint64_t w[80];
  for (unsigned t = 0; t < 16; ++t) w[t] = load_be64(block + 8 * t);
  for (unsigned t = 16; t < 80; ++t) {
    const uint64_t w15 = w[t - 15];
    const uint64_t w2 = w[t - 2];
    uint64_t next = w[t - 16] + (rotr64(w15, 1) ^ rotr64(w15, 8) ^ (w15 >> 7)) +
                    w[t - 7] + (rotr64(w2, 19) ^ rotr64(w2, 61) ^ (w2 >> 6));
    asm("" : "+r"(next));
    w[t] = next;
  }
  uint64_t a = state[0], b = state[1], c = state[2], d = state[3];
  uint64_t e = state[4], f = state[5], g = state[6], h = state[7];
  for (unsigned t = 0; t < 80; t += 8) {
    Round(a, b, c, d, e, f, g, h, kSha512RoundConstant[t] + w[t]);
    Round(h, a, b, c, d, e, f, g, kSha512RoundConstant[t + 1] + w[t + 1]);
    Round(g, h, a, b, c, d, e, f, kSha512RoundConstant[t + 2] + w[t + 2]);
    Round(f, g, h, a, b, c, d, e, kSha512RoundConstant[t + 3] + w[t + 3]);
    Round(e, f, g, h, a, b, c, d, kSha512RoundConstant[t + 4] + w[t + 4]);
    Round(d, e, f, g, h, a, b, c, kSha512RoundConstant[t + 5] + w[t + 5]);
    Round(c, d, e, f, g, h, a, b, kSha512RoundConstant[t + 6] + w[t + 6]);
    Round(b, c, d, e, f, g, h, a, kSha512RoundConstant[t + 7] + w[t + 7]);
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

void Sha512BlocksPortable(uint64_t state[8], const unsigned char* data,
                          std::size_t blocks) {
  for (; blocks > 0; --blocks, data += kBlockSize) Compress(state, data);
}

}  // namespace tessmar::crypto

namespace {

struct Sha512 {
  using Context = sha512_state_structure;
  static constexpr uint32_t kBlockSize = ::kBlockSize, kLengthFieldSize = 16;
  static constexpr const uint64_t (&kInitial)[8] = ::kInitial;
  // Every block goes through the variant picked for this CPU.
  static void CompressBlocks(uint64_t state[8], const unsigned char* data,
                             std::size_t blocks) {
    tessmar::crypto::ActiveSha512().blocks(state, data, blocks);
  }
  static constexpr auto StoreBitCount = tessmar::crypto::store_be64;
  static constexpr auto StoreWord = tessmar::crypto::store_be64;
  static constexpr bool kChecksDigest = false, kIndexCheckedOnEntry = true;
  static constexpr int kArgs = SHA512_ERR_ARGS, kUpdateBlockIndex = SHA512_ERR_ARGS,
                       kZeroLength = SHA512_ERR_UPDATE_ZERO_LENGTH,
                       kInputCount = SHA512_ERR_UPDATE_INPUT_COUNT,
                       kFinalBlockIndex = SHA512_ERR_FINAL_BLOCK_INDEX;
};

}  // namespace

int init_SHA512(sha512_state_structure* ctx) {
  return tessmar::crypto::InitDigest<Sha512>(ctx);
}
int update_SHA512(sha512_state_structure* ctx, unsigned char const* data,
                  unsigned int length) {
  return tessmar::crypto::UpdateDigest<Sha512>(ctx, data, length);
}
int final_SHA512(sha512_state_structure* ctx, unsigned char* digest) {
  return tessmar::crypto::FinalDigest<Sha512>(ctx, digest);
}
