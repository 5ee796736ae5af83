// Picks the AES variant once, from the CPU's feature flags. Compiled for the
// baseline instruction set: nothing here may use what it is testing for.
// No environment variable or setting steers the choice.
#include <cpuid.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "crypto/aes_variant.h"

namespace tessmar::crypto {
namespace {

struct CpuAesFeatures {
  bool aesni = false;  // AES-NI with the SSSE3/SSE4.1 it is compiled with
  bool vaes = false;   // 256-bit VAES with AVX2, and YMM state enabled
};

// XCR0 through XGETBV, encoded by hand so the file needs no -mxsave; only
// executed when CPUID reports OSXSAVE.
uint64_t ReadXcr0() {
  uint32_t lo = 0, hi = 0;
  __asm__ volatile(".byte 0x0f, 0x01, 0xd0" : "=a"(lo), "=d"(hi) : "c"(0));
  return (uint64_t{hi} << 32) | lo;
}

CpuAesFeatures DetectFeatures() {
  CpuAesFeatures f;
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return f;
  const bool ssse3 = (ecx & (1u << 9)) != 0;
  const bool sse41 = (ecx & (1u << 19)) != 0;
  const bool aes = (ecx & (1u << 25)) != 0;
  const bool osxsave = (ecx & (1u << 27)) != 0;
  const bool avx = (ecx & (1u << 28)) != 0;
  f.aesni = aes && ssse3 && sse41;
  if (!f.aesni || !osxsave || !avx) return f;

  // The OS must save the XMM and YMM registers (XCR0 bits 1 and 2) before
  // 256-bit code may run.
  if ((ReadXcr0() & 0x6) != 0x6) return f;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return f;
  const bool avx2 = (ebx & (1u << 5)) != 0;
  const bool vaes = (ecx & (1u << 9)) != 0;
  f.vaes = avx2 && vaes;
  return f;
}

const CpuAesFeatures& Features() {
  static const CpuAesFeatures features = DetectFeatures();
  return features;
}

const AesVariant* Best() {
  if (Features().vaes) return &kAesVaes;
  if (Features().aesni) return &kAesNi;
  return &kAesPortable;
}

// Null until first use. Detection is pure, so threads racing through the
// first call all store the same pointer.
std::atomic<const AesVariant*> g_active{nullptr};

}  // namespace

const AesVariant& ActiveAes() {
  const AesVariant* v = g_active.load(std::memory_order_acquire);
  if (v == nullptr) {
    v = Best();
    g_active.store(v, std::memory_order_release);
  }
  return *v;
}

const AesVariant* AesVariantNamed(const char* name) {
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, kAesPortable.name) == 0) return &kAesPortable;
  if (std::strcmp(name, kAesNi.name) == 0) {
    return Features().aesni ? &kAesNi : nullptr;
  }
  if (std::strcmp(name, kAesVaes.name) == 0) {
    return Features().vaes ? &kAesVaes : nullptr;
  }
  return nullptr;
}

const AesVariant* UseAesVariantForTesting(const AesVariant* variant) {
  const AesVariant* previous = &ActiveAes();
  g_active.store(variant != nullptr ? variant : Best(),
                 std::memory_order_release);
  return previous;
}

}  // namespace tessmar::crypto
