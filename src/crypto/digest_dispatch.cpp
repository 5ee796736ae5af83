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

// Null until first use; threads racing through it store the same pointer.
std::atomic<const DigestVariant*> g_active{nullptr};

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

}  // namespace tessmar::crypto
