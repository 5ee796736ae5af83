// AES key schedule and block functions: known answers and calling
// conventions on every variant of the core this CPU runs; the hardware
// variants' schedules and bulk functions against the portable code's.
#include "tessmar/aes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

#include "crypto/aes_variants.h"

namespace {

using namespace tessmar::crypto::testing_support;
using tessmar::crypto::AesVariant;

class AesTest : public AesVariantTest {};
TESSMAR_AES_VARIANT_SUITE(AesTest);

TEST_P(AesTest, VectorsAndKeySchedules) {
  // Four blocks under each key length (SP 800-38A F.1.1, F.1.3, F.1.5).
  const std::pair<const Bytes&, const char*> vectors[] = {
      {kKey128, kEcb128}, {kKey192, kEcb192}, {kKey256, kEcb256}};
  for (const auto& [key, hex] : vectors) {
    SCOPED_TRACE(key.size());
    const Bytes ct = FromHex(hex);
    for (bool in_place : {false, true}) {
      EXPECT_EQ(Ecb(key, AES_DIRECTION_ENCRYPT, true, kPlain, in_place), ct);
      EXPECT_EQ(Ecb(key, 0, false, ct, in_place), kPlain);
    }
    // Each variant's schedules equal the portable layout, which the bulk
    // functions below rely on; the round count included.
    for (int direction : {AES_DIRECTION_ENCRYPT, 0}) {
      aes_key_schedule reference;
      std::memset(&reference, 0xa5, sizeof reference);
      Portable().expand_key(key.data(), static_cast<unsigned>(key.size() / 4), &reference, direction == 1);
      const aes_key_schedule ours = Schedule(key, direction);
      EXPECT_EQ(std::memcmp(&ours, &reference, sizeof ours), 0) << direction;
      EXPECT_EQ(ours.rounds, key.size() / 4 + 6);
    }
  }
  // FIPS 197 appendix A: words of the expanded keys.
  const struct { const Bytes& key; size_t word; uint32_t value; } words[] = {
      {kKey128, 0, 0x2b7e1516u}, {kKey128, 4, 0xa0fafe17u}, {kKey128, 7, 0x2a6c7605u},
      {kKey128, 43, 0xb6630ca6u}, {kKey192, 6, 0xfe0c91f7u}, {kKey192, 51, 0x01002202u},
      {kKey256, 8, 0x9ba35411u}, {kKey256, 59, 0x706c631eu}};
  for (const auto& w : words) {
    SCOPED_TRACE(testing::Message() << w.key.size() << "-byte key, word " << w.word);
    EXPECT_EQ(Schedule(w.key, AES_DIRECTION_ENCRYPT).round_keys[w.word], w.value);
  }
  // Only the low 16 bits of the direction count, and only 1 encrypts.
  const Bytes ct = FromHex(kEcb128);
  for (int direction : {0x10001, static_cast<int>(0xffff0001u)})
    EXPECT_EQ(Ecb(kKey128, direction, true, kPlain), ct) << direction;
  for (int direction : {2, -1, 0x10000})
    EXPECT_EQ(Ecb(kKey128, direction, false, ct), kPlain) << direction;
}

TEST(AesArguments, BadArgumentsLeaveEverythingUntouched) {
  const Bytes key(64, 0x42), block(16, 1);
  aes_key_schedule untouched;
  std::memset(&untouched, 0xa5, sizeof untouched);
  aes_key_schedule area = untouched;
  const aes_key_schedule ks = Schedule(Bytes(16), AES_DIRECTION_ENCRYPT);
  Bytes out(16, 0x5a);
  for (auto* fn : {AES_encrypt_block, AES_decrypt_block}) {
    fn(nullptr, out.data(), &ks);
    fn(block.data(), out.data(), nullptr);
    fn(block.data(), nullptr, &ks);
  }
  EXPECT_EQ(out, Bytes(16, 0x5a));
  AES_round_key(nullptr, 16, &area, AES_DIRECTION_ENCRYPT);
  AES_round_key(key.data(), 16, nullptr, AES_DIRECTION_ENCRYPT);
  for (uint32_t length : {0u, 1u, 15u, 17u, 23u, 25u, 31u, 33u, 64u}) {
    for (int direction : {AES_DIRECTION_ENCRYPT, 0}) AES_round_key(key.data(), length, &area, direction);
  }
  EXPECT_EQ(std::memcmp(&area, &untouched, sizeof area), 0);
}

// Output, then register, then keystream block of one bulk function (0-7) or
// the single-block calls over each block (8, 9). Exact-size heap buffers.
Bytes RunBulk(const AesVariant& v, int function, const aes_key_schedule* ks, const Bytes& reg_in,
              const Bytes& in, bool in_place) {
  Bytes data = in, out(in.size()), reg = reg_in, keystream(16);
  unsigned char* dst = in_place ? data.data() : out.data();
  const size_t n = in.size() / AES_BLOCK_SIZE;
  switch (function) {
    case 0: v.ecb_encrypt(ks, data.data(), dst, n); break;
    case 1: v.ecb_decrypt(ks, data.data(), dst, n); break;
    case 2: v.cbc_encrypt(ks, reg.data(), data.data(), dst, n); break;
    case 3: v.cbc_decrypt(ks, reg.data(), data.data(), dst, n); break;
    case 4: v.ofb(ks, reg.data(), data.data(), dst, n); break;
    case 5: v.cfb_encrypt(ks, reg.data(), data.data(), dst, n); break;
    case 6: v.cfb_decrypt(ks, reg.data(), data.data(), dst, n); break;
    case 7: v.ctr(ks, reg.data(), data.data(), dst, n, keystream.data()); break;
    default:
      for (size_t i = 0; i < n; ++i)
        (function == 8 ? v.encrypt_block : v.decrypt_block)(data.data() + 16 * i, dst + 16 * i, ks);
  }
  Bytes result(dst, dst + in.size());
  result.insert(result.end(), reg.begin(), reg.end());
  result.insert(result.end(), keystream.begin(), keystream.end());
  return result;
}

// Every bulk and block function against the portable code, in place or not,
// over 25 blocks: a batch of the widest variant, one of the next, and a
// single block. The schedule holds random words and the round count of a
// cleared schedule (0) or one above any real count (read as 15, so nothing
// reads past the heap-allocated area). Counter carries are checked in the
// block-cipher test.
TEST_P(AesTest, BulkFunctionsMatchThePortableCode) {
  std::mt19937 rng(0xb01c);
  auto ks = std::make_unique<aes_key_schedule>();
  for (auto& w : ks->round_keys) w = static_cast<uint32_t>(rng());
  const Bytes in = RandomBytes(rng, 25 * 16), reg = RandomBytes(rng, 16);
  for (uint16_t rounds : {0, 0xffff}) {
    ks->rounds = rounds;
    for (int function = 0; function < 10; ++function) {
      for (bool in_place : {false, true}) {
        SCOPED_TRACE(testing::Message() << "rounds " << rounds << " function " << function
                                        << " in place " << in_place);
        EXPECT_EQ(RunBulk(Variant(), function, ks.get(), reg, in, in_place),
                  RunBulk(Portable(), function, ks.get(), reg, in, in_place));
      }
    }
  }
}

}  // namespace
