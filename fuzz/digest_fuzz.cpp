// The digests: fed in any chunking they equal one shot, and SHA-256 and MD5
// equal OpenSSL's. The first input byte seeds the chunk sizes.
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "tessmar/digest.h"

namespace {

// Feeds `message` in chunks whose sizes come from `sizes` (zero-length
// updates are errors by design, so chunks are at least one byte).
template <typename Context, typename Init, typename Update, typename Final>
std::string Digest(const std::string& message, const std::string& sizes,
                   std::size_t digest_size, Init init, Update update,
                   Final final) {
  Context ctx;
  if (init(&ctx) != 0) std::abort();
  std::size_t done = 0, next = 0;
  while (done < message.size()) {
    std::size_t chunk = message.size() - done;
    if (!sizes.empty()) {
      chunk = std::min<std::size_t>(
          chunk, 1 + static_cast<uint8_t>(sizes[next++ % sizes.size()]));
    }
    if (update(&ctx, reinterpret_cast<const unsigned char*>(message.data()) + done,
               static_cast<unsigned>(chunk)) != 0) {
      std::abort();
    }
    done += chunk;
  }
  std::vector<unsigned char> out(digest_size);
  if (final(&ctx, out.data()) != 0) std::abort();
  return std::string(out.begin(), out.end());
}

std::string OpenSsl(const EVP_MD* md, const std::string& message) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(message.data(), message.size(), out, &length, md, nullptr) != 1) {
    std::abort();
  }
  return std::string(reinterpret_cast<char*>(out), length);
}

template <typename Context, typename Init, typename Update, typename Final>
void Check(const std::string& message, const std::string& sizes,
           std::size_t digest_size, const EVP_MD* md, Init init, Update update,
           Final final) {
  const std::string whole = Digest<Context>(message, std::string(), digest_size,
                                            init, update, final);
  if (Digest<Context>(message, sizes, digest_size, init, update, final) != whole) {
    std::abort();
  }
  if (md != nullptr && OpenSsl(md, message) != whole) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  tessmar::fuzz::Input input(data, size);
  const std::string sizes = input.Bytes(input.Byte() % 8);
  const std::string message = input.Rest();
  Check<md5_state_structure>(message, sizes, 16, EVP_md5(), init_MD5,
                             update_MD5, final_MD5);
  Check<sha1_state_structure>(message, sizes, 20, nullptr, init_SHA1,
                              update_SHA1, final_SHA1);
  Check<sha256_state_structure>(message, sizes, 32, EVP_sha256(), init_SHA256,
                                update_SHA256, final_SHA256);
  Check<sha512_state_structure>(message, sizes, 64, nullptr, init_SHA512,
                                update_SHA512, final_SHA512);
  return 0;
}
