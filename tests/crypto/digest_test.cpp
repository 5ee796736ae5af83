// MD5, SHA-1, SHA-256 and SHA-512: RFC 1321 and FIPS 180-4 vectors, status
// codes, context state.
#include "tessmar/digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "crypto/cpu_features.h"
#include "crypto/digest_variant.h"

namespace {

// CTest runs this program once per compression variant named in
// TESSMAR_TEST_DIGEST_VARIANT (the library itself reads no environment); a
// variant this CPU lacks skips the whole run.
class DigestVariantEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    using namespace tessmar::crypto;
    const char* name = std::getenv("TESSMAR_TEST_DIGEST_VARIANT");
    if (name == nullptr) return;
    const DigestVariant* variant = DigestVariantNamed(name);
    const Sha512Variant* sha512 = Sha512VariantNamed(name);
    if (variant == nullptr && sha512 == nullptr) GTEST_SKIP() << "this CPU has no " << name;
    LimitCpuFeaturesForTesting(variant != nullptr ? variant->needs : sha512->needs);
    ASSERT_TRUE(variant == nullptr || &ActiveDigests() == variant);
    ASSERT_TRUE(sha512 == nullptr || &ActiveSha512() == sha512);
  }
};
::testing::Environment* const kVariantEnvironment =
    ::testing::AddGlobalTestEnvironment(new DigestVariantEnvironment);

// RFC 1321 appendix A.5 for MD5 (those with a padding case of their own),
// the FIPS 180 examples for the SHA family; the last one is one million 'a'
// (for 64-byte blocks no byte pending at final, as for the empty message).
using Vectors = std::vector<std::pair<std::string, const char*>>;
const std::string kMillionA(1000000, 'a');
const std::string kTwoBlock448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";

// One algorithm's calls, sizes, vectors, digest byte order and the status
// codes that deliberately differ between the algorithms.
#define DIGEST_TRAITS(Name, CtxType, Suffix, Block, Size, LittleEndian, BadIndex, FinalBadIndex, ...) \
  struct Name {                                                                                 \
    static constexpr const char* kName = #Name;                                                 \
    using Ctx = CtxType;                                                                        \
    static constexpr size_t kBlock = Block, kDigest = Size;                                     \
    static constexpr auto Init = init_##Suffix;                                                 \
    static constexpr auto Update = update_##Suffix;                                             \
    static constexpr auto Final = final_##Suffix;                                               \
    static const Vectors& Published() {                                                         \
      static const Vectors v = {__VA_ARGS__};                                                   \
      return v;                                                                                 \
    }                                                                                           \
    static constexpr bool kLittleEndian = LittleEndian;                                         \
    static constexpr int kUpdateBadIndex = BadIndex, kFinalBadIndex = FinalBadIndex,            \
                         kZeroLength = Suffix##_ERR_UPDATE_ZERO_LENGTH,                         \
                         kUpdateBadCount = Suffix##_ERR_UPDATE_INPUT_COUNT;                     \
  };

DIGEST_TRAITS(Md5, md5_state_structure, MD5, 64, MD5_DIGEST_SIZE, true, MD5_ERR_UPDATE_BLOCK_INDEX,
              MD5_ERR_FINAL_BLOCK_INDEX,
              {"abc", "900150983cd24fb0d6963f7d28e17f72"},
              {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
               "d174ab98d277d9f5a5611c2c9f419d9f"},
              {kMillionA, "7707d6ae4e027c70eea2a935c2296f21"})
