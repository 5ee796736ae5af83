// The AES-NI variant's functions, for the VAES variant, which shares its key
// expansion and serial modes and hands it the blocks left over from its
// 16-block batches. Call only on a CPU with AES-NI (see aes_dispatch.cpp).
#ifndef TESSMAR_SRC_CRYPTO_AES_X86_AESNI_H
#define TESSMAR_SRC_CRYPTO_AES_X86_AESNI_H

#include <cstddef>

#include "tessmar/aes.h"

namespace tessmar::crypto::aesni {

void ExpandKey(const unsigned char* key, unsigned key_words,
               aes_key_schedule* schedule, bool encrypt);
void EncryptBlock(const unsigned char* in, unsigned char* out,
                  const aes_key_schedule* schedule);
void DecryptBlock(const unsigned char* in, unsigned char* out,
                  const aes_key_schedule* schedule);
void EcbEncrypt(const aes_key_schedule* schedule, const unsigned char* in,
                unsigned char* out, size_t blocks);
void EcbDecrypt(const aes_key_schedule* schedule, const unsigned char* in,
                unsigned char* out, size_t blocks);
void CbcEncrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks);
void CbcDecrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks);
void Ofb(const aes_key_schedule* schedule, unsigned char* reg,
         const unsigned char* in, unsigned char* out, size_t blocks);
void CfbEncrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks);
void CfbDecrypt(const aes_key_schedule* schedule, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks);
void Ctr(const aes_key_schedule* schedule, unsigned char* counter,
         const unsigned char* in, unsigned char* out, size_t blocks,
         unsigned char* keystream);

}  // namespace tessmar::crypto::aesni

#endif  // TESSMAR_SRC_CRYPTO_AES_X86_AESNI_H
