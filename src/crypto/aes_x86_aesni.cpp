// The AES-NI variant (compiled with -maes -msse4.1; used only when the CPU
// has both). The instructions do a whole round in constant time, so neither
// the key expansion nor the block functions depend on key or data in their
// timing. Modes whose blocks are independent (ECB, CBC and CFB decryption,
// CTR) keep eight blocks in flight to cover the instructions' latency.
//
// The schedule area keeps its documented layout: each round key is four
// big-endian column words, so loading one into a register byte-swaps each
// word. The decryption schedule is already the equivalent inverse cipher
// with InvMixColumns applied to the middle round keys, which is what AESDEC
// expects. The bulk functions convert the round keys once per call.
#include "crypto/aes_x86_aesni.h"

#include <immintrin.h>

#include <cstdint>

#include "crypto/aes_tables.h"
#include "crypto/aes_variant.h"
#include "crypto/byte_order.h"
#include "crypto/cpu_features.h"

namespace tessmar::crypto::aesni {
namespace {

constexpr size_t kBlock = 16;
constexpr size_t kWide = 8;  // blocks in flight

inline __m128i Load(const void* p) {
  return _mm_loadu_si128(static_cast<const __m128i*>(p));
}
inline void Store(void* p, __m128i v) {
  _mm_storeu_si128(static_cast<__m128i*>(p), v);
}

// Byte-swaps each 32-bit word: schedule word order <-> register byte order.
inline __m128i SwapWords(__m128i v) {
  return _mm_shuffle_epi8(
      v, _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3));
}

// Reverses all 16 bytes: a little-endian 128-bit counter <-> big-endian bytes.
inline __m128i Reverse(__m128i v) {
  return _mm_shuffle_epi8(
      v, _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
}

inline __m128i RoundKey(const aes_key_schedule* s, unsigned r) {
  return SwapWords(Load(s->round_keys + 4 * r));
}

// Round keys converted once for a bulk call. A round count above
// kAesMaxRounds is read as kAesMaxRounds, so at most 16 round keys (the
// whole 64-word area) are loaded.
struct RoundKeys {
  explicit RoundKeys(const aes_key_schedule* s) : nr(AesRoundsToRead(s)) {
    for (unsigned r = 0; r <= nr; ++r) k[r] = RoundKey(s, r);
  }
  unsigned nr;
  __m128i k[kAesMaxRounds + 1];
};

// Round structure shared with the table code for every round count: an
// initial AddRoundKey, nr - 1 full rounds, and a final round with key nr
// (with nr = 0 the final round reuses key 0, as the table code does).
template <size_t N>
inline void EncryptN(const RoundKeys& rk, __m128i (&b)[N]) {
  for (size_t i = 0; i < N; ++i) b[i] = _mm_xor_si128(b[i], rk.k[0]);
  for (unsigned r = 1; r < rk.nr; ++r) {
    const __m128i k = rk.k[r];
    for (size_t i = 0; i < N; ++i) b[i] = _mm_aesenc_si128(b[i], k);
  }
  const __m128i last = rk.k[rk.nr];
  for (size_t i = 0; i < N; ++i) b[i] = _mm_aesenclast_si128(b[i], last);
}

template <size_t N>
inline void DecryptN(const RoundKeys& rk, __m128i (&b)[N]) {
  for (size_t i = 0; i < N; ++i) b[i] = _mm_xor_si128(b[i], rk.k[0]);
  for (unsigned r = 1; r < rk.nr; ++r) {
    const __m128i k = rk.k[r];
    for (size_t i = 0; i < N; ++i) b[i] = _mm_aesdec_si128(b[i], k);
  }
  const __m128i last = rk.k[rk.nr];
  for (size_t i = 0; i < N; ++i) b[i] = _mm_aesdeclast_si128(b[i], last);
}

inline __m128i Encrypt1(const RoundKeys& rk, __m128i x) {
  __m128i b[1] = {x};
  EncryptN(rk, b);
  return b[0];
}

inline __m128i Decrypt1(const RoundKeys& rk, __m128i x) {
  __m128i b[1] = {x};
  DecryptN(rk, b);
  return b[0];
}

// SubWord and SubWord(RotWord) of a big-endian schedule word, both from one
// AESKEYGENASSIST: with the word's bytes in dword 1, dword 0 of the result
// is SubWord and dword 1 is RotWord(SubWord).
struct SubWords {
  uint32_t sub;
  uint32_t sub_rot;
};
inline SubWords SubWordOf(uint32_t w) {
  const __m128i x =
      _mm_set_epi32(0, 0, static_cast<int>(__builtin_bswap32(w)), 0);
  const __m128i r = _mm_aeskeygenassist_si128(x, 0);
  return {__builtin_bswap32(static_cast<uint32_t>(_mm_cvtsi128_si32(r))),
          __builtin_bswap32(static_cast<uint32_t>(_mm_extract_epi32(r, 1)))};
}

}  // namespace

// FIPS 197 key expansion word by word, as the table code does it, with the
// S-box taken from the instruction instead of a table.
void ExpandKey(const unsigned char* key, unsigned nk,
               aes_key_schedule* schedule, bool encrypt) {
  const unsigned nr = nk + 6;
  const unsigned total = 4 * (nr + 1);
  uint32_t* rk = schedule->round_keys;

  for (unsigned i = 0; i < nk; ++i) rk[i] = load_be32(key + 4 * i);
  for (unsigned i = nk; i < total; ++i) {
    uint32_t temp = rk[i - 1];
    if (i % nk == 0) {
      temp = SubWordOf(temp).sub_rot ^ Rcon[i / nk - 1];
    } else if (nk > 6 && i % nk == 4) {
      temp = SubWordOf(temp).sub;
    }
    rk[i] = rk[i - nk] ^ temp;
  }

  if (!encrypt) {
    // Equivalent inverse cipher: round keys reversed, InvMixColumns on the
    // middle ones.
    for (unsigned i = 0, j = 4 * nr; i < j; i += 4, j -= 4) {
      for (unsigned k = 0; k < 4; ++k) {
        const uint32_t t = rk[i + k];
        rk[i + k] = rk[j + k];
        rk[j + k] = t;
      }
    }
    for (unsigned r = 1; r < nr; ++r) {
      Store(rk + 4 * r, SwapWords(_mm_aesimc_si128(RoundKey(schedule, r))));
    }
  }

  schedule->rounds = static_cast<uint16_t>(nr);
}

// The single-block calls convert the round keys as they go.
void EncryptBlock(const unsigned char* in, unsigned char* out,
                  const aes_key_schedule* schedule) {
  const unsigned nr = AesRoundsToRead(schedule);
  __m128i b = _mm_xor_si128(Load(in), RoundKey(schedule, 0));
  for (unsigned r = 1; r < nr; ++r) {
    b = _mm_aesenc_si128(b, RoundKey(schedule, r));
  }
  Store(out, _mm_aesenclast_si128(b, RoundKey(schedule, nr)));
}

void DecryptBlock(const unsigned char* in, unsigned char* out,
                  const aes_key_schedule* schedule) {
  const unsigned nr = AesRoundsToRead(schedule);
  __m128i b = _mm_xor_si128(Load(in), RoundKey(schedule, 0));
  for (unsigned r = 1; r < nr; ++r) {
    b = _mm_aesdec_si128(b, RoundKey(schedule, r));
  }
  Store(out, _mm_aesdeclast_si128(b, RoundKey(schedule, nr)));
}

void EcbEncrypt(const aes_key_schedule* schedule, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  const RoundKeys rk(schedule);
  for (; blocks >= kWide; blocks -= kWide, in += kWide * kBlock,
                          out += kWide * kBlock) {
    __m128i b[kWide];
    for (size_t i = 0; i < kWide; ++i) b[i] = Load(in + kBlock * i);
    EncryptN(rk, b);
    for (size_t i = 0; i < kWide; ++i) Store(out + kBlock * i, b[i]);
  }
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    Store(out, Encrypt1(rk, Load(in)));
  }
}

