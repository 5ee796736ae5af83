// Walks through the library's crypto calls the way one of the framework's
// components uses them: digests, Base64 and AES-CBC with PKCS#7 padding.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tessmar/base64.h"
#include "tessmar/block_cipher.h"
#include "tessmar/digest.h"

namespace {

std::string Hex(const unsigned char* bytes, std::size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

void ShowDigests(const char* message) {
  const auto* data = reinterpret_cast<const unsigned char*>(message);
  const auto length = static_cast<unsigned>(std::strlen(message));
  unsigned char digest[SHA512_DIGEST_SIZE];

  md5_state_structure md5;
  init_MD5(&md5);
  update_MD5(&md5, data, length);
  final_MD5(&md5, digest);
  std::printf("  MD5     %s\n", Hex(digest, MD5_DIGEST_SIZE).c_str());

  sha1_state_structure sha1;
  init_SHA1(&sha1);
  update_SHA1(&sha1, data, length);
  final_SHA1(&sha1, digest);
  std::printf("  SHA-1   %s\n", Hex(digest, SHA1_DIGEST_SIZE).c_str());

  sha256_state_structure sha256;
  init_SHA256(&sha256);
  update_SHA256(&sha256, data, length);
  final_SHA256(&sha256, digest);
  std::printf("  SHA-256 %s\n", Hex(digest, SHA256_DIGEST_SIZE).c_str());

  sha512_state_structure sha512;
  init_SHA512(&sha512);
  update_SHA512(&sha512, data, length);
  final_SHA512(&sha512, digest);
  std::printf("  SHA-512 %s\n", Hex(digest, SHA512_DIGEST_SIZE).c_str());
}

void ShowBase64(const char* message) {
  char* text = nullptr;
  int n = encode_Base64(reinterpret_cast<const unsigned char*>(message),
                        static_cast<uint32_t>(std::strlen(message)), &text, 0);
  std::printf("  encode_Base64 -> %d chars: %s\n", n, text);
  unsigned char* bytes = nullptr;
  int m = decode_Base64(text, n, &bytes);
  std::printf("  decode_Base64 -> %d bytes: %.*s\n", m, m,
              reinterpret_cast<const char*>(bytes));
  std::free(text);
  std::free(bytes);
}

// Encrypts or decrypts `in` in one update plus final; returns the output.
std::string RunCbc(const std::string& in, const unsigned char* key,
                   const unsigned char* iv, int direction) {
  BLOCK_CIPHER_CTX* ctx = new_BLOCK_CIPHER_CTX();
  std::string out(in.size() + 2 * AES_BLOCK_SIZE, '\0');
  auto* dst = reinterpret_cast<unsigned char*>(&out[0]);
  uint32_t n = 0, tail = 0;
  int status = init_BlockCipher(ctx, BC_ALG_AES128, BC_MODE_CBC, 0, key, iv,
                                direction);
  if (status == BC_OK) {
    status = update_BlockCipher(
        ctx, reinterpret_cast<const unsigned char*>(in.data()),
        static_cast<uint32_t>(in.size()), dst, &n);
  }
  if (status == BC_OK) status = final_BlockCipher(ctx, dst + n, &tail);
  free_BLOCK_CIPHER_CTX(ctx);
  if (status != BC_OK) {
    std::printf("  block cipher status 0x%x\n", status);
    return "";
  }
  out.resize(n + tail);
  return out;
}

}  // namespace

int main() {
  const char* message = "The quick brown fox jumps over the lazy dog";
  std::printf("Digests of \"%s\":\n", message);
  ShowDigests(message);

  std::printf("\nBase64:\n");
  ShowBase64(message);

  std::printf("\nAES-128-CBC with PKCS#7 padding:\n");
  const unsigned char key[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                                 0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
  unsigned char iv[16];
  for (int i = 0; i < 16; ++i) iv[i] = static_cast<unsigned char>(i);
  const std::string cipher = RunCbc(message, key, iv, AES_DIRECTION_ENCRYPT);
  std::printf("  ciphertext (%zu bytes) %s\n", cipher.size(),
              Hex(reinterpret_cast<const unsigned char*>(cipher.data()),
                  cipher.size()).c_str());
  const std::string plain = RunCbc(cipher, key, iv, 0);
  std::printf("  decrypted  \"%s\" (%s)\n", plain.c_str(),
              plain == message ? "matches" : "MISMATCH");
  return plain == message ? 0 : 1;
}
