// MD5, SHA-1, SHA-256 and SHA-512: published vectors, chunking properties,
// OpenSSL as a differential oracle, status codes and the state after final.
#include "tessmar/digest.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

struct KnownAnswer {
  const char* message;
  const char* hex;
};

// RFC 1321, appendix A.5 test suite.
const std::vector<KnownAnswer> kMd5Vectors = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"1234567890123456789012345678901234567890"
     "1234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

// NIST FIPS 180 example messages: the empty message, "abc" and the
// two-block message.
constexpr const char* kTwoBlock448 =
    "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
constexpr const char* kTwoBlock896 =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
    "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";

const std::vector<KnownAnswer> kSha1Vectors = {
    {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {kTwoBlock448, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
};

const std::vector<KnownAnswer> kSha256Vectors = {
    {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {kTwoBlock448,
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
};

const std::vector<KnownAnswer> kSha512Vectors = {
    {"",
     "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
     "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e"},
    {"abc",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
    {kTwoBlock896,
     "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
     "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909"},
};

// The three calls and sizes of one digest, for the per-algorithm traits.
template <typename C, int (*InitFn)(C*),
          int (*UpdateFn)(C*, const unsigned char*, unsigned),
          int (*FinalFn)(C*, unsigned char*), size_t Block, size_t Digest>
struct Calls {
  using Ctx = C;
  static constexpr size_t kBlock = Block, kDigest = Digest;
  static int Init(Ctx* c) { return InitFn(c); }
  static int Update(Ctx* c, const unsigned char* d, unsigned n) {
    return UpdateFn(c, d, n);
  }
  static int Final(Ctx* c, unsigned char* out) { return FinalFn(c, out); }
};

// Per-algorithm traits: the oracle, the vectors (the million-'a' digests are
// the NIST FIPS 180 examples and, for MD5, the widely published value), the
// digest byte order and the status codes that deliberately differ.
struct Md5 : Calls<md5_state_structure, init_MD5, update_MD5, final_MD5, 64,
                   MD5_DIGEST_SIZE> {
  static const EVP_MD* Oracle() { return EVP_md5(); }
  static const std::vector<KnownAnswer>& Vectors() { return kMd5Vectors; }
  static constexpr const char* kMillionA = "7707d6ae4e027c70eea2a935c2296f21";
  static constexpr bool kLittleEndian = true;
  static constexpr int kUpdateBadIndex = 2, kZeroLength = 3,
                       kUpdateBadCount = 5, kFinalBadIndex = 3;
};

struct Sha1 : Calls<sha1_state_structure, init_SHA1, update_SHA1, final_SHA1,
                    64, SHA1_DIGEST_SIZE> {
  static const EVP_MD* Oracle() { return EVP_sha1(); }
  static const std::vector<KnownAnswer>& Vectors() { return kSha1Vectors; }
  static constexpr const char* kMillionA =
      "34aa973cd4c4daa4f61eeb2bdbad27316534016f";
  static constexpr bool kLittleEndian = false;
  static constexpr int kUpdateBadIndex = 1, kZeroLength = 2,
                       kUpdateBadCount = 3, kFinalBadIndex = 3;
};

struct Sha256 : Calls<sha256_state_structure, init_SHA256, update_SHA256,
                      final_SHA256, 64, SHA256_DIGEST_SIZE> {
  static const EVP_MD* Oracle() { return EVP_sha256(); }
  static const std::vector<KnownAnswer>& Vectors() { return kSha256Vectors; }
  static constexpr const char* kMillionA =
      "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
  static constexpr bool kLittleEndian = false;
  static constexpr int kUpdateBadIndex = 2, kZeroLength = 3,
                       kUpdateBadCount = 4, kFinalBadIndex = 1;
};

struct Sha512 : Calls<sha512_state_structure, init_SHA512, update_SHA512,
                      final_SHA512, 128, SHA512_DIGEST_SIZE> {
  static const EVP_MD* Oracle() { return EVP_sha512(); }
  static const std::vector<KnownAnswer>& Vectors() { return kSha512Vectors; }
  static constexpr const char* kMillionA =
      "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
      "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b";
  static constexpr bool kLittleEndian = false;
  static constexpr int kUpdateBadIndex = 1, kZeroLength = 2,
                       kUpdateBadCount = 3, kFinalBadIndex = 1;
};

std::string ToHex(const unsigned char* p, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[p[i] >> 4];
    out += kDigits[p[i] & 15];
  }
  return out;
}

// Hashes msg fed in pieces of the given sizes, which add up to its length;
// zero sizes are skipped, as a caller must.
template <typename A>
std::string HashPieces(const std::string& msg,
                       const std::vector<size_t>& sizes) {
  typename A::Ctx ctx;
  EXPECT_EQ(A::Init(&ctx), 0);
  const auto* data = reinterpret_cast<const unsigned char*>(msg.data());
  for (size_t n : sizes) {
    if (n == 0) continue;
    EXPECT_EQ(A::Update(&ctx, data, static_cast<unsigned>(n)), 0);
    data += n;
  }
  unsigned char out[A::kDigest];
  EXPECT_EQ(A::Final(&ctx, out), 0);
  return ToHex(out, A::kDigest);
}

template <typename A>
std::string OracleHex(const std::string& msg) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  EXPECT_EQ(EVP_Digest(msg.data(), msg.size(), out, &n, A::Oracle(), nullptr),
            1);
  return ToHex(out, n);
}

// Initialised over a known fill, so padding bytes compare equal in copies.
template <typename A>
typename A::Ctx FreshContext() {
  typename A::Ctx ctx;
  std::memset(&ctx, 0xa5, sizeof ctx);
  EXPECT_EQ(A::Init(&ctx), 0);
  return ctx;
}

template <typename A>
class DigestTest : public ::testing::Test {};

using Algorithms = ::testing::Types<Md5, Sha1, Sha256, Sha512>;
struct AlgorithmNames {
  template <typename A>
  static std::string GetName(int) {
    if (std::is_same_v<A, Md5>) return "MD5";
    if (std::is_same_v<A, Sha1>) return "SHA1";
    return std::is_same_v<A, Sha256> ? "SHA256" : "SHA512";
  }
};
TYPED_TEST_SUITE(DigestTest, Algorithms, AlgorithmNames);

TYPED_TEST(DigestTest, PublishedVectors) {
  using A = TypeParam;
  for (const KnownAnswer& v : A::Vectors()) {
    const std::string msg = v.message;
    SCOPED_TRACE("message \"" + msg + "\"");
    EXPECT_EQ(HashPieces<A>(msg, {msg.size()}), v.hex);
    EXPECT_EQ(HashPieces<A>(msg, std::vector<size_t>(msg.size(), 1)), v.hex);
    for (size_t cut = 0; cut <= msg.size(); ++cut) {
      SCOPED_TRACE("split at " + std::to_string(cut));
      EXPECT_EQ(HashPieces<A>(msg, {cut, msg.size() - cut}), v.hex);
    }
  }
  SCOPED_TRACE("one million 'a'");
  const std::string million(1000000, 'a');
  EXPECT_EQ(HashPieces<A>(million, {million.size()}), A::kMillionA);
  // An odd piece size puts block boundaries at every phase of a piece.
  std::vector<size_t> pieces(million.size() / 997 + 1, 997);
  pieces.back() = million.size() % 997;
  EXPECT_EQ(HashPieces<A>(million, pieces), A::kMillionA);
}

// Padding-boundary lengths (where the length field stops fitting into the
// last block, and whole blocks), then random lengths up to four blocks and
// two large messages, each fed whole and in random pieces.
TYPED_TEST(DigestTest, MatchesOpenSslOnAnyLengthAndChunking) {
  using A = TypeParam;
  constexpr size_t B = A::kBlock;
  std::mt19937 rng(20240611);
  std::vector<size_t> lengths = {B - 9,     B - 8,     B - 1, B,     B + 1,
                                 2 * B - 9, 2 * B - 8, 2 * B, 65537, 300000};
  for (int i = 0; i < 1000; ++i) lengths.push_back(rng() % (4 * B + 1));
  for (size_t len : lengths) {
    SCOPED_TRACE("length " + std::to_string(len));
    std::string msg(len, '\0');
    for (char& c : msg) c = static_cast<char>(rng());
    std::vector<size_t> pieces;
    for (size_t left = len; left > 0; left -= pieces.back()) {
      // Mostly sub-block pieces, sometimes several blocks at once.
      const size_t cap = rng() % 4 == 0 ? 5 * B : B + 1;
      pieces.push_back(std::min<size_t>(left, 1 + rng() % cap));
    }
    const std::string expected = OracleHex<A>(msg);
    EXPECT_EQ(HashPieces<A>(msg, {len}), expected);
    EXPECT_EQ(HashPieces<A>(msg, pieces), expected);
  }
}

// Every rejection happens before the context is touched.
TYPED_TEST(DigestTest, UpdateStatusCodes) {
  using A = TypeParam;
  using Ctx = typename A::Ctx;
  constexpr uint32_t B = A::kBlock;
  const unsigned char data[3] = {1, 2, 3};
  Ctx good = FreshContext<A>();
  ASSERT_EQ(A::Update(&good, data, 3), 0);
  EXPECT_EQ(A::Init(nullptr), 1);
  EXPECT_EQ(A::Update(nullptr, data, 1), 1);

  struct Case {
    const char* what;
    const unsigned char* data;
    unsigned length;
    uint32_t block_index, input_count;
    int code;
  };
  for (const Case& c : std::vector<Case>{
           {"null data", nullptr, 1, 0, 3, 1},
           {"zero length", data, 0, 0, 3, A::kZeroLength},
           {"block index above B", data, 1, B + 1, 3, A::kUpdateBadIndex},
           {"input count above B", data, 1, 0, B + 1, A::kUpdateBadCount}}) {
    SCOPED_TRACE(c.what);
    Ctx ctx = good;
    ctx.block_index = c.block_index;
    ctx.input_count = static_cast<uint8_t>(c.input_count);
    const Ctx before = ctx;
    EXPECT_EQ(A::Update(&ctx, c.data, c.length), c.code);
    EXPECT_EQ(std::memcmp(&ctx, &before, sizeof ctx), 0);
  }

  // Counts of exactly B are accepted; the full input buffer is compressed
  // before the new byte is taken.
  Ctx edge = good;
  edge.block_index = B;
  edge.input_count = static_cast<uint8_t>(B);
  EXPECT_EQ(A::Update(&edge, data, 1), 0);
  EXPECT_EQ(edge.input_count, 1);
  EXPECT_EQ(edge.bit_count, good.bit_count + B * 8);
  EXPECT_EQ(edge.block_index, B);
}

TYPED_TEST(DigestTest, FinalStatusCodes) {
  using A = TypeParam;
  using Ctx = typename A::Ctx;
  constexpr uint32_t B = A::kBlock;
  unsigned char out[A::kDigest];
  EXPECT_EQ(A::Final(nullptr, out), 1);
  if constexpr (std::is_same_v<A, Md5>) {
    // Only MD5 tests its output pointer; the SHA finals deliberately don't.
    Ctx ctx = FreshContext<A>();
    EXPECT_EQ(A::Final(&ctx, nullptr), 1);
  }
  // An index just past the context with bytes pending: a stray copy would
  // land right behind the object, where the sanitizer build reports it.
  const auto past_end =
      static_cast<uint32_t>(sizeof(Ctx) - offsetof(Ctx, block));
  struct Case {
    uint32_t block_index, input_count;
    int code;
  };
  for (const Case& c : std::vector<Case>{{B, 0, A::kFinalBadIndex},
                                         {past_end, 5, A::kFinalBadIndex},
                                         {B - 1, 1, 0}}) {
    SCOPED_TRACE("block index " + std::to_string(c.block_index) +
                 ", input count " + std::to_string(c.input_count));
    Ctx ctx = FreshContext<A>();
    ctx.block_index = c.block_index;
    ctx.input_count = static_cast<uint8_t>(c.input_count);
    EXPECT_EQ(A::Final(&ctx, out), c.code);
  }
}

// Final wipes the buffered bytes but keeps the chaining state (which then
// encodes the digest), the message bit count and the block index.
TYPED_TEST(DigestTest, StateAfterFinal) {
  using A = TypeParam;
  constexpr size_t B = A::kBlock;
  for (size_t len : {size_t{0}, B + 7, 2 * B - 4}) {
    SCOPED_TRACE("length " + std::to_string(len));
    const std::string msg(len, 'x');
    typename A::Ctx ctx = FreshContext<A>();
    const auto* data = reinterpret_cast<const unsigned char*>(msg.data());
    if (len > 0) {
      ASSERT_EQ(A::Update(&ctx, data, static_cast<unsigned>(len)), 0);
    }
    unsigned char out[A::kDigest];
    ASSERT_EQ(A::Final(&ctx, out), 0);
    EXPECT_EQ(ToHex(out, A::kDigest), OracleHex<A>(msg));

    const unsigned char zeros[128] = {};
    EXPECT_EQ(ctx.input_count, 0);
    EXPECT_EQ(std::memcmp(ctx.input, zeros, B), 0);
    EXPECT_EQ(std::memcmp(ctx.block, zeros, B), 0);
    EXPECT_EQ(ctx.bit_count, uint64_t{len} * 8);
    EXPECT_EQ(ctx.block_index, len % B);

    constexpr size_t kWord = sizeof ctx.state[0];
    for (size_t i = 0; i < A::kDigest; ++i) {
      const size_t k = A::kLittleEndian ? i % kWord : kWord - 1 - i % kWord;
      EXPECT_EQ(out[i],
                static_cast<unsigned char>(ctx.state[i / kWord] >> (8 * k)))
          << "digest byte " << i;
    }
  }
}

}  // namespace
