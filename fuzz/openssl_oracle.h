// OpenSSL as the oracle of the crypto fuzz targets: the textbook answer to
// compare the library's with. The only place that calls OpenSSL for that.
#ifndef TESSMAR_FUZZ_OPENSSL_ORACLE_H
#define TESSMAR_FUZZ_OPENSSL_ORACLE_H

#include <openssl/evp.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tessmar/block_cipher.h"

namespace tessmar::fuzz {

inline std::string OracleDigest(const EVP_MD* md, const std::string& message) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(message.data(), message.size(), out, &length, md, nullptr) != 1) std::abort();
  return std::string(reinterpret_cast<char*>(out), length);
}

// The textbook encryption: `algorithm` one of BC_ALG_AES*, `mode` one of
// ECB, CBC, OFB, CFB (128-bit feedback) and CTR; PKCS#7 when `padded`.
inline std::string OracleEncrypt(uint32_t algorithm, uint8_t mode, const unsigned char* key,
                                 const unsigned char* iv, bool padded, const std::string& text) {
  static const char* const kModes[] = {"ecb", "cbc", "ofb", "cfb", "ctr"};  // by mode / 0x10 - 1
  const std::string name = "aes-" + std::to_string(128 + 64 * (algorithm - BC_ALG_AES128)) + "-" +
                           kModes[mode / 0x10 - 1];
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  if (c == nullptr || EVP_EncryptInit_ex(c, EVP_get_cipherbyname(name.c_str()), nullptr, key, iv) != 1) {
    std::abort();
  }
  EVP_CIPHER_CTX_set_padding(c, padded ? 1 : 0);
  std::string out(text.size() + 32, '\0');
  int n = 0, m = 0;
  auto* o = reinterpret_cast<unsigned char*>(&out[0]);
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  if (EVP_EncryptUpdate(c, o, &n, in, static_cast<int>(text.size())) != 1 ||
      EVP_EncryptFinal_ex(c, o + n, &m) != 1) {
    std::abort();
  }
  EVP_CIPHER_CTX_free(c);
  out.resize(static_cast<std::size_t>(n + m));
  return out;
}

// Base64 in one line, with padding.
inline std::string OracleBase64(const uint8_t* data, std::size_t size) {
  std::string out(4 * ((size + 2) / 3) + 1, '\0');
  out.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), data, static_cast<int>(size))));
  return out;
}

}  // namespace tessmar::fuzz

#endif  // TESSMAR_FUZZ_OPENSSL_ORACLE_H
