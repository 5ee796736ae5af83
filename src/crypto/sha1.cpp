// SHA-1 (FIPS 180-4) behind the init/update/final context interface.
#include <cstring>
#include <utility>

#include "crypto/byte_order.h"
#include "tessmar/digest.h"

namespace {

using tessmar::crypto::load_be32;
using tessmar::crypto::rotl32;
using tessmar::crypto::store_be32;
using tessmar::crypto::store_be64;

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

// SHA-1 numbers its status codes differently from MD5 and SHA-256 on
// purpose; the values are part of the interface. Compression cannot fail, so
// codes 4 (update) and 2, 4, 5 (final) are never produced.

int init_SHA1(sha1_state_structure* ctx) {
  if (ctx == nullptr) return 1;
  ctx->bit_count = 0;
  ctx->block_index = 0;
  std::memcpy(ctx->state, kInitial, sizeof ctx->state);
  std::memset(ctx->block, 0, sizeof ctx->block);
  std::memset(ctx->input, 0, sizeof ctx->input);
  ctx->input_count = 0;
  return 0;
}

int update_SHA1(sha1_state_structure* ctx, unsigned char const* data,
                unsigned int length) {
  if (ctx == nullptr || data == nullptr) return 1;
  if (ctx->block_index > kBlockSize) return 1;
  // Zero length is rejected on purpose and leaves the context untouched.
  if (length == 0) return 2;
  // With the input count validated the first chunk is at most the free room,
  // so the other chunk-size conditions of code 3 cannot arise.
  if (ctx->input_count > kBlockSize) return 3;
  const uint32_t room = kBlockSize - ctx->input_count;
  uint32_t chunk = length < room ? length : room;
  for (;;) {
    std::memcpy(ctx->input + ctx->input_count, data, chunk);
    ctx->input_count = static_cast<uint8_t>(ctx->input_count + chunk);
    data += chunk;
    length -= chunk;
    if (ctx->input_count == kBlockSize) {
      Compress(ctx->state, ctx->input);
      ctx->bit_count += kBlockSize * 8;
      ctx->input_count = 0;
    }
    if (length == 0) return 0;
    chunk = length < kBlockSize ? length : kBlockSize;
  }
}

// The output pointer is deliberately not tested (unlike final_MD5).
int final_SHA1(sha1_state_structure* ctx, unsigned char* digest) {
  if (ctx == nullptr) return 1;
  if (ctx->input_count > 0) {
    // An index beyond the block (corrupt context) leaves no room; the check
    // below then rejects it without touching memory outside the buffer.
    const uint32_t room =
        ctx->block_index < kBlockSize ? kBlockSize - ctx->block_index : 0;
    const uint32_t n = ctx->input_count < room ? ctx->input_count : room;
    if (n > 0) {
      std::memcpy(ctx->block + ctx->block_index, ctx->input, n);
      ctx->block_index += n;
    }
    // Only reachable from a corrupt context: a proper one enters with index 0
    // and fewer than 64 pending bytes.
    if (ctx->block_index == kBlockSize) {
      Compress(ctx->state, ctx->block);
      ctx->bit_count += kBlockSize * 8;
      ctx->block_index = 0;
    }
  }
  if (ctx->block_index > kBlockSize - 1) return 3;

  const uint32_t index = ctx->block_index;
  ctx->bit_count += uint64_t{index} * 8;
  ctx->block[index] = 0x80;
  if (index >= 56) {
    std::memset(ctx->block + index + 1, 0, kBlockSize - index - 1);
    Compress(ctx->state, ctx->block);
    std::memset(ctx->block, 0, 56);
  } else {
    std::memset(ctx->block + index + 1, 0, 56 - index - 1);
  }
  store_be64(ctx->block + 56, ctx->bit_count);
  Compress(ctx->state, ctx->block);

  for (unsigned i = 0; i < 5; ++i) store_be32(digest + 4 * i, ctx->state[i]);

  // The chaining state, bit count and block index are intentionally kept;
  // only the buffered message bytes are wiped.
  ctx->input_count = 0;
  std::memset(ctx->input, 0, sizeof ctx->input);
  std::memset(ctx->block, 0, sizeof ctx->block);
  return 0;
}
