// The five mode routines behind BLOCK_CIPHER_CTX, one per chaining mode. All
// have the bc_mode_routine signature so the context can hold any of them.
//
// Each routine first sets *out_length to 0, then either fails with its own
// status (null data; null context, no key schedule or, where the mode needs
// it, no register) or processes the input:
//   - crypt_ECB, crypt_CBC: whole 16-byte blocks only; a trailing partial
//     block is left unconsumed and *out_length says how much was consumed.
//     CBC stores the last ciphertext block back into the register.
//   - crypt_OFB, crypt_CFB, crypt_CTR: every byte, *out_length = in_length.
//     They begin at the context's stored keystream position and never store
//     the advanced position back, so each call starts a fresh keystream block.
// crypt_CFB serves both 0x40 and 0x46; the difference lies only in which
// block function init_BlockCipher installed.
//
// Whole blocks go through the active AES variant's bulk functions when the
// context's block function is AES_encrypt_block or AES_decrypt_block; any
// other block function is called once per block. Either way the results,
// the register and the keystream block end up as the byte-wise definition
// of each mode leaves them.
#ifndef TESSMAR_SRC_CRYPTO_BLOCK_CIPHER_MODES_H
#define TESSMAR_SRC_CRYPTO_BLOCK_CIPHER_MODES_H

#include <cstdint>

#include "tessmar/block_cipher.h"

namespace tessmar::crypto {

int crypt_ECB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length);
int crypt_CBC(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length);
int crypt_OFB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length);
int crypt_CFB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length);
int crypt_CTR(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length);

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_BLOCK_CIPHER_MODES_H
