// Base64: decoding any text (characters outside the alphabet corrupt the
// bytes but are not errors), and encoding any bytes, in one line (as OpenSSL
// does) or broken every 64 characters, then decoding them back to the same
// bytes.
#include <cstdlib>
#include <cstring>
#include <string>

#include "openssl_oracle.h"
#include "tessmar/base64.h"
#include "tessmar/signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size > (1u << 20)) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  unsigned char* decoded = nullptr;
  const int d = decode_Base64(text, static_cast<int32_t>(size), &decoded);
  // Three bytes at most per four symbols, and the extra 0 after them.
  if (d < 0 || static_cast<std::size_t>(d) > size / 4 * 3) std::abort();
  if (d > 0 && (decoded == nullptr || decoded[d] != 0)) std::abort();
  std::free(decoded);
  MakeBase64Decode(std::string(text, size));

  for (int line_breaks : {0, 1, 2}) {
    char* encoded = nullptr;
    const int n = encode_Base64(data, static_cast<uint32_t>(size), &encoded,
                                line_breaks);
    if (size > 0) {
      if (n <= 0 || encoded == nullptr || encoded[n] != '\0') std::abort();
      // Line feeds after every 64 symbols but the last, only when asked.
      for (int i = 0; i < n; ++i) {
        const bool feed = line_breaks == 1 && i % 65 == 64;
        if ((encoded[i] == '\n') != feed || (feed && i == n - 1)) std::abort();
      }
      unsigned char* back = nullptr;
      const int m = decode_Base64(encoded, n, &back);
      if (m != static_cast<int>(size) || std::memcmp(back, data, size) != 0) {
        std::abort();
      }
      std::free(back);
      if (line_breaks != 1 &&
          (MakeBase64Encode(std::string(text, size)) != std::string(encoded, n) ||
           tessmar::fuzz::OracleBase64(data, size) != std::string(encoded, n))) {
        std::abort();
      }
    }
    std::free(encoded);
  }
  return 0;
}
