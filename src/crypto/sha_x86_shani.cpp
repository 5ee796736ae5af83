// SHA-1 and SHA-256 block compression with the x86-64 SHA extensions
// (compiled with -msha -mssse3 -msse4.1, run only when the CPU has them).
// The message schedule is expanded four words at a time in four registers
// that take turns; the round instructions do two (SHA-256) or four (SHA-1)
// rounds each.
#include <immintrin.h>

#include <utility>

#include "crypto/digest_variant.h"
#include "crypto/sha256_constants.h"

namespace tessmar::crypto {
namespace {

inline __m128i LoadBigEndianWords(const unsigned char* p, __m128i swap) {
  return _mm_shuffle_epi8(
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), swap);
}

// Four SHA-1 rounds of group G (rounds 4G..4G+3), with the schedule step
// that overlaps them. `e` is the E input of this group, `next_e` receives
// the A that the following group's E is derived from.
template <int G>
[[gnu::always_inline]] inline void Sha1Group(__m128i& abcd, __m128i& e,
                                             __m128i& next_e, __m128i (&m)[4]) {
  if constexpr (G == 0) {
    e = _mm_add_epi32(e, m[0]);
  } else {
    e = _mm_sha1nexte_epu32(e, m[G & 3]);
  }
  next_e = abcd;
  if constexpr (G >= 3 && G <= 18) {
    m[(G + 1) & 3] = _mm_sha1msg2_epu32(m[(G + 1) & 3], m[G & 3]);
  }
  abcd = _mm_sha1rnds4_epu32(abcd, e, G / 5);
  if constexpr (G >= 1 && G <= 16) {
    m[(G - 1) & 3] = _mm_sha1msg1_epu32(m[(G - 1) & 3], m[G & 3]);
  }
  if constexpr (G >= 2 && G <= 17) {
    m[(G - 2) & 3] = _mm_xor_si128(m[(G - 2) & 3], m[G & 3]);
  }
}

template <int... G>
[[gnu::always_inline]] inline void Sha1AllGroups(
    __m128i& abcd, __m128i& e0, __m128i& e1, __m128i (&m)[4],
    std::integer_sequence<int, G...>) {
  // Even groups take their E from e0, odd ones from e1.
  ((G % 2 == 0 ? Sha1Group<G>(abcd, e0, e1, m) : Sha1Group<G>(abcd, e1, e0, m)),
   ...);
}

}  // namespace

void Sha1BlocksShaNi(uint32_t state[5], const unsigned char* data,
                     std::size_t blocks) {
  const __m128i swap =
      _mm_set_epi64x(0x0001020304050607ULL, 0x08090a0b0c0d0e0fULL);
  __m128i abcd = _mm_shuffle_epi32(
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
  __m128i e0 = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
  for (; blocks > 0; --blocks, data += 64) {
    const __m128i abcd_save = abcd;
    const __m128i e_save = e0;
    __m128i e1;
    __m128i m[4] = {LoadBigEndianWords(data, swap),
                    LoadBigEndianWords(data + 16, swap),
                    LoadBigEndianWords(data + 32, swap),
                    LoadBigEndianWords(data + 48, swap)};
    Sha1AllGroups(abcd, e0, e1, m, std::make_integer_sequence<int, 20>());
    // Group 19 (odd) left the A of its input in e0.
    e0 = _mm_sha1nexte_epu32(e0, e_save);
    abcd = _mm_add_epi32(abcd, abcd_save);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state),
                   _mm_shuffle_epi32(abcd, 0x1B));
  state[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

void Sha256BlocksShaNi(uint32_t state[8], const unsigned char* data,
                       std::size_t blocks) {
  const __m128i swap =
      _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
  // The round instructions want the state as ABEF and CDGH.
  __m128i tmp = _mm_shuffle_epi32(
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0xB1);
  __m128i cdgh = _mm_shuffle_epi32(
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4)), 0x1B);
  __m128i abef = _mm_alignr_epi8(tmp, cdgh, 8);
  cdgh = _mm_blend_epi16(cdgh, tmp, 0xF0);

  for (; blocks > 0; --blocks, data += 64) {
    const __m128i abef_save = abef;
    const __m128i cdgh_save = cdgh;
    __m128i m[4] = {LoadBigEndianWords(data, swap),
                    LoadBigEndianWords(data + 16, swap),
                    LoadBigEndianWords(data + 32, swap),
                    LoadBigEndianWords(data + 48, swap)};
    for (int g = 0; g < 16; ++g) {  // four rounds each
      __m128i k = _mm_add_epi32(
          m[g & 3], _mm_load_si128(reinterpret_cast<const __m128i*>(kSha256RoundConstant + 4 * g)));
      cdgh = _mm_sha256rnds2_epu32(cdgh, abef, k);
      if (g >= 3 && g <= 14) {
        const __m128i w = _mm_add_epi32(m[(g + 1) & 3],
                                        _mm_alignr_epi8(m[g & 3], m[(g - 1) & 3], 4));
        m[(g + 1) & 3] = _mm_sha256msg2_epu32(w, m[g & 3]);
      }
      abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(k, 0x0E));
      if (g >= 1 && g <= 12) {
        m[(g - 1) & 3] = _mm_sha256msg1_epu32(m[(g - 1) & 3], m[g & 3]);
      }
    }
    abef = _mm_add_epi32(abef, abef_save);
    cdgh = _mm_add_epi32(cdgh, cdgh_save);
  }

  tmp = _mm_shuffle_epi32(abef, 0x1B);   // FEBA
  cdgh = _mm_shuffle_epi32(cdgh, 0xB1);  // DCHG
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state),
                   _mm_blend_epi16(tmp, cdgh, 0xF0));  // DCBA
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4),
                   _mm_alignr_epi8(cdgh, tmp, 8));  // HGFE
}

}  // namespace tessmar::crypto
