// The part of SHA-512's paired-block compression that the AVX2 and AVX-512
// variants share: blocks go in pairs, each 256-bit register holding two
// schedule words of the first block in its low half and the same two of the
// second block in its high half; the vector steps are interleaved with the
// first block's rounds, and the second block's rounds read the stored W + K
// words. A variant brings its own schedule step (NextPair).
//
// Included only by those two files, each compiled for its own instructions:
// everything here has internal linkage, so neither file's code can stand in
// for the other's.
#ifndef TESSMAR_SRC_CRYPTO_SHA512_X86_PAIRED_H
#define TESSMAR_SRC_CRYPTO_SHA512_X86_PAIRED_H

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "crypto/byte_order.h"
#include "crypto/sha512_constants.h"

namespace tessmar::crypto {
namespace {

constexpr std::size_t kBlockSize = 128;

// The round constants in the order the schedule stores W + K: for each pair
// of words, the pair for the first block, then for the second.
struct PairedConstants {
  alignas(32) uint64_t k[160];
  constexpr PairedConstants() : k{} {
    for (unsigned t = 0; t < 80; ++t) {
      k[(t / 2) * 4 + t % 2] = kSha512RoundConstant[t];
      k[(t / 2) * 4 + 2 + t % 2] = kSha512RoundConstant[t];
    }
  }
};
constexpr PairedConstants kPaired;

// One round, as in the portable code: the words of the previous round come
// into the sums last, and the empty asm statements keep that grouping.
// With BMI the rotations are non-destructive and ~e & g is one instruction.
[[gnu::always_inline]] inline void Round(uint64_t a, uint64_t b, uint64_t c,
                                         uint64_t& d, uint64_t e, uint64_t f,
                                         uint64_t g, uint64_t& h,
                                         uint64_t k_plus_w) {
  uint64_t early = h + k_plus_w + (e & f) + (~e & g);
  asm("" : "+r"(early));
  const uint64_t t1 =
      early + (rotr64(e, 14) ^ rotr64(e, 18) ^ rotr64(e, 41));
  d += t1;
  uint64_t t2 = (rotr64(a, 28) ^ rotr64(a, 34) ^ rotr64(a, 39)) +
                (b ^ ((a ^ b) & (b ^ c)));
  asm("" : "+r"(t2));
  h = t2 + t1;
}

// Rounds t .. t+7 of one block, W + K read from `wk` (the pairs of rounds
// t..t+7, laid out as stored, `lane` 0 for the first block, 2 for the
// second). The pointer is laundered through an empty asm statement so that
// the words are loaded from memory rather than moved one by one out of the
// vector registers that produced them.
[[gnu::always_inline]] inline void EightRounds(uint64_t (&v)[8],
                                               const uint64_t* wk,
                                               unsigned lane) {
  asm("" : "+r"(wk));
  uint64_t &a = v[0], &b = v[1], &c = v[2], &d = v[3];
  uint64_t &e = v[4], &f = v[5], &g = v[6], &h = v[7];
  Round(a, b, c, d, e, f, g, h, wk[lane]);
  Round(h, a, b, c, d, e, f, g, wk[lane + 1]);
  Round(g, h, a, b, c, d, e, f, wk[lane + 4]);
  Round(f, g, h, a, b, c, d, e, wk[lane + 5]);
  Round(e, f, g, h, a, b, c, d, wk[lane + 8]);
  Round(d, e, f, g, h, a, b, c, wk[lane + 9]);
  Round(c, d, e, f, g, h, a, b, wk[lane + 12]);
  Round(b, c, d, e, f, g, h, a, wk[lane + 13]);
}

[[gnu::always_inline]] inline __m256i AddConstants(__m256i w, unsigned pair) {
  return _mm256_add_epi64(
      w, _mm256_load_si256(reinterpret_cast<const __m256i*>(kPaired.k) + pair));
}

// Compresses `first`, then `second` unless it is null; `Next` expands the
// schedule (NextPair of the variant).
template <__m256i (*Next)(__m256i, __m256i, __m256i, __m256i, __m256i)>
void CompressPair(uint64_t state[8], const unsigned char* first,
                  const unsigned char* second) {
  const unsigned char* high = second != nullptr ? second : first;
  const __m256i swap = _mm256_setr_epi8(
      7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8,  //
      7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8);
  alignas(32) uint64_t wk[160];
  auto* wk_pairs = reinterpret_cast<__m256i*>(wk);
  __m256i x[8];  // the last sixteen words of both schedules
  for (unsigned i = 0; i < 8; ++i) {
    x[i] = _mm256_shuffle_epi8(
        _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(high + 16 * i),
                            reinterpret_cast<const __m128i*>(first + 16 * i)),
        swap);
    _mm256_store_si256(wk_pairs + i, AddConstants(x[i], i));
  }

  uint64_t v[8];
  for (unsigned i = 0; i < 8; ++i) v[i] = state[i];
#pragma GCC unroll 10
  for (unsigned t = 0; t < 80; t += 8) {
    if (t < 64) {
      // Pairs 8 + t/2 .. 11 + t/2, words t+16 .. t+23, needed four rounds
      // of eight later at the earliest.
#pragma GCC unroll 4
      for (unsigned j = 0; j < 4; ++j) {
        const unsigned n = t / 2 + 8 + j;
        const __m256i next =
            Next(x[(n - 8) % 8], x[(n - 7) % 8], x[(n - 4) % 8],
                 x[(n - 3) % 8], x[(n - 1) % 8]);
        x[n % 8] = next;
        _mm256_store_si256(wk_pairs + n, AddConstants(next, n));
      }
    }
    EightRounds(v, wk + 2 * t, 0);
  }
  for (unsigned i = 0; i < 8; ++i) state[i] = v[i] += state[i];
  if (second == nullptr) return;
#pragma GCC unroll 10
  for (unsigned t = 0; t < 80; t += 8) EightRounds(v, wk + 2 * t, 2);
  for (unsigned i = 0; i < 8; ++i) state[i] += v[i];
}

// Compresses `blocks` blocks of `data` in pairs.
template <__m256i (*Next)(__m256i, __m256i, __m256i, __m256i, __m256i)>
void CompressBlocks(uint64_t state[8], const unsigned char* data, std::size_t blocks) {
  for (; blocks >= 2; blocks -= 2, data += 2 * kBlockSize) {
    CompressPair<Next>(state, data, data + kBlockSize);
  }
  if (blocks == 1) CompressPair<Next>(state, data, nullptr);
}

}  // namespace
}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_SHA512_X86_PAIRED_H
