// The part of SHA-512's paired-block compression that the AVX2 and AVX-512
// variants share: blocks go in pairs, each 256-bit register holding two
// schedule words of the first block in its low half and the same two of the
// second block in its high half; the vector steps are interleaved with the
// first block's rounds, the second block's rounds read the stored W + K
// words, and while they run the next pair's first words are loaded. A
// variant brings its own schedule step (NextPair).
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
// from round to round. W + K is word n of the eight, at byte offset `off`.
//   Maj(a, b, c) = ((a ^ b) & (b ^ c)) ^ b                  into x
//   h += W + K + (~e & g) + (e & f) + Σ1(e)                 t1
//   d += t1                                                 the next e
//   h += Σ0(a) + Maj(a, b, c)                               the next a
// Ch(e, f, g) is the sum of its two halves: their bits never overlap. t1
// goes into d through a copy in s: adding h to d directly ran 2 % slower.
#define TESSMAR_SHA512_ROUND(a, b, c, d, e, f, g, h, n, off, x, y) \
  "mov %[" #a "], %[" #y "]\n\t"                                \
  "xor %[" #b "], %[" #y "]\n\t"                                \
  "and %[" #y "], %[" #x "]\n\t"                                \
  "xor %[" #b "], %[" #x "]\n\t"                                \
  "add " TESSMAR_SHA512_WK(n, off) ", %[" #h "]\n\t"            \
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

// With optimization each W + K word is a memory operand of its own,
// addressed from the stack pointer with no instruction spent on a pointer to
// the words (0.7 % of the hash); unoptimized code would need a register for
// each of those addresses, so there the words are read through one pointer.
#ifdef __OPTIMIZE__
#define TESSMAR_SHA512_WK(n, off) "%[w" #n "]"
#define TESSMAR_SHA512_WK_INPUTS(wk)                                   \
  [w0] "m"(wk[0]), [w1] "m"(wk[1]), [w2] "m"(wk[4]), [w3] "m"(wk[5]), \
      [w4] "m"(wk[8]), [w5] "m"(wk[9]), [w6] "m"(wk[12]), [w7] "m"(wk[13])
#else
#define TESSMAR_SHA512_WK(n, off) #off "(%[wk])"
#define TESSMAR_SHA512_WK_INPUTS(wk) \
  [wk] "r"(wk), "m"(*reinterpret_cast<const uint64_t(*)[14]>(wk))
#endif

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
  asm(TESSMAR_SHA512_ROUND(a, b, c, d, e, f, g, h, 0, 0, x, y)
      TESSMAR_SHA512_ROUND(h, a, b, c, d, e, f, g, 1, 8, y, x)
      TESSMAR_SHA512_ROUND(g, h, a, b, c, d, e, f, 2, 32, x, y)
      TESSMAR_SHA512_ROUND(f, g, h, a, b, c, d, e, 3, 40, y, x)
      TESSMAR_SHA512_ROUND(e, f, g, h, a, b, c, d, 4, 64, x, y)
      TESSMAR_SHA512_ROUND(d, e, f, g, h, a, b, c, 5, 72, y, x)
      TESSMAR_SHA512_ROUND(c, d, e, f, g, h, a, b, 6, 96, x, y)
      TESSMAR_SHA512_ROUND(b, c, d, e, f, g, h, a, 7, 104, y, x)
      : [a] "+r"(v.a), [b] "+r"(v.b), [c] "+r"(v.c), [d] "+r"(v.d),
        [e] "+r"(v.e), [f] "+r"(v.f), [g] "+r"(v.g), [h] "+r"(v.h),
        [x] "+r"(bc), [y] "=&r"(ab), [s] "=&r"(s), [t] "=&r"(t)
      : TESSMAR_SHA512_WK_INPUTS(wk)
      : "cc");
}
#undef TESSMAR_SHA512_ROUND
#undef TESSMAR_SHA512_WK
#undef TESSMAR_SHA512_WK_INPUTS

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

// The schedule step of a variant (its NextPair).
using NextPairFn = __m256i (*)(__m256i, __m256i, __m256i, __m256i, __m256i);

