// The digests: fed in any chunking they equal one shot and OpenSSL. The
// first input byte says how many of the following bytes give chunk sizes.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "fuzz_input.h"
#include "openssl_oracle.h"
#include "tessmar/digest.h"

namespace {

// Feeds `message` in one piece, then in chunks whose sizes come from `sizes`
// (at least one byte each: zero-length updates are errors by design); both
// must give OpenSSL's digest.
template <typename Context, typename Update, typename Final>
void Check(const std::string& message, const std::string& sizes, const EVP_MD* md,
           int (*init)(Context*), Update update, Final final) {
  const std::string expected = tessmar::fuzz::OracleDigest(md, message);
  for (const std::string& s : {std::string(), sizes}) {
    Context ctx;
    if (init(&ctx) != 0) std::abort();
    for (std::size_t done = 0, next = 0, chunk; done < message.size(); done += chunk) {
      chunk = message.size() - done;
      if (!s.empty()) chunk = std::min<std::size_t>(chunk, 1 + static_cast<uint8_t>(s[next++ % s.size()]));
      const auto* data = reinterpret_cast<const unsigned char*>(message.data()) + done;
      if (update(&ctx, data, static_cast<unsigned>(chunk)) != 0) std::abort();
    }
    unsigned char out[64];
    if (final(&ctx, out) != 0 || expected != std::string(reinterpret_cast<char*>(out), expected.size())) {
      std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  tessmar::fuzz::Input input(data, size);
  const std::string sizes = input.Bytes(input.Byte() % 8);
  const std::string message = input.Rest();
  Check(message, sizes, EVP_md5(), init_MD5, update_MD5, final_MD5);
  Check(message, sizes, EVP_sha1(), init_SHA1, update_SHA1, final_SHA1);
  Check(message, sizes, EVP_sha256(), init_SHA256, update_SHA256, final_SHA256);
  Check(message, sizes, EVP_sha512(), init_SHA512, update_SHA512, final_SHA512);
  return 0;
}
