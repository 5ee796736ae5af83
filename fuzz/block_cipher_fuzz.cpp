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

struct Setup {
  uint32_t algorithm;
  uint8_t mode, no_padding;
  int direction;
  const unsigned char *key, *iv;
};

// Runs init (after a first init with other material when `reinit`), the
// updates of the given sizes over `text`, and final, each with exactly the
// documented output room; false on an error.
bool Run(const Setup& s, const std::string& text, const std::vector<uint32_t>& sizes,
         std::string* out, bool reinit = false) {
  BLOCK_CIPHER_CTX* ctx = new_BLOCK_CIPHER_CTX();  // null: every call refuses it
  static const unsigned char other[32] = {1, 2, 3};
  if (reinit) init_BlockCipher(ctx, BC_ALG_AES256, BC_MODE_CBC, 0, other, other, 1);
  bool ok = init_BlockCipher(ctx, s.algorithm, s.mode, s.no_padding, s.key, s.iv, s.direction) == 0;
  for (std::size_t i = 0, done = 0; ok && i <= sizes.size(); ++i) {
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
  static constexpr uint8_t kModes[] = {BC_MODE_ECB, BC_MODE_CBC, BC_MODE_OFB,
                                       BC_MODE_CFB, BC_MODE_CFB_DIRECTIONAL, BC_MODE_CTR};
  static constexpr int kDirections[] = {0, 1, 1, 2, -1};
  tessmar::fuzz::Input input(data, size);
  Setup s{};
  const uint8_t a = input.Byte();
  s.algorithm = a < 0xf0 ? BC_ALG_AES128 + a % 3 : 0;  // else the next four bytes, big-endian
  for (int i = 0; a >= 0xf0 && i < 4; ++i) s.algorithm = s.algorithm << 8 | input.Byte();
  const uint8_t m = input.Byte();
  s.mode = m < 0xf0 ? kModes[m % 6] : m;
  s.no_padding = input.Byte() % 3;
  s.direction = kDirections[input.Byte() % 5];
  const uint8_t present = input.Byte();
  const std::string key = input.Bytes(32) + std::string(32, '\0');
  const std::string iv = input.Bytes(16) + std::string(16, '\0');
  if (present & 1) s.key = reinterpret_cast<const unsigned char*>(key.data());
  if (present & 2) s.iv = reinterpret_cast<const unsigned char*>(iv.data());
  std::vector<uint32_t> sizes(input.Byte() % 6);
  for (uint32_t& n : sizes) n = input.Byte() * ((present & 4) ? 16u : 1u);
  const std::string text = input.Rest();

  // Any sequence: no crash, no write beyond the room.
  std::string ignored;
  Run(s, text, sizes, &ignored, (present & 8) != 0);

  // A real encryption and its decryption.
  if (s.key == nullptr || (s.iv == nullptr && s.mode != BC_MODE_ECB) || s.mode > BC_MODE_CTR ||
      s.mode == BC_MODE_CFB_DIRECTIONAL || a >= 0xf0 || text.empty()) {
    return 0;
  }
  const bool padded = s.mode == BC_MODE_ECB || s.mode == BC_MODE_CBC;  // and fed in one update
  std::vector<uint32_t> chunks;
  for (std::size_t left = text.size(); left > 0; left -= chunks.back()) {
    chunks.push_back(static_cast<uint32_t>(padded ? left : std::min<std::size_t>(16 * (1 + chunks.size() % 3), left)));
  }
  s.direction = 1;
  s.no_padding = padded ? 0 : 1;
  std::string cipher, plain;
  if (!Run(s, text, chunks, &cipher) ||
      cipher != tessmar::fuzz::OracleEncrypt(s.algorithm, s.mode, s.key, s.iv, padded, text)) {
    std::abort();
  }
  s.direction = 0;
  if (padded) chunks = {static_cast<uint32_t>(cipher.size())};
  if (!Run(s, cipher, chunks, &plain) || plain != text) std::abort();
  return 0;
}
