// MD5 (RFC 1321) behind the init/update/final context interface.
#include <cstddef>
#include <cstring>
#include <utility>

#include "crypto/byte_order.h"
#include "crypto/digest_engine.h"
#include "tessmar/digest.h"

namespace {

using tessmar::crypto::load_le32;
using tessmar::crypto::rotl32;

// T[i] = floor(2^32 * |sin(i + 1)|).
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a,
    0xa8304613, 0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be,
    0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340,
    0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8,
    0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c,
    0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
    0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92,
    0xffeff47d, 0x85845dd1, 0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
    0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts, four per round, repeated across the round's steps.
constexpr unsigned kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

constexpr unsigned MessageIndex(unsigned i) {
  switch (i / 16) {
    case 0:
      return i;
    case 1:
      return (5 * i + 1) % 16;
    case 2:
      return (3 * i + 5) % 16;
    default:
      return (7 * i) % 16;
  }
}

// Step I of the 64. Instead of shuffling a, b, c, d after every step, the
// roles rotate over the four words of v, so the fully expanded sequence
// keeps everything in registers.
// b is the word the previous step produced, so everything that does not
// need it (a, the message word, the constant, and the parts of the round
// function made of c and d alone) is summed first and b comes in last. The
// second round's function is taken as the sum (c & ~d) + (b & d) of two
// terms without common bits, so only one AND waits for b. The empty asm
// statements keep the compiler from regrouping the sums.
// Inlining is forced because GCC otherwise leaves some of the instantiations
// as out-of-line calls.
template <unsigned I>
[[gnu::always_inline]] inline void Step(uint32_t (&v)[4],
                                        const uint32_t (&x)[16]) {
  uint32_t& a = v[(4 - I % 4) % 4];
  const uint32_t b = v[(5 - I % 4) % 4];
  const uint32_t c = v[(6 - I % 4) % 4];
  const uint32_t d = v[(7 - I % 4) % 4];
  uint32_t sum = a + x[MessageIndex(I)] + kSine[I];
  if constexpr (I < 16) {
    uint32_t c_xor_d = c ^ d;
    asm("" : "+r"(sum), "+r"(c_xor_d));
    sum += d ^ (b & c_xor_d);
  } else if constexpr (I < 32) {
    sum += c & ~d;
    asm("" : "+r"(sum));
    sum += b & d;
  } else if constexpr (I < 48) {
    uint32_t c_xor_d = c ^ d;
    asm("" : "+r"(sum), "+r"(c_xor_d));
    sum += b ^ c_xor_d;
  } else {
    uint32_t not_d = ~d;
    asm("" : "+r"(sum), "+r"(not_d));
    sum += c ^ (b | not_d);
  }
  a = b + rotl32(sum, kShift[I / 16][I % 4]);
}

template <unsigned... I>
[[gnu::always_inline]] inline void AllSteps(
    uint32_t (&v)[4], const uint32_t (&x)[16],
    std::integer_sequence<unsigned, I...>) {
  (Step<I>(v, x), ...);
}

void Compress(uint32_t state[4], const unsigned char* block) {
  uint32_t x[16];
  for (unsigned i = 0; i < 16; ++i) x[i] = load_le32(block + 4 * i);
  uint32_t v[4] = {state[0], state[1], state[2], state[3]};
  AllSteps(v, x, std::make_integer_sequence<unsigned, 64>{});
  for (unsigned i = 0; i < 4; ++i) state[i] += v[i];
}

struct Md5 {
  using Context = md5_state_structure;
  static constexpr uint32_t kBlockSize = 64, kLengthFieldSize = 8;
  static constexpr uint32_t kInitial[4] = {0x67452301, 0xefcdab89, 0x98badcfe,
                                           0x10325476};
  static void CompressBlocks(uint32_t state[4], const unsigned char* data,
                             std::size_t blocks) {
    for (; blocks > 0; --blocks, data += kBlockSize) Compress(state, data);
  }
  static constexpr auto StoreBitCount = tessmar::crypto::store_le64;
  static constexpr auto StoreWord = tessmar::crypto::store_le32;
  static constexpr bool kChecksDigest = true, kIndexCheckedOnEntry = false;
  static constexpr int kArgs = MD5_ERR_NULL,
                       kUpdateBlockIndex = MD5_ERR_UPDATE_BLOCK_INDEX,
                       kZeroLength = MD5_ERR_UPDATE_ZERO_LENGTH,
                       kInputCount = MD5_ERR_UPDATE_INPUT_COUNT,
                       kFinalBlockIndex = MD5_ERR_FINAL_BLOCK_INDEX;
};

}  // namespace

extern "C" {

int init_MD5(md5_state_structure* ctx) {
  return tessmar::crypto::InitDigest<Md5>(ctx);
}
int update_MD5(md5_state_structure* ctx, const unsigned char* data,
               unsigned int length) {
  return tessmar::crypto::UpdateDigest<Md5>(ctx, data, length);
}
int final_MD5(md5_state_structure* ctx, unsigned char* digest) {
  return tessmar::crypto::FinalDigest<Md5>(ctx, digest);
}

}  // extern "C"
