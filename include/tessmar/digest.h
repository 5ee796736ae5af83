// Message digests: MD5 (RFC 1321), SHA-1, SHA-256 and SHA-512 (FIPS 180-4).
//
// Every digest follows one three-call discipline:
//   init once, update any number of times with at least one byte each, final once.
// After final the context must be initialised again before reuse. The caller
// owns the context (stack or heap); no call allocates. Each call returns a
// status, 0 for success; the non-zero codes are listed per call below and
// deliberately differ between the algorithms.
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

extern "C" {

// Status 1: null context.
TSMX_API int init_MD5(md5_state_structure* ctx);

// Status 1: null context or data; 2: block index above 64; 3: length 0;
// 5: first chunk of 2^31 bytes or more, or input count above 64;
// 6: first chunk larger than the free room; 7: compression failure.
TSMX_API int update_MD5(md5_state_structure* ctx, const unsigned char* data,
                        unsigned int length);

// Writes 16 bytes. Status 1: null digest or context; 3: block index above 63
// after the pending bytes are moved; 2, 4, 5: compression failure.
// This is the only final call that tests its output pointer.
TSMX_API int final_MD5(md5_state_structure* ctx, unsigned char* digest);

}  // extern "C"

// Status 1: null context.
TSMX_API int init_SHA1(sha1_state_structure* ctx);
// Status 1: null context or data, or block index above 64; 2: length 0;
// 3: first chunk too large (room, 2^31) or input count above 64; 4: compression.
TSMX_API int update_SHA1(sha1_state_structure* ctx, unsigned char const* data,
                         unsigned int length);
// Writes 20 bytes; the output pointer is not tested. Status 1: null context;
// 3: block index above 63 after the pending bytes are moved; 2, 4, 5: compression.
TSMX_API int final_SHA1(sha1_state_structure* ctx, unsigned char* digest);

// Status 1: null context.
TSMX_API int init_SHA256(sha256_state_structure* ctx);
// Status 1: null context or data; 2: block index above 64; 3: length 0;
// 4: first chunk too large (room, 2^31) or input count above 64; 5: compression.
TSMX_API int update_SHA256(sha256_state_structure* ctx,
                           unsigned char const* data, unsigned int length);
// Writes 32 bytes; the output pointer is not tested. Status 1: null context,
// block index above 63 on entry, or compression failure while moving the
// pending bytes; 2: block index above 64 after that; 3, 4: compression.
TSMX_API int final_SHA256(sha256_state_structure* ctx, unsigned char* digest);

// Status 1: null context.
TSMX_API int init_SHA512(sha512_state_structure* ctx);
// Status 1: null context or data, or block index above 128; 2: length 0;
// 3: first chunk too large (room, 2^31) or input count above 128; 4: compression.
TSMX_API int update_SHA512(sha512_state_structure* ctx,
                           unsigned char const* data, unsigned int length);
// Writes 64 bytes; the output pointer is not tested. Status 1: null context or
// block index above 127 on entry; 2: compression while moving the pending
// bytes; 3: block index above 128 after that; 4, 5: compression.
TSMX_API int final_SHA512(sha512_state_structure* ctx, unsigned char* digest);

#endif  // TESSMAR_DIGEST_H
