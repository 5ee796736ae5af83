// SHA-1 (FIPS 180-4) behind the init/update/final context interface.
#include <cstddef>
#include <cstring>
#include <utility>

#include "crypto/byte_order.h"
#include "crypto/digest_engine.h"
#include "crypto/digest_variant.h"
#include "tessmar/digest.h"

namespace {

using tessmar::crypto::load_be32;
using tessmar::crypto::rotl32;

constexpr uint32_t kBlockSize = 64;

constexpr uint32_t kInitial[5] = {0x67452301, 0xefcdab89, 0x98badcfe,
                                  0x10325476, 0xc3d2e1f0};
constexpr uint32_t kRoundConstant[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc,
                                        0xca62c1d6};

// Round T of the 80. The roles a..e rotate over the five words of v rather
// than being shuffled each round; the schedule lives in a 16-word ring.
// Inlining is forced because GCC otherwise leaves some of the instantiations
// as out-of-line calls.
template <unsigned T>
[[gnu::always_inline]] inline void Round(uint32_t (&v)[5], uint32_t (&w)[16]) {
  const uint32_t a = v[(5 - T % 5) % 5];
  uint32_t& b = v[(6 - T % 5) % 5];
  const uint32_t c = v[(7 - T % 5) % 5];
  const uint32_t d = v[(8 - T % 5) % 5];
  uint32_t& e = v[(9 - T % 5) % 5];
  if constexpr (T >= 16) {
    w[T % 16] = rotl32(
        w[(T - 3) % 16] ^ w[(T - 8) % 16] ^ w[(T - 14) % 16] ^ w[T % 16], 1);
  }
  uint32_t f;
  if constexpr (T < 20) {
    f = d ^ (b & (c ^ d));
  } else if constexpr (T < 40) {
    f = b ^ c ^ d;
  } else if constexpr (T < 60) {
    f = (b & c) | (d & (b | c));
  } else {
    f = b ^ c ^ d;
  }
  e += rotl32(a, 5) + f + kRoundConstant[T / 20] + w[T % 16];
  b = rotl32(b, 30);
}

template <unsigned... T>
[[gnu::always_inline]] inline void AllRounds(
    uint32_t (&v)[5], uint32_t (&w)[16],
    std::integer_sequence<unsigned, T...>) {
  (Round<T>(v, w), ...);
}

void Compress(uint32_t state[5], const unsigned char* block) {
  uint32_t w[16];
  for (unsigned i = 0; i < 16; ++i) w[i] = load_be32(block + 4 * i);
  uint32_t v[5] = {state[0], state[1], state[2], state[3], state[4]};
  AllRounds(v, w, std::make_integer_sequence<unsigned, 80>{});
  for (unsigned i = 0; i < 5; ++i) state[i] += v[i];
}

}  // namespace

namespace tessmar::crypto {

void Sha1BlocksPortable(uint32_t state[5], const unsigned char* data,
                  std::size_t blocks) {
  for (; blocks > 0; --blocks, data += kBlockSize) Compress(state, data);
}

}  // namespace tessmar::crypto

namespace {

struct Sha1 {
  using Context = sha1_state_structure;
  static constexpr uint32_t kBlockSize = ::kBlockSize, kLengthFieldSize = 8;
  static constexpr const uint32_t (&kInitial)[5] = ::kInitial;
  // Every block goes through the variant picked for this CPU.
  static void CompressBlocks(uint32_t state[5], const unsigned char* data,
                             std::size_t blocks) {
    tessmar::crypto::ActiveDigests().sha1_blocks(state, data, blocks);
  }
  static constexpr auto StoreBitCount = tessmar::crypto::store_be64;
  static constexpr auto StoreWord = tessmar::crypto::store_be32;
  static constexpr bool kChecksDigest = false, kIndexCheckedOnEntry = false;
  static constexpr int kArgs = SHA1_ERR_ARGS, kUpdateBlockIndex = SHA1_ERR_ARGS,
                       kZeroLength = SHA1_ERR_UPDATE_ZERO_LENGTH,
                       kInputCount = SHA1_ERR_UPDATE_INPUT_COUNT,
                       kFinalBlockIndex = SHA1_ERR_FINAL_BLOCK_INDEX;
};

}  // namespace

int init_SHA1(sha1_state_structure* ctx) {
  return tessmar::crypto::InitDigest<Sha1>(ctx);
}
int update_SHA1(sha1_state_structure* ctx, unsigned char const* data,
                unsigned int length) {
  return tessmar::crypto::UpdateDigest<Sha1>(ctx, data, length);
}
int final_SHA1(sha1_state_structure* ctx, unsigned char* digest) {
  return tessmar::crypto::FinalDigest<Sha1>(ctx, digest);
}
