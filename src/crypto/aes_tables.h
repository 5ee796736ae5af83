// Constant tables of the 32-bit table formulation of AES (FIPS 197), shared
// by the key schedule and the block functions in aes.cpp.
//
// Words are big-endian column values: byte 0 of a state column is the most
// significant byte. With s = Sbox[x] and t = InvSbox[x]:
//   Te0[x] = {02*s, s, s, 03*s}        Te1..Te3: Te0 rotated right 8, 16, 24
//   Td0[x] = {0e*t, 09*t, 0d*t, 0b*t}  Td1..Td3: Td0 rotated right 8, 16, 24
// Products are in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
#ifndef TESSMAR_SRC_CRYPTO_AES_TABLES_H
#define TESSMAR_SRC_CRYPTO_AES_TABLES_H

#include <cstdint>

namespace tessmar::crypto {

// Encryption round tables: SubBytes, ShiftRows placement and MixColumns.
extern const uint32_t Te0[256];
extern const uint32_t Te1[256];
extern const uint32_t Te2[256];
extern const uint32_t Te3[256];

// Decryption round tables: InvSubBytes and InvMixColumns.
extern const uint32_t Td0[256];
extern const uint32_t Td1[256];
extern const uint32_t Td2[256];
extern const uint32_t Td3[256];

// Last-round tables (no MixColumns in the final round).
extern const uint8_t Sbox[256];
extern const uint8_t InvSbox[256];

// Key-expansion round constants {rc, 0, 0, 0} for rounds 1..10.
extern const uint32_t Rcon[10];

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_AES_TABLES_H
