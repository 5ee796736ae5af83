// CPU feature detection for all hardware variants. Compiled for the baseline
// instruction set: nothing here may use what it is testing for.
#include "crypto/cpu_features.h"

#include <cpuid.h>

#include <atomic>

namespace tessmar::crypto {
namespace {

// XCR0 through XGETBV, encoded by hand so the file needs no -mxsave; only
// executed when CPUID reports OSXSAVE.
uint64_t ReadXcr0() {
  uint32_t lo = 0, hi = 0;
  __asm__ volatile(".byte 0x0f, 0x01, 0xd0" : "=a"(lo), "=d"(hi) : "c"(0));
  return (uint64_t{hi} << 32) | lo;
}

bool AllSet(unsigned reg, unsigned bits) { return (reg & bits) == bits; }

uint32_t Detect() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return 0;
  const unsigned leaf1_ecx = ecx;
  // Leaf 7 reads as zeros where the CPU has none.
  unsigned leaf7_ebx = 0, leaf7_ecx = 0;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0) {
    leaf7_ebx = ebx;
    leaf7_ecx = ecx;
  }
  const bool sse = AllSet(leaf1_ecx, (1u << 9) | (1u << 19));  // SSSE3, SSE4.1
  // The OS must save the XMM and YMM registers (XCR0 bits 1 and 2) before
  // 256-bit code may run, and for EVEX code also the opmask registers and
  // the upper halves and upper sixteen of the ZMM registers (bits 5 to 7):
  // code touching registers 16-31 faults without that state, even at 256
  // bits. OSXSAVE (bit 27) says XGETBV may be executed; AVX is bit 28.
  const bool osxsave_avx = AllSet(leaf1_ecx, (1u << 27) | (1u << 28));
  const uint64_t xcr0 = osxsave_avx ? ReadXcr0() : 0;
  const bool ymm = osxsave_avx && AllSet(static_cast<unsigned>(xcr0), 0x6u);
  const bool zmm = ymm && AllSet(static_cast<unsigned>(xcr0), 0xE6u);
  const bool avx2 = ymm && AllSet(leaf7_ebx, 1u << 5);

  uint32_t f = 0;
  if (sse && AllSet(leaf1_ecx, 1u << 25)) f |= kCpuAesNi;
  if ((f & kCpuAesNi) && avx2 && AllSet(leaf7_ecx, 1u << 9)) f |= kCpuVaes;
  if (sse && AllSet(leaf7_ebx, 1u << 29)) f |= kCpuShaNi;
  if (avx2 && AllSet(leaf7_ebx, (1u << 3) | (1u << 8))) f |= kCpuAvx2Bmi;
  // AVX-512 F, BW and VL: bits 16, 30 and 31.
  if ((f & kCpuAvx2Bmi) && zmm &&
      AllSet(leaf7_ebx, (1u << 16) | (1u << 30) | (1u << 31))) {
    f |= kCpuAvx512;
  }
  return f;
}

uint32_t Detected() {
  static const uint32_t features = Detect();
  return features;
}

// A value no detection gives, until the first call. Detection is pure, so
// threads racing through the first call all store the same value.
constexpr uint32_t kNotYetRead = ~0u;
std::atomic<uint32_t> g_in_use{kNotYetRead};

}  // namespace

uint32_t CpuFeatures() {
  uint32_t f = g_in_use.load(std::memory_order_relaxed);
  if (f == kNotYetRead) {
    f = Detected();
    g_in_use.store(f, std::memory_order_relaxed);
  }
  return f;
}

void LimitCpuFeaturesForTesting(uint32_t mask) {
  g_in_use.store(Detected() & mask, std::memory_order_relaxed);
}

}  // namespace tessmar::crypto
