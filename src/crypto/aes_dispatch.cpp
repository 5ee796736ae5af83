// The AES dispatch point: the fastest variant the CPU runs. Compiled for the
// baseline instruction set.
#include "crypto/aes_variant.h"
#include "crypto/cpu_features.h"

namespace tessmar::crypto {
namespace {

constexpr const AesVariant* kFastestFirst[] = {&kAesVaes, &kAesNi,
                                               &kAesPortable};

}  // namespace

const AesVariant& ActiveAes() { return FastestVariant(kFastestFirst); }

const AesVariant* AesVariantNamed(const char* name) {
  return VariantNamed(kFastestFirst, name);
}

}  // namespace tessmar::crypto
