// The VAES variant (compiled with -mvaes -mavx2 -maes; used only when the
// CPU has VAES, AVX2 and AES-NI and the OS saves the YMM registers). Each
// 256-bit register carries two blocks, and the parallel modes (ECB, CBC and
// CFB decryption, CTR) keep sixteen blocks in flight. What does not fill a
// batch, and the serial modes, are the AES-NI variant's. Constant time like
// that variant.
#include <immintrin.h>

#include <cstdint>

#include "crypto/aes_variant.h"
#include "crypto/aes_x86_aesni.h"
#include "crypto/byte_order.h"
#include "crypto/cpu_features.h"

namespace tessmar::crypto::vaes {
namespace {

constexpr size_t kBlock = 16;
constexpr size_t kRegs = 8;            // registers in flight
constexpr size_t kBatch = 2 * kRegs;  // blocks in flight

inline __m256i Load(const unsigned char* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
inline void Store(unsigned char* p, __m256i v) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
}

// Each round key in both halves, its big-endian schedule words byte-swapped
// (see aes_x86_aesni.cpp). Round counts above kAesMaxRounds read as it.
struct RoundKeys {
  explicit RoundKeys(const aes_key_schedule* s) : nr(AesRoundsToRead(s)) {
    const __m128i swap =
        _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
    for (unsigned r = 0; r <= nr; ++r) {
      const __m128i key = _mm_loadu_si128(
          reinterpret_cast<const __m128i*>(s->round_keys + 4 * r));
      k[r] = _mm256_broadcastsi128_si256(_mm_shuffle_epi8(key, swap));
    }
  }
  unsigned nr;
  __m256i k[kAesMaxRounds + 1];
};

// Same round structure as the other variants, for every round count.
inline void Encrypt(const RoundKeys& rk, __m256i (&b)[kRegs]) {
  for (size_t i = 0; i < kRegs; ++i) b[i] = _mm256_xor_si256(b[i], rk.k[0]);
  for (unsigned r = 1; r < rk.nr; ++r) {
    const __m256i k = rk.k[r];
    for (size_t i = 0; i < kRegs; ++i) b[i] = _mm256_aesenc_epi128(b[i], k);
  }
  const __m256i last = rk.k[rk.nr];
  for (size_t i = 0; i < kRegs; ++i) b[i] = _mm256_aesenclast_epi128(b[i], last);
}

inline void Decrypt(const RoundKeys& rk, __m256i (&b)[kRegs]) {
  for (size_t i = 0; i < kRegs; ++i) b[i] = _mm256_xor_si256(b[i], rk.k[0]);
  for (unsigned r = 1; r < rk.nr; ++r) {
    const __m256i k = rk.k[r];
    for (size_t i = 0; i < kRegs; ++i) b[i] = _mm256_aesdec_epi128(b[i], k);
  }
  const __m256i last = rk.k[rk.nr];
  for (size_t i = 0; i < kRegs; ++i) b[i] = _mm256_aesdeclast_epi128(b[i], last);
}

// The blocks one position back: (c[2j-1], c[2j]) from the pair before and
// the pair itself; before the first pair, `previous` carries the block that
// precedes the batch in its upper half.
inline void ShiftBack(__m256i previous, const __m256i (&c)[kRegs],
                      __m256i (&shifted)[kRegs]) {
  shifted[0] = _mm256_permute2x128_si256(previous, c[0], 0x21);
  for (size_t i = 1; i < kRegs; ++i) {
    shifted[i] = _mm256_permute2x128_si256(c[i - 1], c[i], 0x21);
  }
}

inline __m256i InUpperHalf(const unsigned char* block) {
  return _mm256_broadcastsi128_si256(
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(block)));
}

inline void StoreUpperHalf(unsigned char* block, __m256i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(block),
                   _mm256_extracti128_si256(v, 1));
}

void EcbEncrypt(const aes_key_schedule* schedule, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  const size_t batches = blocks / kBatch;
  if (batches > 0) {
    const RoundKeys rk(schedule);
    for (size_t n = 0; n < batches; ++n, in += kBatch * kBlock,
                out += kBatch * kBlock) {
      __m256i b[kRegs];
      for (size_t i = 0; i < kRegs; ++i) b[i] = Load(in + 2 * kBlock * i);
      Encrypt(rk, b);
      for (size_t i = 0; i < kRegs; ++i) Store(out + 2 * kBlock * i, b[i]);
    }
  }
  aesni::EcbEncrypt(schedule, in, out, blocks % kBatch);
}

void EcbDecrypt(const aes_key_schedule* schedule, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  const size_t batches = blocks / kBatch;
  if (batches > 0) {
    const RoundKeys rk(schedule);
    for (size_t n = 0; n < batches; ++n, in += kBatch * kBlock,
                out += kBatch * kBlock) {
      __m256i b[kRegs];
      for (size_t i = 0; i < kRegs; ++i) b[i] = Load(in + 2 * kBlock * i);
      Decrypt(rk, b);
      for (size_t i = 0; i < kRegs; ++i) Store(out + 2 * kBlock * i, b[i]);
    }
  }
  aesni::EcbDecrypt(schedule, in, out, blocks % kBatch);
}

