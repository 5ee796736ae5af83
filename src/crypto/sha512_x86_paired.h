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

// One round, written out in assembly because the order of its instructions
// matters: the same operations in the compiler's order ran about 4 % slower
// (docs/performance.md). On entry x holds b ^ c, which is the previous
// round's a ^ b; the round leaves its own a ^ b in y, so x and y swap roles
// from round to round. `off` is the byte offset of the round's W + K word.
//   Maj(a, b, c) = ((a ^ b) & (b ^ c)) ^ b                  into x
//   h += W + K + (~e & g) + (e & f) + Σ1(e)                 t1
//   d += t1                                                 the next e
//   h += Σ0(a) + Maj(a, b, c)                               the next a
// Ch(e, f, g) is the sum of its two halves: their bits never overlap.
#define TESSMAR_SHA512_ROUND(a, b, c, d, e, f, g, h, off, x, y) \
  "mov %[" #a "], %[" #y "]\n\t"                                \
  "xor %[" #b "], %[" #y "]\n\t"                                \
  "and %[" #y "], %[" #x "]\n\t"                                \
  "xor %[" #b "], %[" #x "]\n\t"                                \
  "add " #off "(%[wk]), %[" #h "]\n\t"                          \
  "rorx $14, %[" #e "], %[s]\n\t"                               \
  "andn %[" #g "], %[" #e "], %[t]\n\t"                         \
  "add %[t], %[" #h "]\n\t"                                     \
  "rorx $18, %[" #e "], %[t]\n\t"                               \
  "xor %[t], %[s]\n\t"                                          \
  "mov %[" #f "], %[t]\n\t"                                     \
  "and %[" #e "], %[t]\n\t"                                     \
  "add %[t], %[" #h "]\n\t"                                     \
  "rorx $41, %[" #e "], %[t]\n\t"                               \
  "xor %[t], %[s]\n\t"                                          \
  "add %[s], %[" #h "]\n\t"                                     \
  "mov %[" #h "], %[s]\n\t"                                     \
  "add %[s], %[" #d "]\n\t"                                     \
  "rorx $28, %[" #a "], %[s]\n\t"                               \
  "rorx $34, %[" #a "], %[t]\n\t"                               \
  "xor %[t], %[s]\n\t"                                          \
  "rorx $39, %[" #a "], %[t]\n\t"                               \
  "xor %[t], %[s]\n\t"                                          \
  "add %[" #x "], %[" #h "]\n\t"                                \
  "add %[s], %[" #h "]\n\t"

// The working variables of one block's rounds, named (an array here ends up
// in memory around the asm statements).
struct Working {
  uint64_t a, b, c, d, e, f, g, h;
};

// Rounds t .. t+7 of one block on the working variables v, W + K
// read from `wk` (the pairs of rounds t..t+7, laid out as stored, `lane` 0
// for the first block, 2 for the second); bc is b ^ c, carried from round
// to round. One asm statement, so that the eight rounds' registers are
// assigned once, with no copies between rounds.
[[gnu::always_inline]] inline void EightRounds(Working& v, uint64_t& bc,
                                               const uint64_t* wk,
                                               unsigned lane) {
  wk += lane;
  uint64_t ab, s, t;
  asm(TESSMAR_SHA512_ROUND(a, b, c, d, e, f, g, h, 0, x, y)
      TESSMAR_SHA512_ROUND(h, a, b, c, d, e, f, g, 8, y, x)
      TESSMAR_SHA512_ROUND(g, h, a, b, c, d, e, f, 32, x, y)
      TESSMAR_SHA512_ROUND(f, g, h, a, b, c, d, e, 40, y, x)
      TESSMAR_SHA512_ROUND(e, f, g, h, a, b, c, d, 64, x, y)
      TESSMAR_SHA512_ROUND(d, e, f, g, h, a, b, c, 72, y, x)
      TESSMAR_SHA512_ROUND(c, d, e, f, g, h, a, b, 96, x, y)
      TESSMAR_SHA512_ROUND(b, c, d, e, f, g, h, a, 104, y, x)
      : [a] "+r"(v.a), [b] "+r"(v.b), [c] "+r"(v.c), [d] "+r"(v.d),
        [e] "+r"(v.e), [f] "+r"(v.f), [g] "+r"(v.g), [h] "+r"(v.h),
        [x] "+r"(bc), [y] "=&r"(ab), [s] "=&r"(s), [t] "=&r"(t)
      : [wk] "r"(wk), "m"(*reinterpret_cast<const uint64_t(*)[14]>(wk))
      : "cc");
}
#undef TESSMAR_SHA512_ROUND

[[gnu::always_inline]] inline Working Load(const uint64_t state[8]) {
  return {state[0], state[1], state[2], state[3], state[4], state[5], state[6], state[7]};
}

[[gnu::always_inline]] inline void AddInto(uint64_t state[8], const Working& v) {
  state[0] += v.a, state[1] += v.b, state[2] += v.c, state[3] += v.d;
  state[4] += v.e, state[5] += v.f, state[6] += v.g, state[7] += v.h;
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

  Working v = Load(state);
  uint64_t bc = v.b ^ v.c;
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
    EightRounds(v, bc, wk + 2 * t, 0);
  }
  AddInto(state, v);
  if (second == nullptr) return;
  v = Load(state);
  bc = v.b ^ v.c;
#pragma GCC unroll 10
  for (unsigned t = 0; t < 80; t += 8) EightRounds(v, bc, wk + 2 * t, 2);
  AddInto(state, v);
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
