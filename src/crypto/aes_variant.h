// The implementations of the AES core behind the exported calls: the
// portable table code, which is the reference and the fallback, and variants
// for the x86-64 AES instructions. One of them is picked from what the CPU
// reports (cpu_features.h); the exported block functions, the key schedule
// and the mode routines of the block-cipher context all go through it.
//
// Every variant works on the schedule area exactly as AES_round_key lays it
// out (big-endian round-key words, the round count behind them) and gives
// bit-identical results for every round count the portable code accepts,
// including the meaningless ones of a cleared schedule: only the first
// kAesMaxRounds + 1 round keys are ever read, so nothing reads past the area.
#ifndef TESSMAR_SRC_CRYPTO_AES_VARIANT_H
#define TESSMAR_SRC_CRYPTO_AES_VARIANT_H

#include <cstddef>
#include <cstdint>

#include "tessmar/aes.h"

namespace tessmar::crypto {

// Largest round count whose round keys (4 * (Nr + 1) words) fit the 64-word
// area. The expansion only writes 10, 12 or 14; a larger stored count is
// read as this one.
constexpr unsigned kAesMaxRounds = 15;

inline unsigned AesRoundsToRead(const aes_key_schedule* schedule) {
  const unsigned nr = schedule->rounds;
  return nr < kAesMaxRounds ? nr : kAesMaxRounds;
}

// One 16-byte block; in and out may be the same block.
using AesBlockFn = void (*)(const unsigned char* in, unsigned char* out,
                            const aes_key_schedule* schedule);
// `blocks` independent blocks (ECB).
using AesBlocksFn = void (*)(const aes_key_schedule* schedule,
                             const unsigned char* in, unsigned char* out,
                             size_t blocks);
// `blocks` chained blocks; `reg` is the 16-byte chaining register (IV,
// feedback register or counter), read at the start and left as the next
// block needs it. `in` and `out` may be the same buffer.
using AesChainFn = void (*)(const aes_key_schedule* schedule,
                            unsigned char* reg, const unsigned char* in,
                            unsigned char* out, size_t blocks);
// CTR over `blocks` whole blocks: out = in XOR E(counter), the counter
// incremented as one 128-bit big-endian number after each block. With at
// least one block, `keystream` receives the last keystream block.
using AesCtrFn = void (*)(const aes_key_schedule* schedule,
                          unsigned char* counter, const unsigned char* in,
                          unsigned char* out, size_t blocks,
                          unsigned char* keystream);
// Expands a key of `key_words` (4, 6 or 8) 32-bit words into the area, as
// AES_round_key documents; arguments are already checked.
using AesExpandFn = void (*)(const unsigned char* key, unsigned key_words,
                             aes_key_schedule* schedule, bool encrypt);

struct AesVariant {
  const char* name;  // "portable", "aesni", "vaes"
  uint32_t needs;    // CpuFeature bits (cpu_features.h)
  AesExpandFn expand_key;
  AesBlockFn encrypt_block;
  AesBlockFn decrypt_block;
  AesBlocksFn ecb_encrypt;
  AesBlocksFn ecb_decrypt;
  AesChainFn cbc_encrypt;
  AesChainFn cbc_decrypt;
  AesChainFn ofb;          // register := E(register); out = in ^ register
  AesChainFn cfb_encrypt;  // feedback is the output, E only
  AesChainFn cfb_decrypt;  // feedback is the input, E only
  AesCtrFn ctr;
};

// The variant in use: the fastest one this CPU runs.
const AesVariant& ActiveAes();

// Each variant by name: "portable" always, "aesni" and "vaes" only when the
// CPU (and, for "vaes", the operating system's AVX state) supports them;
// null otherwise, and for unknown names.
const AesVariant* AesVariantNamed(const char* name);

// The variants' tables; only the dispatch code may hand the hardware ones
// out, after checking the CPU.
extern const AesVariant kAesPortable;
extern const AesVariant kAesNi;
extern const AesVariant kAesVaes;

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_AES_VARIANT_H