// A batch is read whole before any of it is written, so in-place use keeps
// the ciphertext needed for chaining.
void CbcDecrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  const size_t batches = blocks / kBatch;
  if (batches > 0) {
    const RoundKeys rk(schedule);
    __m256i previous = InUpperHalf(reg);
    for (size_t n = 0; n < batches; ++n, in += kBatch * kBlock,
                out += kBatch * kBlock) {
      __m256i c[kRegs], b[kRegs], chain[kRegs];
      for (size_t i = 0; i < kRegs; ++i) b[i] = c[i] = Load(in + 2 * kBlock * i);
      ShiftBack(previous, c, chain);
      Decrypt(rk, b);
      for (size_t i = 0; i < kRegs; ++i) {
        Store(out + 2 * kBlock * i, _mm256_xor_si256(b[i], chain[i]));
      }
      previous = c[kRegs - 1];
    }
    StoreUpperHalf(reg, previous);
  }
  aesni::CbcDecrypt(schedule, reg, in, out, blocks % kBatch);
}

void CfbDecrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  const size_t batches = blocks / kBatch;
  if (batches > 0) {
    const RoundKeys rk(schedule);
    __m256i previous = InUpperHalf(reg);
    for (size_t n = 0; n < batches; ++n, in += kBatch * kBlock,
                out += kBatch * kBlock) {
      __m256i c[kRegs], b[kRegs];
      for (size_t i = 0; i < kRegs; ++i) c[i] = Load(in + 2 * kBlock * i);
      ShiftBack(previous, c, b);
      Encrypt(rk, b);
      for (size_t i = 0; i < kRegs; ++i) {
        Store(out + 2 * kBlock * i, _mm256_xor_si256(b[i], c[i]));
      }
      previous = c[kRegs - 1];
    }
    StoreUpperHalf(reg, previous);
  }
  aesni::CfbDecrypt(schedule, reg, in, out, blocks % kBatch);
}

// Batches run while the counter's low 64 bits cannot wrap inside one; the
// rest, and a batch that would wrap, go to the AES-NI code, which carries.
void Ctr(const aes_key_schedule* schedule, unsigned char* counter,
         const unsigned char* in, unsigned char* out, size_t blocks,
         unsigned char* keystream) {
  uint64_t hi = load_be64(counter);
  uint64_t lo = load_be64(counter + 8);
  if (blocks >= kBatch && lo <= UINT64_MAX - (kBatch - 1)) {
    const RoundKeys rk(schedule);
    // Reverses the bytes of each half: little-endian counter -> block bytes.
    const __m256i reverse = _mm256_set_epi8(
        0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15,  //
        0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m256i pair_step = _mm256_set_epi64x(0, 2, 0, 2);
    __m256i last = _mm256_setzero_si256();
    while (blocks >= kBatch && lo <= UINT64_MAX - (kBatch - 1)) {
      __m256i next = _mm256_set_epi64x(
          static_cast<int64_t>(hi), static_cast<int64_t>(lo + 1),
          static_cast<int64_t>(hi), static_cast<int64_t>(lo));
      __m256i b[kRegs];
      for (size_t i = 0; i < kRegs; ++i) {
        b[i] = _mm256_shuffle_epi8(next, reverse);
        next = _mm256_add_epi64(next, pair_step);
      }
      Encrypt(rk, b);
      for (size_t i = 0; i < kRegs; ++i) {
        Store(out + 2 * kBlock * i,
              _mm256_xor_si256(Load(in + 2 * kBlock * i), b[i]));
      }
      last = b[kRegs - 1];
      lo += kBatch;
      if (lo < kBatch) ++hi;
      blocks -= kBatch;
      in += kBatch * kBlock;
      out += kBatch * kBlock;
    }
    StoreUpperHalf(keystream, last);
    store_be64(counter, hi);
    store_be64(counter + 8, lo);
  }
  aesni::Ctr(schedule, counter, in, out, blocks, keystream);
}

}  // namespace
}  // namespace tessmar::crypto::vaes

namespace tessmar::crypto {

const AesVariant kAesVaes = {
    "vaes",
    kCpuVaes,
    aesni::ExpandKey,
    aesni::EncryptBlock,
    aesni::DecryptBlock,
    vaes::EcbEncrypt,
    vaes::EcbDecrypt,
    aesni::CbcEncrypt,
    vaes::CbcDecrypt,
    aesni::Ofb,
    aesni::CfbEncrypt,
    vaes::CfbDecrypt,
    vaes::Ctr,
};

}  // namespace tessmar::crypto
