// Runs a suite once per AES variant (aes_variant.h), with that variant in use
// for the exported calls and the block-cipher context; a variant the CPU
// lacks is skipped, never silently replaced. Also the byte helpers and the
// OpenSSL oracle the AES and block-cipher tests share.
#ifndef TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H
#define TESSMAR_TESTS_CRYPTO_AES_VARIANTS_H

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "crypto/aes_variant.h"
#include "tessmar/block_cipher.h"

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

// The textbook mode, from OpenSSL.
inline Bytes Oracle(uint32_t algorithm, uint8_t mode, const Bytes& key, const Bytes& iv, bool encrypt,
             bool padded, const Bytes& in) {
  using Getter = const EVP_CIPHER* (*)();
  static const Getter kCiphers[][3] = {  // by mode / 0x10 - 1
      {EVP_aes_128_ecb, EVP_aes_192_ecb, EVP_aes_256_ecb},
      {EVP_aes_128_cbc, EVP_aes_192_cbc, EVP_aes_256_cbc},
      {EVP_aes_128_ofb, EVP_aes_192_ofb, EVP_aes_256_ofb},
      {EVP_aes_128_cfb128, EVP_aes_192_cfb128, EVP_aes_256_cfb128},
      {EVP_aes_128_ctr, EVP_aes_192_ctr, EVP_aes_256_ctr}};
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(c, kCiphers[mode / 0x10 - 1][algorithm - BC_ALG_AES128](), nullptr,
                    key.data(), iv.empty() ? nullptr : iv.data(), encrypt ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(c, padded ? 1 : 0);
  Bytes out(in.size() + 32);
  int n = 0, m = 0;
  if (!in.empty()) EVP_CipherUpdate(c, out.data(), &n, in.data(), static_cast<int>(in.size()));
  EVP_CipherFinal_ex(c, out.data() + n, &m);
  EVP_CIPHER_CTX_free(c);
  out.resize(static_cast<size_t>(n + m));
  return out;
}
inline Bytes Ecb(const Bytes& key, bool encrypt, const Bytes& in) {
  const auto algorithm = static_cast<uint32_t>(BC_ALG_AES128 + (key.size() - 16) / 8);
  return Oracle(algorithm, BC_MODE_ECB, key, {}, encrypt, false, in);
}

inline const char* const kAesVariantNames[] = {"portable", "aesni", "vaes"};

class AesVariantTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    variant_ = AesVariantNamed(GetParam());
    if (variant_ == nullptr) GTEST_SKIP() << "this CPU has no " << GetParam() << " variant";
    UseAesVariantForTesting(variant_);
    ASSERT_EQ(&ActiveAes(), variant_);
  }
  void TearDown() override { UseAesVariantForTesting(nullptr); }

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