// Reads words 0..15 of `first` and of `high` into x (pairs 0..7) and stores
// them with their constants as the first pairs of W + K.
[[gnu::always_inline]] inline void LoadWords(__m256i x[8], __m256i* wk_pairs,
                                             const unsigned char* first,
                                             const unsigned char* high) {
  const __m256i swap = _mm256_setr_epi8(
      7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8,  //
      7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8);
  for (unsigned i = 0; i < 8; ++i) {
    x[i] = _mm256_shuffle_epi8(
        _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(high + 16 * i),
                            reinterpret_cast<const __m128i*>(first + 16 * i)),
        swap);
    _mm256_store_si256(wk_pairs + i, AddConstants(x[i], i));
  }
}

// Computes pair n of the schedule from the eight before it in x (the last
// sixteen words of both schedules), keeps it in x and stores it with its
// constants.
template <NextPairFn Next>
[[gnu::always_inline]] inline void Expand(__m256i x[8], __m256i* wk_pairs,
                                          unsigned n) {
  const __m256i next = Next(x[(n - 8) % 8], x[(n - 7) % 8], x[(n - 4) % 8],
                            x[(n - 3) % 8], x[(n - 1) % 8]);
  x[n % 8] = next;
  _mm256_store_si256(wk_pairs + n, AddConstants(next, n));
}

// The 80 rounds of one block of the pair (`lane` 0 for the first, 2 for the
// second) on the chaining state; `before(t)` runs before rounds t .. t+7 and
// brings the vector work that goes with them. The callers' lambdas are
// marked always_inline in the GNU spelling, the one clang accepts there.
template <typename BeforeRounds>
[[gnu::always_inline]] inline void BlockRounds(uint64_t state[8],
                                               const uint64_t* wk,
                                               unsigned lane,
                                               BeforeRounds before) {
  Working v = Load(state);
  uint64_t bc = v.b ^ v.c;
#pragma GCC unroll 10
  for (unsigned t = 0; t < 80; t += 8) {
    before(t);
    EightRounds(v, bc, wk + 2 * t, lane);
  }
  AddInto(state, v);
}

// Compresses `blocks` blocks of `data` in pairs. The first block's rounds
// expand the rest of both schedules, pairs 8 + t/2 .. 11 + t/2 (words
// t+16 .. t+23) before rounds t .. t+7, sixteen rounds before they are
// read. The first sixteen words of the next pair are loaded while the
// second block runs, once its rounds 0..15 have read the words they
// overwrite, so that no round reads a W + K word stored just before it:
// such a load waits for the store, which cost about 2 % of the whole hash
// (docs/performance.md).
template <NextPairFn Next>
void CompressBlocks(uint64_t state[8], const unsigned char* data,
                    std::size_t blocks) {
  if (blocks == 0) return;
  alignas(32) uint64_t wk[160];
  auto* wk_pairs = reinterpret_cast<__m256i*>(wk);
  __m256i x[8];
  LoadWords(x, wk_pairs, data, blocks >= 2 ? data + kBlockSize : data);
  for (;;) {
    BlockRounds(state, wk, 0, [&](unsigned t) __attribute__((always_inline)) {
      if (t >= 64) return;
#pragma GCC unroll 4
      for (unsigned j = 0; j < 4; ++j) Expand<Next>(x, wk_pairs, t / 2 + 8 + j);
    });
    if (blocks == 1) return;
    // The next pair, or a lone last block in both halves; after the last
    // pair, this pair again (its words, loaded once more, go unused).
    const unsigned char* next = blocks > 2 ? data + 2 * kBlockSize : data;
    const unsigned char* next_high = blocks != 3 ? next + kBlockSize : next;
    BlockRounds(state, wk, 2, [&](unsigned t) __attribute__((always_inline)) {
      if (t == 16) LoadWords(x, wk_pairs, next, next_high);
    });
    blocks -= 2;
    if (blocks == 0) return;
    data = next;
  }
}

}  // namespace
}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_SHA512_X86_PAIRED_H
