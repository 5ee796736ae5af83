// Whole-block chaining loops over any single-block function `f(in, out)`:
// the portable variant instantiates them with its table code, and the mode
// routines with a block function of the caller's when the context holds
// one. Semantics as documented for the AesChainFn/AesCtrFn types in
// aes_variant.h; `in` and `out` may be the same buffer.
#ifndef TESSMAR_SRC_CRYPTO_AES_GENERIC_MODES_H
#define TESSMAR_SRC_CRYPTO_AES_GENERIC_MODES_H

#include <cstddef>
#include <cstring>

namespace tessmar::crypto::generic {

constexpr size_t kBlock = 16;

inline void XorBlock(const unsigned char* a, const unsigned char* b,
                     unsigned char* out) {
  for (size_t j = 0; j < kBlock; ++j) {
    out[j] = static_cast<unsigned char>(a[j] ^ b[j]);
  }
}

// Adds one to the 16-byte big-endian counter; all 0xff wraps to all zeros.
inline void IncrementCounter(unsigned char* counter) {
  for (size_t i = kBlock; i-- > 0;) {
    if (++counter[i] != 0) return;
  }
}

template <typename F>
void Ecb(F&& f, const unsigned char* in, unsigned char* out, size_t blocks) {
  for (size_t i = 0; i < blocks; ++i) f(in + kBlock * i, out + kBlock * i);
}

template <typename F>
void CbcEncrypt(F&& f, unsigned char* iv, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  for (size_t i = 0; i < blocks; ++i) {
    unsigned char* block = out + kBlock * i;
    XorBlock(in + kBlock * i, iv, block);
    f(block, block);
    std::memcpy(iv, block, kBlock);
  }
}

// The ciphertext block is copied before the output is written, so the
// chaining value survives decryption in place.
template <typename F>
void CbcDecrypt(F&& f, unsigned char* iv, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  unsigned char cipher[kBlock];
  for (size_t i = 0; i < blocks; ++i) {
    unsigned char* block = out + kBlock * i;
    std::memcpy(cipher, in + kBlock * i, kBlock);
    f(cipher, block);
    XorBlock(block, iv, block);
    std::memcpy(iv, cipher, kBlock);
  }
}

template <typename F>
void Ofb(F&& f, unsigned char* reg, const unsigned char* in, unsigned char* out,
         size_t blocks) {
  for (size_t i = 0; i < blocks; ++i) {
    f(reg, reg);
    XorBlock(in + kBlock * i, reg, out + kBlock * i);
  }
}

template <typename F>
void CfbEncrypt(F&& f, unsigned char* reg, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  for (size_t i = 0; i < blocks; ++i) {
    f(reg, reg);
    XorBlock(in + kBlock * i, reg, reg);
    std::memcpy(out + kBlock * i, reg, kBlock);
  }
}

template <typename F>
void CfbDecrypt(F&& f, unsigned char* reg, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  unsigned char cipher[kBlock];
  for (size_t i = 0; i < blocks; ++i) {
    std::memcpy(cipher, in + kBlock * i, kBlock);
    f(reg, reg);
    XorBlock(cipher, reg, out + kBlock * i);
    std::memcpy(reg, cipher, kBlock);
  }
}

template <typename F>
void Ctr(F&& f, unsigned char* counter, const unsigned char* in,
         unsigned char* out, size_t blocks, unsigned char* keystream) {
  for (size_t i = 0; i < blocks; ++i) {
    f(counter, keystream);
    IncrementCounter(counter);
    XorBlock(in + kBlock * i, keystream, out + kBlock * i);
  }
}

}  // namespace tessmar::crypto::generic

#endif  // TESSMAR_SRC_CRYPTO_AES_GENERIC_MODES_H
