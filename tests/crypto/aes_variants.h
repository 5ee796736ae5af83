// Runs a suite once per AES variant (aes_variant.h), with that variant in use
// for the exported calls and the block-cipher context; a variant the CPU
// lacks is skipped, never silently replaced. Also the byte helpers the AES
// and block-cipher tests share.
#ifndef TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H
#define TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "crypto/aes_variant.h"
#include "crypto/cpu_features.h"
#include "tessmar/aes.h"

namespace tessmar::crypto::testing_support {

using Bytes = std::vector<unsigned char>;

inline Bytes FromHex(const std::string& hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return out;
}

inline Bytes RandomBytes(std::mt19937& rng, size_t n) {
  Bytes b(n);
  for (auto& x : b) x = static_cast<unsigned char>(rng());
  return b;
}

// Each block through the exported block calls, which the FIPS 197 vectors pin.
inline Bytes Ecb(const Bytes& key, bool encrypt, Bytes in) {
  aes_key_schedule ks;
  AES_round_key(key.data(), static_cast<uint32_t>(key.size()), &ks, encrypt ? 1 : 0);
  for (size_t at = 0; at < in.size(); at += 16)
    (encrypt ? AES_encrypt_block : AES_decrypt_block)(&in[at], &in[at], &ks);
  return in;
}

inline const char* const kAesVariantNames[] = {"portable", "aesni", "vaes"};

class AesVariantTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    variant_ = AesVariantNamed(GetParam());
    if (variant_ == nullptr) GTEST_SKIP() << "this CPU has no " << GetParam() << " variant";
    LimitCpuFeaturesForTesting(variant_->needs);
    ASSERT_EQ(&ActiveAes(), variant_);
  }
  void TearDown() override { LimitCpuFeaturesForTesting(kAllCpuFeatures); }

  const AesVariant& Variant() const { return *variant_; }
  static const AesVariant& Portable() { return *AesVariantNamed("portable"); }

 private:
  const AesVariant* variant_ = nullptr;
};

#define TESSMAR_AES_VARIANT_SUITE(Suite)                                           \
  INSTANTIATE_TEST_SUITE_P(                                                         \
      Variants, Suite,                                                              \
      ::testing::ValuesIn(::tessmar::crypto::testing_support::kAesVariantNames),    \
      [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); })

}  // namespace tessmar::crypto::testing_support

#endif  // TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H
