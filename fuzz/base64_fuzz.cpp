// Base64: decoding any text, and encoding any bytes (with and without line
// breaks) and decoding them back to the same bytes.
#include <cstdlib>
#include <cstring>
#include <string>

#include "tessmar/base64.h"
#include "tessmar/signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size > (1u << 20)) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  unsigned char* decoded = nullptr;
  decode_Base64(text, static_cast<int32_t>(size), &decoded);
  std::free(decoded);
  MakeBase64Decode(std::string(text, size));

  for (int line_breaks : {0, 1}) {
    char* encoded = nullptr;
    const int n = encode_Base64(data, static_cast<uint32_t>(size), &encoded,
                                line_breaks);
    if (size > 0) {
      if (n <= 0 || encoded == nullptr) std::abort();
      unsigned char* back = nullptr;
      const int m = decode_Base64(encoded, n, &back);
      if (m != static_cast<int>(size) || std::memcmp(back, data, size) != 0) {
        std::abort();
      }
      std::free(back);
    }
    std::free(encoded);
  }
  return 0;
}
