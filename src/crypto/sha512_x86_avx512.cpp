// SHA-512 block compression with an AVX-512 message schedule and BMI rounds
// (compiled with -mavx512f -mavx512vl -mavx512bw -mbmi -mbmi2, run only when
// the CPU has them and the OS saves the opmask and ZMM state).
//
// The layout is the AVX2 variant's: blocks go in pairs, each 256-bit
// register holding two schedule words of the first block in its low half
// and the same two of the second block in its high half, the vector steps
// interleaved with the first block's rounds, the second block's rounds
// reading the stored W + K words. What AVX-512 adds is shorter vector code:
// a rotation is one vprorq instead of two shifts and an or, and each
// three-term xor of the small sigmas is one vpternlogq. Only 256-bit
// registers are used, so the wider units never need to power up.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "crypto/digest_variant.h"
#include "crypto/sha512_x86_paired.h"

namespace tessmar::crypto {
namespace {

// vpternlogq truth table for a ^ b ^ c.
constexpr int kXor3 = 0x96;


// Words 2n and 2n+1 of both schedules from the pairs n-8, n-7, n-4, n-3 and
// n-1 (words 2n-16 .. 2n-1). The two new words depend only on earlier
// pairs, so they are computed together.
[[gnu::always_inline]] inline __m256i NextPair(__m256i p8, __m256i p7,
                                               __m256i p4, __m256i p3,
                                               __m256i p1) {
  const __m256i w15 = _mm256_alignr_epi8(p7, p8, 8);  // words 2n-15, 2n-14
  const __m256i w7 = _mm256_alignr_epi8(p3, p4, 8);   // words 2n-7, 2n-6
  const __m256i s0 = _mm256_ternarylogic_epi64(
      _mm256_ror_epi64(w15, 1), _mm256_ror_epi64(w15, 8),
      _mm256_srli_epi64(w15, 7), kXor3);
  const __m256i s1 = _mm256_ternarylogic_epi64(
      _mm256_ror_epi64(p1, 19), _mm256_ror_epi64(p1, 61),
      _mm256_srli_epi64(p1, 6), kXor3);
  return _mm256_add_epi64(_mm256_add_epi64(p8, s0), _mm256_add_epi64(w7, s1));
}

}  // namespace

void Sha512BlocksAvx512(uint64_t state[8], const unsigned char* data,
                        std::size_t blocks) {
  CompressBlocks<NextPair>(state, data, blocks);
}

}  // namespace tessmar::crypto
