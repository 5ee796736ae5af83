// Streaming block-cipher context over AES: ECB, CBC, OFB, CFB and CTR with
// PKCS#7 padding for ECB and CBC.
//
// Calling order: new_BLOCK_CIPHER_CTX, init_BlockCipher, any number of
// update_BlockCipher, one final_BlockCipher, free_BLOCK_CIPHER_CTX. A context
// may be initialised again; the previous key material is wiped first. Every
// call returns 0 or one of the BC_* status codes below.
//
// Output room: an update needs the input length plus one block, a final one
// block (32 bytes are always enough). The output-length pointer of an update
// is not written while input is only being buffered; preset it to 0 (a
// padded decryption does write 0 then). OFB, CFB and CTR need an IV: without
// one, update fails with BC_ERR_UPDATE_MODE and final with BC_ERR_FINAL_MODE.
//
// Deliberate departures from the textbook modes, relied on by existing data:
//   - every update of a stream mode (OFB, CFB, CTR) begins a fresh keystream
//     block, so only updates of a multiple of 16 bytes chain like the textbook;
//   - when an update consumes its input exactly after completing a pending
//     block, the pending count keeps its earlier (stale) value;
//   - a padded decryption holds back the last block of each update and a
//     later update overwrites it: feed padded ciphertext in one update;
//   - mode 0x46 runs CFB through the caller's direction (the inverse cipher
//     when decrypting) and does not interoperate with 0x40.
#ifndef TESSMAR_BLOCK_CIPHER_H
#define TESSMAR_BLOCK_CIPHER_H

#include <stdint.h>

#include "tessmar/aes.h"
#include "tessmar/export.h"

// Algorithms.
#define BC_ALG_AES128 0x30001u
#define BC_ALG_AES192 0x30002u
#define BC_ALG_AES256 0x30003u

// Modes.
#define BC_MODE_ECB 0x10
#define BC_MODE_CBC 0x20
#define BC_MODE_OFB 0x30
#define BC_MODE_CFB 0x40
#define BC_MODE_CFB_DIRECTIONAL 0x46
#define BC_MODE_CTR 0x50

// Status codes.
#define BC_OK 0
#define BC_ERR_INIT_NULL_CTX 0x10101
#define BC_ERR_INIT_UNKNOWN 0x10204          // unknown algorithm or mode
#define BC_ERR_UPDATE_ARGS 0x10301           // null argument or zero length
#define BC_ERR_UPDATE_MODE 0x10305           // mode routine failed
#define BC_ERR_UPDATE_PADDED 0x10506         // padded decryption failed
#define BC_ERR_FINAL_ARGS 0x10601
#define BC_ERR_FINAL_MODE 0x10705
#define BC_ERR_FINAL_BLOCK_SIZE 0x10707      // block size above 32
#define BC_ERR_FINAL_UNPADDED_PARTIAL 0x10708
#define BC_ERR_FINAL_DECRYPT_PARTIAL 0x10807 // partial pending or nothing held back
#define BC_ERR_FINAL_BAD_PADDING 0x10808
#define BC_ERR_ECB_NULL_DATA 0x10901
#define BC_ERR_ECB_NO_KEY 0x10902
#define BC_ERR_CBC_NULL_DATA 0x10A01
#define BC_ERR_CBC_NO_KEY 0x10A02
#define BC_ERR_CBC_NO_REGISTER 0x10A03
#define BC_ERR_CFB_NULL_DATA 0x10B01
#define BC_ERR_CFB_NO_KEY 0x10B02
#define BC_ERR_OFB_NULL_DATA 0x10C01
#define BC_ERR_OFB_NO_KEY 0x10C02
#define BC_ERR_CTR_NULL_DATA 0x10D01
#define BC_ERR_CTR_NO_KEY 0x10D02
#define BC_ERR_AES_NULL_CTX 0x120101

typedef struct BLOCK_CIPHER_CTX BLOCK_CIPHER_CTX;

typedef void (*bc_block_function)(const unsigned char* in, unsigned char* out,
                                  const aes_key_schedule* schedule);
typedef int (*bc_algorithm_init)(BLOCK_CIPHER_CTX* ctx,
                                  const unsigned char* key,
                                  const unsigned char* iv, int direction);
typedef int (*bc_mode_routine)(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
                               uint32_t in_length, unsigned char* out,
                               uint32_t* out_length);

struct BLOCK_CIPHER_CTX {
  uint32_t algorithm;
  uint8_t mode;
  uint8_t no_padding;               // 1: no padding; else PKCS#7 (ECB, CBC)
  uint16_t direction;               // 1: encrypt
  uint32_t block_size;              // 16
  uint32_t key_length;              // 16, 24 or 32
  uint32_t iv_length;               // 16
  aes_key_schedule* key_schedule;   // heap, wiped before release
  uint32_t key_schedule_size;       // 260
  unsigned char* reg;               // heap, 16 bytes: IV, chaining value, counter
  uint32_t keystream_pos;
  uint32_t pending_count;
  unsigned char pending[32];
  uint32_t held_back_count;
  unsigned char held_back[32];
  unsigned char keystream[32];
  bc_block_function block_function;
  bc_algorithm_init algorithm_init;
  bc_mode_routine mode_routine;
};

#ifdef __cplusplus
extern "C" {
#endif

// Keys the context's AES: with a key, allocates and fills the schedule for
// the context's algorithm; with an IV, allocates the 16-byte register.
// Returns 0, or BC_ERR_AES_NULL_CTX.
TSMX_API int init_AES(BLOCK_CIPHER_CTX* ctx, const unsigned char* key,
                      const unsigned char* iv, int direction);

// A zero-filled context on the heap, or null when memory is exhausted.
TSMX_API BLOCK_CIPHER_CTX* new_BLOCK_CIPHER_CTX(void);

// Wipes and releases the key material, then the context. Null is allowed.
TSMX_API void free_BLOCK_CIPHER_CTX(BLOCK_CIPHER_CTX* ctx);

// Resets the context and keys it for `algorithm` in `mode`. `no_padding`
// 1 disables PKCS#7 (always off for stream modes). `iv` is 16 bytes, or null
// for ECB. Returns 0, BC_ERR_INIT_NULL_CTX or BC_ERR_INIT_UNKNOWN.
TSMX_API int init_BlockCipher(BLOCK_CIPHER_CTX* ctx, uint32_t algorithm,
                              uint8_t mode, uint8_t no_padding,
                              const unsigned char* key,
                              const unsigned char* iv, int direction);

// Processes `in_length` (at least 1) bytes into `out` and sets *out_length.
TSMX_API int update_BlockCipher(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
                                uint32_t in_length, unsigned char* out,
                                uint32_t* out_length);

// Emits the padded last block (encryption) or the unpadded remainder
// (decryption) into `out` and sets *out_length.
TSMX_API int final_BlockCipher(BLOCK_CIPHER_CTX* ctx, unsigned char* out,
                               uint32_t* out_length);

#ifdef __cplusplus
}
#endif

#endif  // TESSMAR_BLOCK_CIPHER_H
