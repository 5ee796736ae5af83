// The compression functions behind the digest contexts: the portable code,
// which is the reference and the fallback, and variants for x86-64: the SHA
// instructions for SHA-1 and SHA-256, AVX2 with BMI and AVX-512 with BMI
// for SHA-512. Each digest
// has one dispatch point, which picks from what the CPU reports
// (cpu_features.h); the context code calls it for every whole block, straight from
// the caller's buffer where it can.
//
// MD5 has no hardware form on x86-64 and only the portable one.
#ifndef TESSMAR_SRC_CRYPTO_DIGEST_VARIANT_H
#define TESSMAR_SRC_CRYPTO_DIGEST_VARIANT_H

#include <cstddef>
#include <cstdint>

namespace tessmar::crypto {

// Compresses `blocks` consecutive 64-byte blocks into the chaining state.
using Sha1BlocksFn = void (*)(uint32_t state[5], const unsigned char* data,
                              std::size_t blocks);
using Sha256BlocksFn = void (*)(uint32_t state[8], const unsigned char* data,
                                std::size_t blocks);

using Sha512BlocksFn = void (*)(uint64_t state[8], const unsigned char* data,
                                std::size_t blocks);

// SHA-1 and SHA-256, which the SHA extensions accelerate together.
struct DigestVariant {
  const char* name;  // "portable", "shani"
  uint32_t needs;    // CpuFeature bits (cpu_features.h)
  Sha1BlocksFn sha1_blocks;
  Sha256BlocksFn sha256_blocks;
};

// The variant in use: the fastest this CPU runs.
const DigestVariant& ActiveDigests();

// Each variant by name: "portable" always, "shani" only when the CPU has
// the SHA extensions (with SSSE3 and SSE4.1); null otherwise. For tests.
const DigestVariant* DigestVariantNamed(const char* name);

// SHA-512 (128-byte blocks).
struct Sha512Variant {
  const char* name;  // "portable", "avx2", "avx512"
  uint32_t needs;
  Sha512BlocksFn blocks;
};

// As above: the one in use; each by name ("portable" always, "avx2" only
// with AVX2, BMI1, BMI2 and the YMM state enabled by the OS, "avx512" only
// with all that, AVX-512 F, BW and VL and the opmask and ZMM state enabled
// by the OS), null otherwise.
const Sha512Variant& ActiveSha512();
const Sha512Variant* Sha512VariantNamed(const char* name);

// The variants themselves; the hardware ones are only to be called when
// DigestVariantNamed hands them out.
void Sha1BlocksPortable(uint32_t state[5], const unsigned char* data,
                        std::size_t blocks);
void Sha256BlocksPortable(uint32_t state[8], const unsigned char* data,
                          std::size_t blocks);
void Sha1BlocksShaNi(uint32_t state[5], const unsigned char* data,
                     std::size_t blocks);
void Sha256BlocksShaNi(uint32_t state[8], const unsigned char* data,
                       std::size_t blocks);
void Sha512BlocksPortable(uint64_t state[8], const unsigned char* data,
                          std::size_t blocks);
void Sha512BlocksAvx2(uint64_t state[8], const unsigned char* data,
                      std::size_t blocks);
void Sha512BlocksAvx512(uint64_t state[8], const unsigned char* data,
                        std::size_t blocks);

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_DIGEST_VARIANT_H
