// Base64 of byte strings, over the library's codec.
#include <cstdlib>
#include <string>

#include "tessmar/base64.h"
#include "tessmar/signature.h"

std::string MakeBase64Encode(std::string data) {
  char* text = nullptr;
  const int n = encode_Base64(reinterpret_cast<const unsigned char*>(data.data()),
                              static_cast<uint32_t>(data.size()), &text, 0);
  std::string result = n > 0 ? std::string(text) : std::string();
  std::free(text);
  return result;
}

std::string MakeBase64Decode(std::string text) {
  unsigned char* bytes = nullptr;
  const int n = decode_Base64(text.data(), static_cast<int32_t>(text.size()),
                              &bytes);
  std::string result =
      n > 0 ? std::string(reinterpret_cast<const char*>(bytes), n)
            : std::string();
  // A walk failure leaves the pointer as it was (null here); free(null) is
  // harmless, and every other outcome hands over an allocation or null.
  std::free(bytes);
  return result;
}