DIGEST_TRAITS(Sha1, sha1_state_structure, SHA1, 64, SHA1_DIGEST_SIZE, false, SHA1_ERR_ARGS,
              SHA1_ERR_FINAL_BLOCK_INDEX,
              {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
              {kTwoBlock448, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
              {kMillionA, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"})
DIGEST_TRAITS(Sha256, sha256_state_structure, SHA256, 64, SHA256_DIGEST_SIZE, false,
              SHA256_ERR_UPDATE_BLOCK_INDEX, SHA256_ERR_ARGS,
              {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
              {kTwoBlock448, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
              {kMillionA, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"})
DIGEST_TRAITS(Sha512, sha512_state_structure, SHA512, 128, SHA512_DIGEST_SIZE, false,
              SHA512_ERR_ARGS, SHA512_ERR_ARGS,
              {"abc", "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                      "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
              {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
               "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu",
               "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
               "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909"},
              {kMillionA, "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
                          "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b"})

std::string ToHex(const unsigned char* p, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += "0123456789abcdef"[p[i] >> 4];
    out += "0123456789abcdef"[p[i] & 15];
  }
  return out;
}

// Initialised over a known fill, so padding bytes compare equal in copies.
template <typename A>
typename A::Ctx FreshContext() {
  typename A::Ctx ctx;
  std::memset(&ctx, 0xa5, sizeof ctx);
  EXPECT_EQ(A::Init(&ctx), 0);
  return ctx;
}

// One call per step; the digest as hex.
template <typename A>
std::string Hash(const std::string& msg) {
  typename A::Ctx ctx = FreshContext<A>();
  if (!msg.empty()) {
    EXPECT_EQ(A::Update(&ctx, reinterpret_cast<const unsigned char*>(msg.data()),
                        static_cast<unsigned>(msg.size())), 0);
  }
  unsigned char out[A::kDigest];
  EXPECT_EQ(A::Final(&ctx, out), 0);
  return ToHex(out, A::kDigest);
}

template <typename A>
class DigestTest : public ::testing::Test {};
struct Names {
  template <typename A>
  static std::string GetName(int) { return A::kName; }
};
using Algorithms = ::testing::Types<Md5, Sha1, Sha256, Sha512>;
TYPED_TEST_SUITE(DigestTest, Algorithms, Names);

// Updates in other pieces are compared with one call in
// ContextStateAcrossInitUpdateAndFinal, and with OpenSSL in any pieces by
// the digest fuzz target.
TYPED_TEST(DigestTest, PublishedVectors) {
  using A = TypeParam;
  for (const auto& [msg, hex] : A::Published()) {
    EXPECT_EQ(Hash<A>(msg), hex) << "message \"" << msg.substr(0, 80) << "\"";
  }
}

TYPED_TEST(DigestTest, StatusCodes) {
  using A = TypeParam;
  using Ctx = typename A::Ctx;
  constexpr uint32_t B = A::kBlock;
  const unsigned char data[3] = {1, 2, 3};
  unsigned char out[A::kDigest];
  Ctx good = FreshContext<A>();
  ASSERT_EQ(A::Update(&good, data, 3), 0);
  EXPECT_EQ(A::Init(nullptr), 1);
  EXPECT_EQ(A::Final(nullptr, out), 1);
  if constexpr (std::is_same_v<A, Md5>) {  // only MD5's final checks its output
    EXPECT_EQ(A::Final(&good, nullptr), 1);
  }

  // Update rejects before touching the context; counts of exactly B are
  // accepted (the full input buffer is compressed before the byte is taken).
  // Final with an index just past the context and bytes pending: a stray copy
  // would land right behind the object, where the sanitizer build sees it.
  const auto past_end = static_cast<uint32_t>(sizeof(Ctx) - offsetof(Ctx, block));
  const struct {
    bool final;
    const unsigned char* data;
    unsigned length;
    uint32_t index, count;
    int code;
  } cases[] = {{false, nullptr, 1, 0, 3, 1},
               {false, data, 0, 0, 3, A::kZeroLength},
               {false, data, 1, B + 1, 3, A::kUpdateBadIndex},
               {false, data, 1, 0, B + 1, A::kUpdateBadCount},
               {false, data, 1, B, B, 0},
               {true, data, 0, B, 0, A::kFinalBadIndex},
               {true, data, 0, past_end, 5, A::kFinalBadIndex},
               {true, data, 0, B - 1, 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.final ? "final" : "update") << " length " << c.length
                                    << " index " << c.index << " count " << c.count);
    Ctx ctx = c.final ? FreshContext<A>() : good;
    ctx.block_index = c.index;
    ctx.input_count = static_cast<uint8_t>(c.count);
    const Ctx before = ctx;
    EXPECT_EQ(c.final ? A::Final(&ctx, out) : A::Update(&ctx, c.data, c.length), c.code);
    if (c.final) continue;
    EXPECT_EQ(std::memcmp(&ctx, &before, sizeof ctx) == 0, c.code != 0);  // untouched exactly when rejected
    if (c.code == 0) {
      EXPECT_EQ(ctx.input_count, 1);
      EXPECT_EQ(ctx.bit_count, good.bit_count + B * 8);
      EXPECT_EQ(ctx.block_index, B);
    }
  }
}

// Init leaves nothing of what the context held. An update keeps in the input
// buffer the last block it compressed with the waiting bytes over its start,
// as if every byte had passed through the buffer. Final wipes the buffered
// bytes but keeps the chaining state (which then encodes the digest), the
// message bit count and the block index.
TYPED_TEST(DigestTest, ContextStateAcrossInitUpdateAndFinal) {
  using A = TypeParam;
  constexpr size_t B = A::kBlock;
  const unsigned char zeros[128] = {};
  // In one call, 2B + 5 is a pair of distinct blocks and 5B + 5 two pairs
  // and a lone block for the paired SHA-512 code; in pieces, one block and
  // then one or four.
  for (size_t len : {size_t{0}, B, B + 7, 2 * B - 4, 2 * B + 5, 5 * B + 5}) {
    SCOPED_TRACE("length " + std::to_string(len));
    typename A::Ctx ctx = FreshContext<A>();  // the counters: PublishedVectors
    EXPECT_EQ(std::memcmp(ctx.input, zeros, B), 0);
    EXPECT_EQ(std::memcmp(ctx.block, zeros, B), 0);
    std::string msg(len, '\0');
    for (size_t i = 0; i < len; ++i) msg[i] = static_cast<char>(i);
    // Five bytes first, so that the second update completes the input buffer.
    const auto* bytes = reinterpret_cast<const unsigned char*>(msg.data());
    for (size_t at = 0, n = std::min<size_t>(len, 5); at < len; at += n, n = len - at) {
      ASSERT_EQ(A::Update(&ctx, bytes + at, static_cast<unsigned>(n)), 0);
    }
    if (len >= B) {
      std::string expected = msg.substr((len / B - 1) * B, B);
      expected.replace(0, len % B, msg.substr(len / B * B));
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(ctx.input), B), expected);
      EXPECT_EQ(ctx.input_count, len % B);
    }
    unsigned char out[A::kDigest];
    ASSERT_EQ(A::Final(&ctx, out), 0);
    EXPECT_EQ(ToHex(out, A::kDigest), Hash<A>(msg));
    EXPECT_EQ(ctx.input_count, 0);
    EXPECT_EQ(std::memcmp(ctx.input, zeros, B), 0);
    EXPECT_EQ(std::memcmp(ctx.block, zeros, B), 0);
    EXPECT_EQ(ctx.bit_count, uint64_t{len} * 8);
    EXPECT_EQ(ctx.block_index, len % B);
    const auto first = ctx.state[0];  // the digest's first word, in its byte order
    EXPECT_EQ(out[0], static_cast<unsigned char>(A::kLittleEndian ? first : first >> (8 * sizeof first - 8)));
  }
}

}  // namespace
