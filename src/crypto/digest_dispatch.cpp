// Picks the digest compression variant once, from the CPU's feature flags.
// Compiled for the baseline instruction set; no environment variable or
// setting steers the choice.
#include <cpuid.h>

#include <atomic>
#include <cstring>

#include "crypto/digest_variant.h"

namespace tessmar::crypto {
namespace {

constexpr DigestVariant kPortable = {"portable", Sha1BlocksPortable,
                                     Sha256BlocksPortable};
constexpr DigestVariant kShaNi = {"shani", Sha1BlocksShaNi, Sha256BlocksShaNi};
constexpr Sha512Variant kSha512Portable = {"portable", Sha512BlocksPortable};
constexpr Sha512Variant kSha512Avx2 = {"avx2", Sha512BlocksAvx2};
constexpr Sha512Variant kSha512Avx512 = {"avx512", Sha512BlocksAvx512};

// The SHA extensions (CPUID.(EAX=7,ECX=0):EBX bit 29) with the SSSE3 and
// SSE4.1 instructions the variant is compiled with.
bool CpuHasShaExtensions() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return false;
  const bool ssse3 = (ecx & (1u << 9)) != 0;
  const bool sse41 = (ecx & (1u << 19)) != 0;
  if (!ssse3 || !sse41) return false;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return false;
  return (ebx & (1u << 29)) != 0;
}

bool HasShaExtensions() {
  static const bool has = CpuHasShaExtensions();
  return has;
}

// AVX2 (CPUID.(EAX=7,ECX=0):EBX bit 5) with BMI1 and BMI2 (bits 3 and 8),
// and an OS that saves the SSE and AVX state (OSXSAVE, then XCR0 bits 1
// and 2), without which 256-bit instructions fault.
bool CpuHasAvx2AndBmi() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return false;
  const bool osxsave = (ecx & (1u << 27)) != 0;
  const bool avx = (ecx & (1u << 28)) != 0;
  if (!osxsave || !avx) return false;
  unsigned xcr0_low = 0, xcr0_high = 0;
  __asm__("xgetbv" : "=a"(xcr0_low), "=d"(xcr0_high) : "c"(0));
  if ((xcr0_low & 0x6u) != 0x6u) return false;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return false;
  const unsigned needed = (1u << 3) | (1u << 5) | (1u << 8);
  return (ebx & needed) == needed;
}

bool HasAvx2AndBmi() {
  static const bool has = CpuHasAvx2AndBmi();
  return has;
}

// On top of AVX2 and BMI: AVX-512 F, BW and VL (CPUID.(EAX=7,ECX=0):EBX
// bits 16, 30 and 31), and an OS that saves the opmask registers and the
// upper halves and upper sixteen of the ZMM registers as well (XCR0 bits 5,
// 6 and 7 besides 1 and 2). The variant only uses 256-bit registers, but
// EVEX code reaches registers 16-31, and without that state it faults.
bool CpuHasAvx512() {
  if (!HasAvx2AndBmi()) return false;
  unsigned xcr0_low = 0, xcr0_high = 0;
  __asm__("xgetbv" : "=a"(xcr0_low), "=d"(xcr0_high) : "c"(0));
  if ((xcr0_low & 0xE6u) != 0xE6u) return false;
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return false;
  const unsigned needed = (1u << 16) | (1u << 30) | (1u << 31);
  return (ebx & needed) == needed;
}

bool HasAvx512() {
  static const bool has = CpuHasAvx512();
  return has;
}

// Null until first use; threads racing through them store the same pointer.
std::atomic<const DigestVariant*> g_active{nullptr};
std::atomic<const Sha512Variant*> g_active_sha512{nullptr};

}  // namespace

const DigestVariant& ActiveDigests() {
  const DigestVariant* v = g_active.load(std::memory_order_acquire);
  if (v == nullptr) {
    v = HasShaExtensions() ? &kShaNi : &kPortable;
    g_active.store(v, std::memory_order_release);
  }
  return *v;
}

const DigestVariant* DigestVariantNamed(const char* name) {
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, kPortable.name) == 0) return &kPortable;
  if (std::strcmp(name, kShaNi.name) == 0 && HasShaExtensions()) return &kShaNi;
  return nullptr;
}

void UseDigestVariantForTesting(const DigestVariant& variant) {
  g_active.store(&variant, std::memory_order_release);
}

const Sha512Variant& ActiveSha512() {
  const Sha512Variant* v = g_active_sha512.load(std::memory_order_acquire);
  if (v == nullptr) {
    v = HasAvx512()      ? &kSha512Avx512
        : HasAvx2AndBmi() ? &kSha512Avx2
                          : &kSha512Portable;
    g_active_sha512.store(v, std::memory_order_release);
  }
  return *v;
}

const Sha512Variant* Sha512VariantNamed(const char* name) {
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, kSha512Portable.name) == 0) return &kSha512Portable;
  if (std::strcmp(name, kSha512Avx2.name) == 0 && HasAvx2AndBmi()) {
    return &kSha512Avx2;
  }
  if (std::strcmp(name, kSha512Avx512.name) == 0 && HasAvx512()) {
    return &kSha512Avx512;
  }
  return nullptr;
}

void UseSha512VariantForTesting(const Sha512Variant& variant) {
  g_active_sha512.store(&variant, std::memory_order_release);
}

}  // namespace tessmar::crypto
