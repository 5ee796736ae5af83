// SHA-512 (FIPS 180-4) behind the init/update/final context interface.
#include <cstddef>
#include <cstring>

#include "crypto/byte_order.h"
#include "crypto/digest_engine.h"
#include "crypto/digest_variant.h"
#include "crypto/sha512_constants.h"
#include "tessmar/digest.h"

namespace {

using tessmar::crypto::FeedInput;
using tessmar::crypto::kSha512RoundConstant;
using tessmar::crypto::load_be64;
using tessmar::crypto::MovePendingInput;
using tessmar::crypto::PadAndCompress;
using tessmar::crypto::rotr64;
using tessmar::crypto::store_be64;
using tessmar::crypto::WipeMessageBuffers;

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

// Every block goes through the variant picked for this CPU.
void CompressBlocks(uint64_t state[8], const unsigned char* data,
                    std::size_t blocks) {
  tessmar::crypto::ActiveSha512().blocks(state, data, blocks);
}
void CompressOne(uint64_t state[8], const unsigned char* block) {
  CompressBlocks(state, block, 1);
}

}  // namespace

// SHA-512 numbers its status codes differently from the other digests on
// purpose; the values are part of the interface. Compression cannot fail, so
// codes 4 (update) and 2, 4, 5 (final) are never produced.

int init_SHA512(sha512_state_structure* ctx) {
  if (ctx == nullptr) return 1;
  ctx->bit_count = 0;
  ctx->block_index = 0;
  std::memcpy(ctx->state, kInitial, sizeof ctx->state);
  std::memset(ctx->block, 0, sizeof ctx->block);
  std::memset(ctx->input, 0, sizeof ctx->input);
  ctx->input_count = 0;
  return 0;
}

int update_SHA512(sha512_state_structure* ctx, unsigned char const* data,
                  unsigned int length) {
  if (ctx == nullptr || data == nullptr) return 1;
  if (ctx->block_index > kBlockSize) return 1;
  // Zero length is rejected on purpose and leaves the context untouched.
  if (length == 0) return 2;
  // With the input count validated the first chunk is at most the free room,
  // so the other chunk-size conditions of code 3 cannot arise.
  if (ctx->input_count > kBlockSize) return 3;
  FeedInput<kBlockSize, CompressBlocks>(ctx, data, length);
  return 0;
}

// The output pointer is deliberately not tested (unlike final_MD5).
int final_SHA512(sha512_state_structure* ctx, unsigned char* digest) {
  if (ctx == nullptr || ctx->block_index > kBlockSize - 1) return 1;
  MovePendingInput<kBlockSize, CompressOne>(ctx);
  // Cannot trigger after the entry check; kept as the interface lists it.
  if (ctx->block_index > kBlockSize) return 3;
  // The message length is limited to 2^64 bits, so the upper half of the
  // 128-bit length field (bytes 112-119) is always the zeros of the padding.
  PadAndCompress<kBlockSize, 16, store_be64, CompressOne>(ctx);
  for (unsigned i = 0; i < 8; ++i) store_be64(digest + 8 * i, ctx->state[i]);
  WipeMessageBuffers(ctx);
  return 0;
}
