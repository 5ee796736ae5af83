// What the CPU offers the hardware variants, detected once (CPUID and
// XGETBV) in cpu_features.cpp and read by every dispatch point. Each variant
// names the features it needs; a dispatch point hands out the fastest
// variant whose needs are all present, and the portable code, which needs
// nothing, otherwise. No environment variable or setting steers the choice.
#ifndef TESSMAR_SRC_CRYPTO_CPU_FEATURES_H
#define TESSMAR_SRC_CRYPTO_CPU_FEATURES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tessmar::crypto {

// Each bit includes what the variants using it are compiled with, and the
// operating system's support for the register state they touch.
enum CpuFeature : uint32_t {
  kCpuAesNi = 1u << 0,    // AES-NI, SSSE3, SSE4.1
  kCpuVaes = 1u << 1,     // the above, 256-bit VAES, AVX2, YMM state saved
  kCpuShaNi = 1u << 2,    // SHA extensions, SSSE3, SSE4.1
  kCpuAvx2Bmi = 1u << 3,  // AVX2, BMI1, BMI2, YMM state saved
  kCpuAvx512 = 1u << 4,   // the above, AVX-512 F/BW/VL, opmask and ZMM state
  kAllCpuFeatures = (1u << 5) - 1,
};

// The features the dispatch points act on: those of this CPU, detected at
// the first call, unless a test has narrowed them.
uint32_t CpuFeatures();

// The one test hook: from now on the dispatch points see only the features
// in `mask` (of those the CPU has); kAllCpuFeatures restores them all. Never
// called by the library; not for concurrent use.
void LimitCpuFeaturesForTesting(uint32_t mask);

// For the dispatch files only (compiled for the baseline instruction set):
// `fastest_first` lists a dispatch point's variants, the portable one
// (needing nothing) last. Variant has `name` and `needs` members.
template <typename Variant, std::size_t N>
const Variant& FastestVariant(const Variant* const (&fastest_first)[N]) {
  const uint32_t have = CpuFeatures();
  for (const Variant* v : fastest_first) {
    if ((v->needs & ~have) == 0) return *v;
  }
  return *fastest_first[N - 1];
}

// The variant of that name if the CPU runs it; null otherwise.
template <typename Variant, std::size_t N>
const Variant* VariantNamed(const Variant* const (&variants)[N],
                            const char* name) {
  if (name == nullptr) return nullptr;
  const uint32_t have = CpuFeatures();
  for (const Variant* v : variants) {
    if (std::strcmp(v->name, name) == 0) {
      return (v->needs & ~have) == 0 ? v : nullptr;
    }
  }
  return nullptr;
}

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_CPU_FEATURES_H
