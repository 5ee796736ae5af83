// Runs a suite once per AES variant (aes_variant.h), with that variant in use
// for the exported calls and the block-cipher context; a variant the CPU
// lacks is skipped, never silently replaced. Also the byte helpers and
// published vectors the AES and block-cipher tests share.
#ifndef TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H
#define TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H

#include <gtest/gtest.h>

#include <cstring>
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

// SP 800-38A appendix F: the plaintext, a key of each length (also the keys
// of the FIPS 197 key-expansion examples) and the plaintext under each in ECB
// (F.1.1, F.1.3, F.1.5).
inline const Bytes kPlain = FromHex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
inline const Bytes kKey128 = FromHex("2b7e151628aed2a6abf7158809cf4f3c");
inline const Bytes kKey192 = FromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
inline const Bytes kKey256 = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
inline const char* const kEcb128 = "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
                                   "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4";
inline const char* const kEcb192 = "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
                                   "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e";
inline const char* const kEcb256 = "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
                                   "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7";

// A schedule keyed over a known fill, so that copies compare equal bytewise.
inline aes_key_schedule Schedule(const Bytes& key, int direction) {
  aes_key_schedule ks;
  std::memset(&ks, 0xa5, sizeof ks);
  AES_round_key(key.data(), static_cast<uint32_t>(key.size()), &ks, direction);
  return ks;
}

// Each block of in through the exported block calls (in place unless asked
// otherwise), under a schedule keyed with `direction`.
inline Bytes Ecb(const Bytes& key, int direction, bool encrypt, Bytes in, bool in_place = true) {
  const aes_key_schedule ks = Schedule(key, direction);
  Bytes out(in.size());
  unsigned char* dst = in_place ? in.data() : out.data();
  for (size_t at = 0; at < in.size(); at += AES_BLOCK_SIZE)
    (encrypt ? AES_encrypt_block : AES_decrypt_block)(&in[at], dst + at, &ks);
  return in_place ? in : out;
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
