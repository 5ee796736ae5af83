// One-shot digests of byte strings, as raw bytes.
#include <string>

#include "tessmar/digest.h"
#include "tessmar/signature.h"

namespace {

// Feeds the whole input in one update call, unguarded: an empty input is
// rejected by the update call and so yields "", which every signature
// comparison then fails. No signature scheme digests an empty string.
template <typename Context, int (*Init)(Context*),
          int (*Update)(Context*, const unsigned char*, unsigned),
          int (*Final)(Context*, unsigned char*), unsigned kSize>
std::string Digest(const std::string& data) {
  Context ctx;
  unsigned char digest[kSize] = {};
  if (Init(&ctx) != 0 ||
      Update(&ctx, reinterpret_cast<const unsigned char*>(data.data()),
             static_cast<unsigned>(data.size())) != 0 ||
      Final(&ctx, digest) != 0) {
    return std::string();
  }
  return std::string(reinterpret_cast<const char*>(digest), kSize);
}

}  // namespace

std::string MakeDigestSHA256(std::string data) {
  return Digest<sha256_state_structure, init_SHA256, update_SHA256,
                final_SHA256, SHA256_DIGEST_SIZE>(data);
}

std::string MakeDigestMD5(std::string data) {
  return Digest<md5_state_structure, init_MD5, update_MD5, final_MD5,
                MD5_DIGEST_SIZE>(data);
}