void EcbDecrypt(const aes_key_schedule* schedule, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  const RoundKeys rk(schedule);
  for (; blocks >= kWide; blocks -= kWide, in += kWide * kBlock,
                          out += kWide * kBlock) {
    __m128i b[kWide];
    for (size_t i = 0; i < kWide; ++i) b[i] = Load(in + kBlock * i);
    DecryptN(rk, b);
    for (size_t i = 0; i < kWide; ++i) Store(out + kBlock * i, b[i]);
  }
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    Store(out, Decrypt1(rk, Load(in)));
  }
}

// Each block depends on the one before, so the chain's latency is the whole
// cost. The XOR with the next plaintext block and the first round key is
// folded into the key of a second, parallel final round, which yields the
// next block's state directly: c ^ p' ^ k0 = AESENCLAST(s, k_last ^ p' ^ k0).
void CbcEncrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  if (blocks == 0) return;
  const RoundKeys rk(schedule);
  const __m128i first = rk.k[0];
  const __m128i last = rk.k[rk.nr];
  __m128i state = _mm_xor_si128(_mm_xor_si128(Load(in), first), Load(reg));
  for (;;) {
    for (unsigned r = 1; r < rk.nr; ++r) {
      state = _mm_aesenc_si128(state, rk.k[r]);
    }
    const __m128i cipher = _mm_aesenclast_si128(state, last);
    Store(out, cipher);
    if (--blocks == 0) {
      Store(reg, cipher);
      return;
    }
    in += kBlock;
    out += kBlock;
    state = _mm_aesenclast_si128(
        state, _mm_xor_si128(last, _mm_xor_si128(Load(in), first)));
  }
}

