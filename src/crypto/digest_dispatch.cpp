// The digest dispatch points: the fastest compression variants the CPU runs.
// Compiled for the baseline instruction set.
#include "crypto/cpu_features.h"
#include "crypto/digest_variant.h"

namespace tessmar::crypto {
namespace {

constexpr DigestVariant kPortable = {"portable", 0, Sha1BlocksPortable,
                                     Sha256BlocksPortable};
constexpr DigestVariant kShaNi = {"shani", kCpuShaNi, Sha1BlocksShaNi,
                                  Sha256BlocksShaNi};
constexpr const DigestVariant* kDigestsFastestFirst[] = {&kShaNi, &kPortable};

constexpr Sha512Variant kSha512Portable = {"portable", 0, Sha512BlocksPortable};
constexpr Sha512Variant kSha512Avx2 = {"avx2", kCpuAvx2Bmi, Sha512BlocksAvx2};
constexpr Sha512Variant kSha512Avx512 = {"avx512", kCpuAvx512,
                                         Sha512BlocksAvx512};
constexpr const Sha512Variant* kSha512FastestFirst[] = {
    &kSha512Avx512, &kSha512Avx2, &kSha512Portable};

}  // namespace

const DigestVariant& ActiveDigests() {
  return FastestVariant(kDigestsFastestFirst);
}

const DigestVariant* DigestVariantNamed(const char* name) {
  return VariantNamed(kDigestsFastestFirst, name);
}

const Sha512Variant& ActiveSha512() {
  return FastestVariant(kSha512FastestFirst);
}

const Sha512Variant* Sha512VariantNamed(const char* name) {
  return VariantNamed(kSha512FastestFirst, name);
}

}  // namespace tessmar::crypto
