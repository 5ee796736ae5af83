// Runs a test suite once per AES variant (aes_variant.h), with that variant
// in use for the exported calls and the block-cipher context; a variant the
// CPU lacks is skipped, never silently replaced. A suite derives from
// AesVariantTest and is instantiated with
//   INSTANTIATE_TEST_SUITE_P(Variants, Suite, ValuesIn(kAesVariantNames),
//                            AesVariantName);
#ifndef TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H
#define TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H

#include <gtest/gtest.h>

#include <string>

#include "crypto/aes_variant.h"

namespace tessmar::crypto::testing_support {

inline const char* const kAesVariantNames[] = {"portable", "aesni", "vaes"};

class AesVariantTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    variant_ = AesVariantNamed(GetParam());
    if (variant_ == nullptr) {
      GTEST_SKIP() << "this CPU has no " << GetParam() << " variant";
    }
    UseAesVariantForTesting(variant_);
  }
  void TearDown() override { UseAesVariantForTesting(nullptr); }

  const AesVariant& Variant() const { return *variant_; }
  static const AesVariant& Portable() { return *AesVariantNamed("portable"); }

 private:
  const AesVariant* variant_ = nullptr;
};

inline std::string AesVariantName(
    const ::testing::TestParamInfo<const char*>& info) {
  return info.param;
}

}  // namespace tessmar::crypto::testing_support

#endif  // TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H