// Every batch is read before any of it is written, so decrypting in place
// keeps the ciphertext needed for chaining.
void CbcDecrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  const RoundKeys rk(schedule);
  __m128i chain = Load(reg);
  for (; blocks >= kWide; blocks -= kWide, in += kWide * kBlock,
                          out += kWide * kBlock) {
    __m128i c[kWide], b[kWide];
    for (size_t i = 0; i < kWide; ++i) b[i] = c[i] = Load(in + kBlock * i);
    DecryptN(rk, b);
    Store(out, _mm_xor_si128(b[0], chain));
    for (size_t i = 1; i < kWide; ++i) {
      Store(out + kBlock * i, _mm_xor_si128(b[i], c[i - 1]));
    }
    chain = c[kWide - 1];
  }
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    const __m128i c = Load(in);
    Store(out, _mm_xor_si128(Decrypt1(rk, c), chain));
    chain = c;
  }
  Store(reg, chain);
}

void Ofb(const aes_key_schedule* schedule, unsigned char* reg,
         const unsigned char* in, unsigned char* out, size_t blocks) {
  const RoundKeys rk(schedule);
  __m128i r = Load(reg);
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    r = Encrypt1(rk, r);
    Store(out, _mm_xor_si128(Load(in), r));
  }
  Store(reg, r);
}

void CfbEncrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  const RoundKeys rk(schedule);
  __m128i r = Load(reg);
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    r = _mm_xor_si128(Encrypt1(rk, r), Load(in));
    Store(out, r);
  }
  Store(reg, r);
}

// The register holds the previous ciphertext block, which is all input, so
// the blocks are independent.
void CfbDecrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  const RoundKeys rk(schedule);
  __m128i chain = Load(reg);
  for (; blocks >= kWide; blocks -= kWide, in += kWide * kBlock,
                          out += kWide * kBlock) {
    __m128i c[kWide], b[kWide];
    for (size_t i = 0; i < kWide; ++i) c[i] = Load(in + kBlock * i);
    b[0] = chain;
    for (size_t i = 1; i < kWide; ++i) b[i] = c[i - 1];
    EncryptN(rk, b);
    for (size_t i = 0; i < kWide; ++i) {
      Store(out + kBlock * i, _mm_xor_si128(b[i], c[i]));
    }
    chain = c[kWide - 1];
  }
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    const __m128i c = Load(in);
    Store(out, _mm_xor_si128(Encrypt1(rk, chain), c));
    chain = c;
  }
  Store(reg, chain);
}

// The counter is kept as two 64-bit halves. A batch whose low half cannot
// wrap builds its counters with one add each; otherwise blocks go one at a
// time with the carry into the high half (and all ones wraps to zero).
void Ctr(const aes_key_schedule* schedule, unsigned char* counter,
         const unsigned char* in, unsigned char* out, size_t blocks,
         unsigned char* keystream) {
  if (blocks == 0) return;
  const RoundKeys rk(schedule);
  uint64_t hi = load_be64(counter);
  uint64_t lo = load_be64(counter + 8);
  __m128i last = _mm_setzero_si128();
  while (blocks > 0) {
    if (blocks >= kWide && lo <= UINT64_MAX - (kWide - 1)) {
      const __m128i base = _mm_set_epi64x(static_cast<int64_t>(hi),
                                          static_cast<int64_t>(lo));
      __m128i b[kWide];
      for (size_t i = 0; i < kWide; ++i) {
        b[i] = Reverse(
            _mm_add_epi64(base, _mm_set_epi64x(0, static_cast<int64_t>(i))));
      }
      EncryptN(rk, b);
      for (size_t i = 0; i < kWide; ++i) {
        Store(out + kBlock * i, _mm_xor_si128(Load(in + kBlock * i), b[i]));
      }
      last = b[kWide - 1];
      lo += kWide;
      if (lo < kWide) ++hi;
      blocks -= kWide;
      in += kWide * kBlock;
      out += kWide * kBlock;
    } else {
      last = Encrypt1(rk, Reverse(_mm_set_epi64x(static_cast<int64_t>(hi),
                                                 static_cast<int64_t>(lo))));
      Store(out, _mm_xor_si128(Load(in), last));
      if (++lo == 0) ++hi;
      --blocks;
      in += kBlock;
      out += kBlock;
    }
  }
  Store(keystream, last);
  store_be64(counter, hi);
  store_be64(counter + 8, lo);
}

}  // namespace tessmar::crypto::aesni

namespace tessmar::crypto {

const AesVariant kAesNi = {
    "aesni",
    kCpuAesNi,
    aesni::ExpandKey,
    aesni::EncryptBlock,
    aesni::DecryptBlock,
    aesni::EcbEncrypt,
    aesni::EcbDecrypt,
    aesni::CbcEncrypt,
    aesni::CbcDecrypt,
    aesni::Ofb,
    aesni::CfbEncrypt,
    aesni::CfbDecrypt,
    aesni::Ctr,
};

}  // namespace tessmar::crypto
