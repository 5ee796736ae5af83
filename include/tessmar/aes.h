// AES block cipher (FIPS 197) with 128-, 192- and 256-bit keys.
//
// The key schedule lives in a 260-byte area: 64 round-key words (at most 60
// used) followed by the round count (10, 12 or 14). Direction 1 builds an
// encryption schedule; any other value builds the decryption schedule of the
// equivalent inverse cipher. Only the low 16 bits of a direction count.
#ifndef TESSMAR_AES_H
#define TESSMAR_AES_H

#include <stdint.h>

#include "tessmar/export.h"

#define AES_BLOCK_SIZE 16
#define AES_DIRECTION_ENCRYPT 1

typedef struct aes_key_schedule {
  uint32_t round_keys[64];
  uint16_t rounds;
} aes_key_schedule;

#ifdef __cplusplus
static_assert(sizeof(aes_key_schedule) == 260, "schedule area is 260 bytes");
extern "C" {
#endif

// Expands `key` (16, 24 or 32 bytes) into `schedule`. Any other length, or a
// null key or schedule, leaves the area as it was.
TSMX_API void AES_round_key(const unsigned char* key, uint32_t key_length,
                            aes_key_schedule* schedule, int direction);

// Encrypts one 16-byte block with an encryption schedule. `in` and `out` may
// be the same block; nothing happens if any pointer is null.
TSMX_API void AES_encrypt_block(const unsigned char* in, unsigned char* out,
                                const aes_key_schedule* schedule);

// Decrypts one 16-byte block with a decryption schedule; as above otherwise.
TSMX_API void AES_decrypt_block(const unsigned char* in, unsigned char* out,
                                const aes_key_schedule* schedule);

#ifdef __cplusplus
}
#endif

#endif  // TESSMAR_AES_H
