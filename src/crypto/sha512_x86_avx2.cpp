// SHA-512 block compression with an AVX2 message schedule and BMI rounds
// (compiled with -mavx2 -mbmi -mbmi2, run only when the CPU has them and
// the OS saves the YMM registers).
//
// Blocks go in pairs: each 256-bit register holds two schedule words of the
// first block in its low half and the same two words of the second block in
// its high half, so one pass of vector code expands both schedules. The
// vector steps are interleaved with the first block's rounds, which leave
// the integer units to the rounds; the second block's rounds then read the
// stored W + K words while the next pair's first words are loaded. A last
// odd block is expanded in both halves and its second copy is never used.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "crypto/digest_variant.h"
#include "crypto/sha512_x86_paired.h"

namespace tessmar::crypto {
namespace {

[[gnu::always_inline]] inline __m256i Rotr(__m256i x, int n) {
  return _mm256_or_si256(_mm256_srli_epi64(x, n),
                         _mm256_slli_epi64(x, 64 - n));
}

// Words 2n and 2n+1 of both schedules from the pairs n-8, n-7, n-4, n-3 and
// n-1 (words 2n-16 .. 2n-1). The two new words depend only on earlier
// pairs, so they are computed together.
[[gnu::always_inline]] inline __m256i NextPair(__m256i p8, __m256i p7,
                                               __m256i p4, __m256i p3,
                                               __m256i p1) {
  // Rotating by 8 moves whole bytes, which one shuffle does.
  const __m256i rotr8 = _mm256_setr_epi8(
      1, 2, 3, 4, 5, 6, 7, 0, 9, 10, 11, 12, 13, 14, 15, 8,  //
      1, 2, 3, 4, 5, 6, 7, 0, 9, 10, 11, 12, 13, 14, 15, 8);
  const __m256i w15 = _mm256_alignr_epi8(p7, p8, 8);  // words 2n-15, 2n-14
  const __m256i w7 = _mm256_alignr_epi8(p3, p4, 8);   // words 2n-7, 2n-6
  const __m256i s0 = _mm256_xor_si256(
      _mm256_xor_si256(Rotr(w15, 1), _mm256_shuffle_epi8(w15, rotr8)),
      _mm256_srli_epi64(w15, 7));
  const __m256i s1 = _mm256_xor_si256(
      _mm256_xor_si256(Rotr(p1, 19), Rotr(p1, 61)), _mm256_srli_epi64(p1, 6));
  return _mm256_add_epi64(_mm256_add_epi64(p8, s0), _mm256_add_epi64(w7, s1));
}

}  // namespace

void Sha512BlocksAvx2(uint64_t state[8], const unsigned char* data,
                      std::size_t blocks) {
  CompressBlocks<NextPair>(state, data, blocks);
}

}  // namespace tessmar::crypto
