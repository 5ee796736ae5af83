// Independent computations of the signature digests with OpenSSL, written
// from the documented formulas, to check the library's own code against.
#ifndef TESSMAR_TESTS_SIGNATURE_OPENSSL_ORACLE_H
#define TESSMAR_TESTS_SIGNATURE_OPENSSL_ORACLE_H

#include <openssl/evp.h>

#include <string>

namespace tessmar::testing {

inline std::string OracleDigest(const EVP_MD* md, const std::string& data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), out, &length, md, nullptr) != 1) return "";
  return std::string(reinterpret_cast<const char*>(out), length);
}
inline std::string OracleSha256(const std::string& data) { return OracleDigest(EVP_sha256(), data); }
inline std::string OracleMd5(const std::string& data) { return OracleDigest(EVP_md5(), data); }

// Ten rounds, each appending SHA-256(MD5(H[16..32)) || MD5(H[0..16))) with
// H = SHA-256 of everything so far; then SHA-256 of the whole.
inline std::string OracleStretched(std::string acc) {
  for (int round = 0; round < 10; ++round) {
    const std::string h = OracleSha256(acc);
    acc += OracleSha256(OracleMd5(h.substr(16, 16)) + OracleMd5(h.substr(0, 16)));
  }
  return OracleSha256(acc);
}

// The salt that starts the installation and client module digests.
inline std::string OracleSalt(const std::string& product, const std::string& maker) {
  return product + maker + OracleSha256(product + maker);
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SIGNATURE_OPENSSL_ORACLE_H
