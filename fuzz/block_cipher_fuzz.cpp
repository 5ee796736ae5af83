// Block-cipher call sequences: any algorithm, mode, padding flag and
// direction, key and IV present or not, updates of any length, then final.
// Where the sequence is a real encryption (padded ECB/CBC in one update,
// stream modes in whole blocks but the last), it equals OpenSSL's, and
// decrypting it gives the plaintext back.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "openssl_oracle.h"
#include "tessmar/block_cipher.h"

namespace {

constexpr uint32_t kAlgorithms[] = {BC_ALG_AES128, BC_ALG_AES192,
                                    BC_ALG_AES256};
constexpr uint8_t kModes[] = {BC_MODE_ECB, BC_MODE_CBC, BC_MODE_OFB,
                              BC_MODE_CFB, BC_MODE_CFB_DIRECTIONAL, BC_MODE_CTR};

struct Setup {
  uint32_t algorithm;
  uint8_t mode;
  uint8_t no_padding;
  int direction;
  const unsigned char* key;
  const unsigned char* iv;
};

// Runs init (after a first init with other material when `reinit`), the
// updates of the given sizes over `text`, and final, each with exactly the
// documented output room; false on an error.
bool Run(const Setup& s, const std::string& text, const std::vector<uint32_t>& sizes,
         std::string* out, bool reinit = false) {
  BLOCK_CIPHER_CTX* ctx = new_BLOCK_CIPHER_CTX();
  if (ctx == nullptr) std::abort();
  if (reinit) {
    static const unsigned char other[32] = {1, 2, 3};
    init_BlockCipher(ctx, BC_ALG_AES256, BC_MODE_CBC, 0, other, other, 1);
  }
  bool ok = init_BlockCipher(ctx, s.algorithm, s.mode, s.no_padding, s.key, s.iv, s.direction) == 0;
  std::size_t done = 0;
  for (std::size_t i = 0; ok && i <= sizes.size(); ++i) {
    const bool last = i == sizes.size();
    const uint32_t n = last ? 0 : static_cast<uint32_t>(std::min<std::size_t>(sizes[i], text.size() - done));
    // A vector of its own, so that AddressSanitizer sees a byte past it.
    std::vector<unsigned char> room(last ? 32 : n + 16);
    uint32_t produced = 0;
    const auto* in = reinterpret_cast<const unsigned char*>(text.data()) + done;
    ok = (last ? final_BlockCipher(ctx, room.data(), &produced)
               : update_BlockCipher(ctx, in, n, room.data(), &produced)) == 0;
    if (produced > room.size()) std::abort();
    if (ok) out->append(reinterpret_cast<char*>(room.data()), produced);
    done += n;
  }
  free_BLOCK_CIPHER_CTX(ctx);
  return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  tessmar::fuzz::Input input(data, size);
  Setup s;
  const uint8_t a = input.Byte();
  s.algorithm = a < 0xf0 ? kAlgorithms[a % 3] : input.Word();
  const uint8_t m = input.Byte();
  s.mode = m < 0xf0 ? kModes[m % 6] : m;
  s.no_padding = input.Byte() % 3;
  static constexpr int kDirections[] = {0, 1, 1, 2, -1};
  s.direction = kDirections[input.Byte() % 5];
  const uint8_t present = input.Byte();
  const std::string key = input.Bytes(32) + std::string(32, '\0');
  const std::string iv = input.Bytes(16) + std::string(16, '\0');
  s.key = present & 1 ? reinterpret_cast<const unsigned char*>(key.data()) : nullptr;
  s.iv = present & 2 ? reinterpret_cast<const unsigned char*>(iv.data()) : nullptr;
  std::vector<uint32_t> sizes(input.Byte() % 6);
  for (uint32_t& n : sizes) n = input.Byte() * ((present & 4) ? 16u : 1u);
  const std::string text = input.Rest();

  // Any sequence: no crash, no write beyond the room.
  std::string ignored;
  Run(s, text, sizes, &ignored, (present & 8) != 0);

  // A real encryption and its decryption.
  if (s.key == nullptr || (s.iv == nullptr && s.mode != BC_MODE_ECB) ||
      s.mode > BC_MODE_CTR ||
      s.mode == BC_MODE_CFB_DIRECTIONAL || a >= 0xf0 || text.empty()) {
    return 0;
  }
  s.direction = 1;
  std::vector<uint32_t> chunks;
  if (s.mode == BC_MODE_ECB || s.mode == BC_MODE_CBC) {
    s.no_padding = 0;  // padded, and fed in one update
    chunks = {static_cast<uint32_t>(text.size())};
  } else {
    for (std::size_t left = text.size(); left > 0;) {
      const uint32_t n = left > 16 ? 16u * (1 + chunks.size() % 3) : left;
      chunks.push_back(static_cast<uint32_t>(std::min<std::size_t>(n, left)));
      left -= chunks.back();
    }
  }
  std::string cipher, plain;
  if (!Run(s, text, chunks, &cipher) ||
      cipher != tessmar::fuzz::OracleEncrypt(s.algorithm, s.mode, s.key, s.iv,
                                             s.no_padding == 0, text)) {
    std::abort();
  }
  s.direction = 0;
  std::vector<uint32_t> back = chunks;
  if (s.mode == BC_MODE_ECB || s.mode == BC_MODE_CBC) {
    back = {static_cast<uint32_t>(cipher.size())};
  }
  if (!Run(s, cipher, back, &plain) || plain != text) std::abort();
  return 0;
}
