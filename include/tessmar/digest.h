// Message digests: MD5 (RFC 1321), SHA-1, SHA-256 and SHA-512 (FIPS 180-4).
//
// Every digest follows one three-call discipline:
//   init once, update any number of times with at least one byte each, final once.
// After final the context must be initialised again before reuse. The caller
// owns the context (stack or heap); no call allocates. Each call returns
// DIGEST_OK or one of its algorithm's status codes below, which deliberately
// differ between the algorithms.
//
// A zero-length update is an error by design: it returns a status and leaves
// the context untouched, so callers hashing possibly empty data skip the call.
//
// After final the input buffer, the block buffer and the input count are
// cleared; the chaining state, bit count and block index keep their values.
//
// MD5 is exported with plain C linkage; the SHA calls are exported as the
// C++ functions declared here (their mangled names are part of the ABI).
#ifndef TESSMAR_DIGEST_H
#define TESSMAR_DIGEST_H

#include <cstdint>

#include "tessmar/export.h"

constexpr unsigned MD5_DIGEST_SIZE = 16;
constexpr unsigned SHA1_DIGEST_SIZE = 20;
constexpr unsigned SHA256_DIGEST_SIZE = 32;
constexpr unsigned SHA512_DIGEST_SIZE = 64;

// Status codes. "Block index" and "input count" are the context fields of
// those names. An update checks its arguments, the block index, the length
// and the input count, in that order. The codes reserved for a first chunk
// beyond the free room (which the input-count check rules out) and for a
// failed compression (which cannot happen) are never returned: MD5 update
// 6 and 7, final 2, 4 and 5; SHA-1 update 4, final 2, 4 and 5; SHA-256
// update 5, final 3 and 4; SHA-512 update 4, final 2, 4 and 5.
#define DIGEST_OK 0

#define MD5_ERR_NULL 1                  // null context, data or digest
#define MD5_ERR_UPDATE_BLOCK_INDEX 2    // above 64
#define MD5_ERR_UPDATE_ZERO_LENGTH 3
#define MD5_ERR_UPDATE_INPUT_COUNT 5    // above 64
#define MD5_ERR_FINAL_BLOCK_INDEX 3     // above 63 after the input is moved

#define SHA1_ERR_ARGS 1                 // null context or data; update: block index above 64
#define SHA1_ERR_UPDATE_ZERO_LENGTH 2
#define SHA1_ERR_UPDATE_INPUT_COUNT 3   // above 64
#define SHA1_ERR_FINAL_BLOCK_INDEX 3    // above 63 after the input is moved

#define SHA256_ERR_ARGS 1               // null context or data; final: block index above 63
#define SHA256_ERR_UPDATE_BLOCK_INDEX 2 // above 64
#define SHA256_ERR_UPDATE_ZERO_LENGTH 3
#define SHA256_ERR_UPDATE_INPUT_COUNT 4 // above 64
#define SHA256_ERR_FINAL_BLOCK_INDEX 2  // after the input is moved; cannot follow the entry check

#define SHA512_ERR_ARGS 1               // null context or data; block index above 128 (update), 127 (final)
#define SHA512_ERR_UPDATE_ZERO_LENGTH 2
#define SHA512_ERR_UPDATE_INPUT_COUNT 3 // above 128
#define SHA512_ERR_FINAL_BLOCK_INDEX 3  // after the input is moved; cannot follow the entry check

// MD5 keeps its block buffer first; the SHA contexts keep it after the
// chaining state. The two layouts are part of the ABI and stay as they are.
struct md5_state_structure {
  unsigned char block[64];      // final padded block(s), used by final only
  uint64_t bit_count;           // message bits already compressed
  uint32_t block_index;         // bytes currently in block
  uint32_t state[4];            // A, B, C, D
  unsigned char input[64];      // bytes collected by update
  uint8_t input_count;          // bytes currently in input
};

struct sha1_state_structure {
  uint64_t bit_count;
  uint32_t block_index;
  uint32_t state[5];            // H0..H4
  unsigned char block[64];
  unsigned char input[64];
  uint8_t input_count;
};

struct sha256_state_structure {
  uint64_t bit_count;
  uint32_t block_index;
  uint32_t state[8];            // H0..H7
  unsigned char block[64];
  unsigned char input[64];
  uint8_t input_count;
};

struct sha512_state_structure {
  uint64_t bit_count;           // limits messages to 2^64 bits
  uint32_t block_index;
  uint64_t state[8];            // H0..H7
  unsigned char block[128];
  unsigned char input[128];
  uint8_t input_count;          // up to 128
};

// Init fails only for a null context (code 1 of each algorithm).
extern "C" {

TSMX_API int init_MD5(md5_state_structure* ctx);
TSMX_API int update_MD5(md5_state_structure* ctx, const unsigned char* data,
                        unsigned int length);
// Writes 16 bytes. This is the only final call that tests its output pointer.
TSMX_API int final_MD5(md5_state_structure* ctx, unsigned char* digest);

}  // extern "C"

TSMX_API int init_SHA1(sha1_state_structure* ctx);
TSMX_API int update_SHA1(sha1_state_structure* ctx, unsigned char const* data,
                         unsigned int length);
// Writes 20 bytes; the output pointer is not tested.
TSMX_API int final_SHA1(sha1_state_structure* ctx, unsigned char* digest);

TSMX_API int init_SHA256(sha256_state_structure* ctx);
TSMX_API int update_SHA256(sha256_state_structure* ctx,
                           unsigned char const* data, unsigned int length);
// Writes 32 bytes; the output pointer is not tested.
TSMX_API int final_SHA256(sha256_state_structure* ctx, unsigned char* digest);

TSMX_API int init_SHA512(sha512_state_structure* ctx);
TSMX_API int update_SHA512(sha512_state_structure* ctx,
                           unsigned char const* data, unsigned int length);
// Writes 64 bytes; the output pointer is not tested.
TSMX_API int final_SHA512(sha512_state_structure* ctx, unsigned char* digest);

#endif  // TESSMAR_DIGEST_H
