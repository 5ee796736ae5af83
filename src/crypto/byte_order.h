// Loads and stores of fixed-width words in a given byte order, shared by the
// digests and AES. Compilers turn each into a single (byte-swapped) move.
#ifndef TESSMAR_SRC_CRYPTO_BYTE_ORDER_H
#define TESSMAR_SRC_CRYPTO_BYTE_ORDER_H

#include <cstdint>

namespace tessmar::crypto {

inline uint32_t load_be32(const unsigned char* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) |
         (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

inline uint64_t load_be64(const unsigned char* p) {
  return (uint64_t(load_be32(p)) << 32) | load_be32(p + 4);
}

inline uint32_t load_le32(const unsigned char* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) |
         (uint32_t(p[3]) << 24);
}

inline void store_be32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

inline void store_be64(unsigned char* p, uint64_t v) {
  store_be32(p, static_cast<uint32_t>(v >> 32));
  store_be32(p + 4, static_cast<uint32_t>(v));
}

inline void store_le32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

inline void store_le64(unsigned char* p, uint64_t v) {
  store_le32(p, static_cast<uint32_t>(v));
  store_le32(p + 4, static_cast<uint32_t>(v >> 32));
}

inline constexpr uint32_t rotl32(uint32_t x, unsigned n) {
  return (x << n) | (x >> (32 - n));
}
inline constexpr uint32_t rotr32(uint32_t x, unsigned n) {
  return (x >> n) | (x << (32 - n));
}
inline constexpr uint64_t rotr64(uint64_t x, unsigned n) {
  return (x >> n) | (x << (64 - n));
}

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_BYTE_ORDER_H
