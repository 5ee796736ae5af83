// AES and the streaming block-cipher context over it, on every variant of
// the AES core this CPU runs: SP 800-38A and FIPS 197 vectors, the hardware
// variants' schedules and block calls against the portable code's, each
// deliberate departure of the context from the textbook modes, and the
// status codes. Buffers handed over are exact-size heap vectors, for ASan.
// The bulk functions on any data are the block-cipher fuzz target's (against
// OpenSSL, on the variant in use, under ASan). A variant the CPU lacks is
// skipped here and in the digest test, so the variants handed out must be
// exactly those the kernel lists the CPU flags for.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "crypto/aes_variant.h"
#include "crypto/block_cipher_modes.h"
#include "crypto/cpu_features.h"
#include "crypto/digest_variant.h"
#include "tessmar/aes.h"
#include "tessmar/block_cipher.h"

namespace {

using namespace tessmar::crypto;
using Bytes = std::vector<unsigned char>;
using Chunks = std::vector<uint32_t>;

Bytes FromHex(const std::string& hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return out;
}
Bytes Cat(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
Bytes Sub(const Bytes& b, size_t from, size_t n) { return Bytes(b.begin() + from, b.begin() + from + n); }

// SP 800-38A appendix F: the plaintext, a key of each length (also the keys
// of the FIPS 197 key-expansion examples), the IV and the initial counter.
const Bytes kPlain = FromHex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const Bytes kKey128 = FromHex("2b7e151628aed2a6abf7158809cf4f3c");
const Bytes kKey192 = FromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
const Bytes kKey256 = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");
const Bytes kCounter = FromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");

// AES-128 in every mode (F.1.1, F.2.1, F.3.13, F.4.1, F.5.1), AES-192 and
// -256 in ECB (F.1.3, F.1.5): the key length is picked by the algorithm alone,
// the same way for every mode.
const struct { uint8_t mode; uint32_t algorithm; const char* cipher; } kVectors[] = {
    {BC_MODE_ECB, BC_ALG_AES128, "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
                                 "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4"},
    {BC_MODE_CBC, BC_ALG_AES128, "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                                 "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
    {BC_MODE_CFB, BC_ALG_AES128, "3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
                                 "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6"},
    {BC_MODE_OFB, BC_ALG_AES128, "3b3fd92eb72dad20333449f8e83cfb4a7789508d16918f03f53c52dac54ed825"
                                 "9740051e9c5fecf64344f7a82260edcc304c6528f659c77866a510d9c1d6ae5e"},
    {BC_MODE_CTR, BC_ALG_AES128, "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
                                 "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"},
    {BC_MODE_ECB, BC_ALG_AES192, "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
                                 "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e"},
    {BC_MODE_ECB, BC_ALG_AES256, "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
                                 "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7"}};
const Bytes kEcb128 = FromHex(kVectors[0].cipher), kCbc128 = FromHex(kVectors[1].cipher),
            kCfb128 = FromHex(kVectors[2].cipher);

// A schedule keyed over a known fill, so that copies compare equal bytewise.
aes_key_schedule Schedule(const Bytes& key, int direction) {
  aes_key_schedule ks;
  std::memset(&ks, 0xa5, sizeof ks);
  AES_round_key(key.data(), static_cast<uint32_t>(key.size()), &ks, direction);
  return ks;
}

// Each block of in through the exported block calls, in place, under a
// schedule keyed with `direction`.
Bytes Ecb(const Bytes& key, int direction, bool encrypt, Bytes in) {
  const aes_key_schedule ks = Schedule(key, direction);
  for (size_t at = 0; at < in.size(); at += AES_BLOCK_SIZE)
    (encrypt ? AES_encrypt_block : AES_decrypt_block)(&in[at], &in[at], &ks);
  return in;
}

struct CipherSetup {
  uint32_t algorithm;
  uint8_t mode;
  uint8_t no_padding;
  Bytes key;
  Bytes iv;  // empty: null IV
  int direction;
};
CipherSetup Aes128(uint8_t mode, int direction, uint8_t no_padding = 1, Bytes iv = kIv) {
  return {BC_ALG_AES128, mode, no_padding, kKey128, iv, direction};
}

using CtxPtr = std::unique_ptr<BLOCK_CIPHER_CTX, void (*)(BLOCK_CIPHER_CTX*)>;

CtxPtr Keyed(const CipherSetup& s) {
  CtxPtr ctx(new_BLOCK_CIPHER_CTX(), free_BLOCK_CIPHER_CTX);
  EXPECT_EQ(BC_OK, init_BlockCipher(ctx.get(), s.algorithm, s.mode, s.no_padding, s.key.data(),
                                    s.iv.empty() ? nullptr : s.iv.data(), s.direction));
  return ctx;
}

// One update (or, without input, final) from an exact copy of the input into
// an output of exactly the documented room; appends what it emits to *out.
int Step(BLOCK_CIPHER_CTX* ctx, const Bytes* in, Bytes* out) {
  Bytes input = in ? *in : Bytes(), output(input.size() + 16);
  uint32_t n = 0;
  const int status =
      in ? update_BlockCipher(ctx, input.data(), static_cast<uint32_t>(input.size()), output.data(), &n)
         : final_BlockCipher(ctx, output.data(), &n);
  out->insert(out->end(), output.begin(), output.begin() + n);
  return status;
}
int Update(BLOCK_CIPHER_CTX* ctx, const Bytes& in, Bytes* out) { return Step(ctx, &in, out); }
int Final(BLOCK_CIPHER_CTX* ctx, Bytes* out) { return Step(ctx, nullptr, out); }

// init, one update per chunk of the front of `in`, final; stops at the first
// failure, whose status must be `status`. Returns all that was emitted.
Bytes Transform(const CipherSetup& s, const Bytes& in, const Chunks& chunks, int status = BC_OK) {
  CtxPtr ctx = Keyed(s);
  Bytes out;
  int got = BC_OK;
  for (size_t i = 0, at = 0; i < chunks.size() && got == BC_OK; at += chunks[i++])
    got = Update(ctx.get(), Sub(in, at, chunks[i]), &out);
  EXPECT_EQ(status, got == BC_OK ? Final(ctx.get(), &out) : got);
  return out;
}

// Runs each test once per AES variant (aes_variant.h), with that variant in
// use for the exported calls and the block-cipher context; a variant the CPU
// lacks is skipped, never silently replaced.
class Aes : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    variant_ = AesVariantNamed(GetParam());
    if (variant_ == nullptr) GTEST_SKIP() << "this CPU has no " << GetParam() << " variant";
    LimitCpuFeaturesForTesting(variant_->needs);
    ASSERT_EQ(&ActiveAes(), variant_);
  }
  void TearDown() override { LimitCpuFeaturesForTesting(kAllCpuFeatures); }

  const AesVariant* variant_ = nullptr;
};
INSTANTIATE_TEST_SUITE_P(Variants, Aes, ::testing::Values("portable", "aesni", "vaes"),
                         [](const auto& info) { return std::string(info.param); });

// The ECB vectors also through the single-block calls, whose schedules equal
// the portable code's (the round count included): every variant reads the
// area as the portable code lays it out.
TEST_P(Aes, PublishedVectorsWholeAndBlockwiseBothDirections) {
  for (const auto& v : kVectors) {
    SCOPED_TRACE(testing::Message() << "mode " << int{v.mode} << " algorithm " << v.algorithm);
    const Bytes& key = v.algorithm == BC_ALG_AES128 ? kKey128 : v.algorithm == BC_ALG_AES192 ? kKey192 : kKey256;
    const Bytes iv = v.mode == BC_MODE_ECB ? Bytes() : v.mode == BC_MODE_CTR ? kCounter : kIv;
    const Bytes cipher = FromHex(v.cipher);
    for (const Chunks& chunks : {Chunks{64}, Chunks{16, 16, 16, 16}}) {
      EXPECT_EQ(cipher, Transform({v.algorithm, v.mode, 1, key, iv, 1}, kPlain, chunks));
      EXPECT_EQ(kPlain, Transform({v.algorithm, v.mode, 1, key, iv, 0}, cipher, chunks));
    }
    if (v.mode != BC_MODE_ECB) continue;
    EXPECT_EQ(cipher, Ecb(key, AES_DIRECTION_ENCRYPT, true, kPlain));
    EXPECT_EQ(kPlain, Ecb(key, 0, false, cipher));
    for (int direction : {AES_DIRECTION_ENCRYPT, 0}) {
      aes_key_schedule reference;
      std::memset(&reference, 0xa5, sizeof reference);
      AesVariantNamed("portable")->expand_key(key.data(), static_cast<unsigned>(key.size() / 4), &reference,
                                              direction == 1);
      const aes_key_schedule ours = Schedule(key, direction);
      EXPECT_EQ(std::memcmp(&ours, &reference, sizeof ours), 0) << direction;
    }
  }
  // The mode routines decrypt in place, keeping each ciphertext block the
  // chain still needs, also across the batches of the widest variant.
  const Bytes plain = Cat(Cat(kPlain, kPlain), Cat(Cat(kPlain, kPlain), kPlain));
  for (uint8_t mode : {BC_MODE_CBC, BC_MODE_CFB}) {
    Bytes data = Transform(Aes128(mode, 1), plain, {320});
    EXPECT_EQ(mode == BC_MODE_CBC ? kCbc128 : kCfb128, Sub(data, 0, 64));
    CtxPtr ctx = Keyed(Aes128(mode, 0));
    uint32_t n = 0;
    ASSERT_EQ(BC_OK, (mode == BC_MODE_CBC ? crypt_CBC : crypt_CFB)(ctx.get(), data.data(), 320, data.data(), &n));
    EXPECT_EQ(plain, data) << int{mode};
  }
}

// The area holds the round keys as FIPS 197 appendix A lists them (its last
// word of the 256-bit key here). Only the low 16 bits of the direction count,
// and only 1 encrypts. A cleared schedule (0 rounds) or a count above any real
// one (read as 15) gives the portable code's blocks and reads nothing past the
// area, which is on the heap for ASan.
TEST_P(Aes, KeyScheduleLayoutDirectionAndRoundCount) {
  const aes_key_schedule ks = Schedule(kKey256, AES_DIRECTION_ENCRYPT);
  EXPECT_EQ(ks.round_keys[59], 0x706c631eu);
  for (int direction : {0x10001, static_cast<int>(0xffff0001u)})
    EXPECT_EQ(Ecb(kKey128, direction, true, kPlain), kEcb128) << direction;
  for (int direction : {2, -1, 0x10000})
    EXPECT_EQ(Ecb(kKey128, direction, false, kEcb128), kPlain) << direction;

  const auto odd = std::make_unique<aes_key_schedule>(ks);
  for (uint16_t rounds : {0, 0xffff}) {
    odd->rounds = rounds;
    for (AesBlockFn AesVariant::*fn : {&AesVariant::encrypt_block, &AesVariant::decrypt_block}) {
      Bytes ours(16), reference(16);
      (variant_->*fn)(kPlain.data(), ours.data(), odd.get());
      (AesVariantNamed("portable")->*fn)(kPlain.data(), reference.data(), odd.get());
      EXPECT_EQ(ours, reference) << rounds;
    }
  }
}

TEST(AesArguments, BadArgumentsLeaveEverythingUntouched) {
  const Bytes key(64, 0x42), block(16, 1);
  aes_key_schedule untouched;
  std::memset(&untouched, 0xa5, sizeof untouched);
  aes_key_schedule area = untouched;
  Bytes out(16, 0x5a);
  for (auto* fn : {AES_encrypt_block, AES_decrypt_block}) fn(block.data(), out.data(), nullptr);
  EXPECT_EQ(out, Bytes(16, 0x5a));
  AES_round_key(nullptr, 16, &area, AES_DIRECTION_ENCRYPT);
  for (uint32_t length : {0u, 1u, 15u, 17u, 23u, 25u, 31u, 33u, 64u})
    for (int direction : {AES_DIRECTION_ENCRYPT, 0}) AES_round_key(key.data(), length, &area, direction);
  EXPECT_EQ(std::memcmp(&area, &untouched, sizeof area), 0);
}

// Encrypting the plaintext in pieces gives the first `same` bytes of the
// published AES-128 ciphertext, then `tail`:
//   - PKCS#7 pads a partial block however the input was split (a whole block
//     added to whole blocks is the block-cipher fuzz target's, against OpenSSL);
//   - when an update consumes its rest exactly, the pending count keeps its
//     stale value: final pads from position 10 of the block already sent, and
//     without padding reports a partial block;
//   - each update of a stream mode acts as if its input were zero-padded to
//     whole blocks (a fresh keystream block per update);
//   - mode 0x46 encrypts like CFB.
TEST_P(Aes, ChunkedEncryption) {
  const struct { uint8_t mode, no_padding; Chunks chunks; size_t same; const char* tail; int status; } cases[] = {
      {BC_MODE_CBC, 0, {7, 30, 3}, 32, "5caca76145cffc65f7483608c531aef1", BC_OK},
      {BC_MODE_CBC, 0, {10, 22}, 32, "bd251a58a285795ca8a49152b35ab037", BC_OK},
      {BC_MODE_ECB, 1, {10, 22}, 32, "", BC_ERR_FINAL_UNPADDED_PARTIAL},
      {BC_MODE_OFB, 1, {5, 27, 3}, 0, "3b3fd92eb7993b4c3335ec32ecf89c17d8ad6b016aa42485c6886ca4a2093167f61b5d", BC_OK},
      {BC_MODE_CFB, 1, {5, 27, 3}, 0, "3b3fd92eb74f29550c64e6c86be7a16ce4d697195245dbae5ca4af8b5f2f2fa4ef4f72", BC_OK},
      {BC_MODE_CTR, 1, {5, 27, 3}, 0, "3b3fd92eb7efbe18a7ba9d82d94926614a567df44195461317b2ec3c071640d1eb029d", BC_OK},
      {BC_MODE_CFB_DIRECTIONAL, 1, {64}, 64, "", BC_OK}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << int{c.mode} << " first chunk " << c.chunks[0]);
    const Bytes published = c.mode == BC_MODE_ECB ? kEcb128 : c.mode == BC_MODE_CBC ? kCbc128 : kCfb128;
    const CipherSetup setup = Aes128(c.mode, 1, c.no_padding, c.mode == BC_MODE_ECB ? Bytes() : kIv);
    EXPECT_EQ(Cat(Sub(published, 0, c.same), FromHex(c.tail)), Transform(setup, kPlain, c.chunks, c.status));
  }
}

// Padded decryption holds back the last block of each update for final to
// check and strip; a later update overwrites it.
TEST_P(Aes, PaddedDecryption) {
  const int bad = BC_ERR_FINAL_BAD_PADDING;  // refused at final, after the update sent block 1
  const struct { const char* tail; size_t kept; int status; } cases[] = {
      {"00", 16, bad}, {"11", 16, bad}, {"020303", 16, bad}, {"030303", 29, BC_OK},
      {"10101010101010101010101010101010", 16, BC_OK}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tail);
    const Bytes tail = FromHex(c.tail), plain = Cat(Bytes(32 - tail.size(), 0x42), tail);
    const Bytes cipher = Transform(Aes128(BC_MODE_CBC, 1), plain, {32});
    EXPECT_EQ(Sub(plain, 0, c.kept), Transform(Aes128(BC_MODE_CBC, 0, 0), cipher, {32}, c.status));
  }

  const Bytes plain = Sub(kPlain, 0, 40);
  const Bytes cipher = Cat(Sub(kCbc128, 0, 32), FromHex("5caca76145cffc65f7483608c531aef1"));
  EXPECT_EQ(Cat(Sub(plain, 0, 16), Sub(plain, 32, 8)), Transform(Aes128(BC_MODE_CBC, 0, 0), cipher, {32, 16}));
  // An update that only buffers emits and holds back nothing; its output is
  // exact-size, so holding back would reach outside it.
  CtxPtr ctx = Keyed(Aes128(BC_MODE_CBC, 0, 0));
  Bytes out;
  ASSERT_EQ(BC_OK, Update(ctx.get(), Sub(cipher, 0, 32), &out));
  Bytes in = Sub(cipher, 32, 5), room(21);
  uint32_t n = 0xdeadbeef;
  ASSERT_EQ(BC_OK, update_BlockCipher(ctx.get(), in.data(), 5, room.data(), &n));
  EXPECT_EQ(0u, n);
  EXPECT_EQ(Sub(plain, 0, 16), out);
  EXPECT_EQ(Sub(plain, 16, 16), Bytes(ctx->held_back, ctx->held_back + 16));
  EXPECT_EQ(BC_ERR_FINAL_DECRYPT_PARTIAL, Final(ctx.get(), &out));
}

// Carries across a byte, a word, the 64-bit halves and the whole block,
// inside runs longer than any batch of blocks kept in flight; the context
// keeps the last keystream block and the next counter.
TEST_P(Aes, CounterIncrementsAsOneBigEndian128BitNumber) {
  for (const char* hex : {"ffffffffffffffffffffffffffffffff", "000102030405060708090a0bfffffffe",
                          "00ffffffffffffffffffffffffffffe0", "0102030405060708fffffffffffffff3"}) {
    SCOPED_TRACE(hex);
    Bytes counters, counter = FromHex(hex);
    for (int i = 0; i <= 40; ++i) {
      counters = Cat(counters, counter);
      for (size_t k = 16; k-- > 0 && ++counter[k] == 0;) {}
    }
    const Bytes keystream = Ecb(kKey256, 1, true, Sub(counters, 0, 40 * 16));
    CtxPtr ctx = Keyed({BC_ALG_AES256, BC_MODE_CTR, 1, kKey256, FromHex(hex), 1});
    Bytes out;
    ASSERT_EQ(BC_OK, Update(ctx.get(), Bytes(39 * 16), &out));
    ASSERT_EQ(BC_OK, Update(ctx.get(), Bytes(11), &out));
    EXPECT_EQ(Sub(keystream, 0, out.size()), out);
    EXPECT_EQ(Sub(keystream, 39 * 16, 16), Bytes(ctx->keystream, ctx->keystream + 16));
    EXPECT_EQ(Sub(counters, 40 * 16, 16), Bytes(ctx->reg, ctx->reg + 16));
  }
}

// Mode 0x46 decrypts block i to C[i] XOR D(C[i-1]), with C[-1] the IV.
TEST_P(Aes, DirectionalCfbDecryptsWithTheInverseCipher) {
  EXPECT_EQ(FromHex("13bf74936907a389ef46ee478a3d1738c6f7750468ed4b918930d17b469b8dbf"
                    "3b6b5db789273af7f3cc00667d60ffe0ec90d2477ce670b7a356a266fcb1ff71"),
            Transform(Aes128(BC_MODE_CFB_DIRECTIONAL, 0), kCfb128, {64}));
}

// Keying again, by init_BlockCipher or by init_AES alone, replaces the key
// material (LeakSanitizer sees any schedule or register not released), as
// does a rejected init, which leaves an unkeyed context.
TEST_P(Aes, RekeyingReplacesTheKeyMaterial) {
  CtxPtr ctx = Keyed({BC_ALG_AES256, BC_MODE_OFB, 0, kKey256, kIv, 0});
  EXPECT_EQ(1, ctx->no_padding);  // stream modes never pad
  ASSERT_EQ(BC_OK, init_BlockCipher(ctx.get(), BC_ALG_AES128, BC_MODE_CBC, 1, kKey256.data(),
                                    kCounter.data(), 1));
  ASSERT_EQ(BC_OK, init_AES(ctx.get(), kKey128.data(), kIv.data(), 1));
  Bytes out;
  ASSERT_EQ(BC_OK, Update(ctx.get(), kPlain, &out));
  EXPECT_EQ(kCbc128, out);
  // A key alone keeps the register where the chain left it: the next block
  // goes on from the last cipher block.
  ASSERT_EQ(BC_OK, init_AES(ctx.get(), kKey128.data(), nullptr, 1));
  ASSERT_EQ(BC_OK, Update(ctx.get(), Sub(kPlain, 0, 16), &out));
  EXPECT_EQ(FromHex("1f5512b4e773a591e3380109a55e8b75"), Sub(out, 64, 16));

  EXPECT_EQ(BC_ERR_INIT_UNKNOWN,
            init_BlockCipher(ctx.get(), 0x30004, BC_MODE_CBC, 0, kKey128.data(), kIv.data(), 1));
  EXPECT_EQ(nullptr, ctx->reg);
  EXPECT_EQ(nullptr, ctx->key_schedule);
  ASSERT_EQ(BC_OK, init_BlockCipher(ctx.get(), BC_ALG_AES128, BC_MODE_ECB, 1, kKey128.data(), nullptr, 1));
  EXPECT_EQ(BC_ERR_INIT_UNKNOWN,
            init_BlockCipher(ctx.get(), BC_ALG_AES128, 0x60, 0, kKey128.data(), kIv.data(), 1));
  EXPECT_EQ(nullptr, ctx->key_schedule);

  // Only the low 16 bits of the direction count, and only 1 encrypts.
  EXPECT_EQ(kCbc128, Transform(Aes128(BC_MODE_CBC, 0x10001), kPlain, {64}));
  EXPECT_EQ(kPlain, Transform(Aes128(BC_MODE_CBC, 2), kCbc128, {64}));
}

TEST(BlockCipherStatus, StatusCodes) {
  EXPECT_EQ(BC_ERR_INIT_NULL_CTX,
            init_BlockCipher(nullptr, BC_ALG_AES128, BC_MODE_ECB, 0, kKey128.data(), nullptr, 1));
  EXPECT_EQ(BC_ERR_AES_NULL_CTX, init_AES(nullptr, kKey128.data(), kIv.data(), 1));
  free_BLOCK_CIPHER_CTX(nullptr);

  CtxPtr ctx = Keyed(Aes128(BC_MODE_ECB, 1, 0, {}));
  Bytes in(16), out(32);
  unsigned char *i = in.data(), *o = out.data();
  uint32_t n = 0;
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(nullptr, i, 16, o, &n));
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(ctx.get(), i, 0, o, &n));
  EXPECT_EQ(BC_ERR_FINAL_ARGS, final_BlockCipher(nullptr, o, &n));
  ctx->block_size = 33;
  EXPECT_EQ(BC_ERR_FINAL_BLOCK_SIZE, final_BlockCipher(ctx.get(), o, &n));
  ctx->block_size = 1;
  n = 7;
  EXPECT_EQ(BC_OK, final_BlockCipher(ctx.get(), o, &n));
  EXPECT_EQ(0u, n);

  // Unkeyed contexts and missing registers fail in the mode routine; a null
  // IV in a stream mode is refused rather than dereferenced.
  CtxPtr fresh(new_BLOCK_CIPHER_CTX(), free_BLOCK_CIPHER_CTX);  // direction 0: padded decryption
  EXPECT_EQ(BC_ERR_UPDATE_PADDED, update_BlockCipher(fresh.get(), i, 16, o, &n));
  fresh->direction = 1;
  n = 7;
  EXPECT_EQ(BC_ERR_UPDATE_MODE, update_BlockCipher(fresh.get(), i, 16, o, &n));
  EXPECT_EQ(0u, n);
  // (Each routine's own refusal of a missing register is checked below.)
  Transform(Aes128(BC_MODE_CBC, 1, 1, {}), in, {16}, BC_ERR_UPDATE_MODE);
  Transform(Aes128(BC_MODE_CFB_DIRECTIONAL, 1, 1, {}), {}, {}, BC_ERR_FINAL_MODE);

  // Unpadded decryption with a partial block left (padded: PaddedDecryption).
  Transform(Aes128(BC_MODE_CBC, 0, 1), Bytes(20, 1), {20}, BC_ERR_FINAL_DECRYPT_PARTIAL);
}

// Each mode routine, callable through the context, refuses missing data, an
// unkeyed context and a missing register with its own status, reporting 0 bytes.
TEST(BlockCipherStatus, ModeRoutinesRefuseWhatTheyCannotRun) {
  const struct { bc_mode_routine run; int null_data, no_key; } routines[] = {
      {crypt_ECB, BC_ERR_ECB_NULL_DATA, BC_ERR_ECB_NO_KEY},
      {crypt_CBC, BC_ERR_CBC_NULL_DATA, BC_ERR_CBC_NO_KEY},
      {crypt_OFB, BC_ERR_OFB_NULL_DATA, BC_ERR_OFB_NO_KEY},
      {crypt_CFB, BC_ERR_CFB_NULL_DATA, BC_ERR_CFB_NO_KEY},
      {crypt_CTR, BC_ERR_CTR_NULL_DATA, BC_ERR_CTR_NO_KEY}};
  CtxPtr keyed = Keyed(Aes128(BC_MODE_CBC, 1)), no_reg = Keyed(Aes128(BC_MODE_CBC, 1, 1, {}));
  CtxPtr fresh(new_BLOCK_CIPHER_CTX(), free_BLOCK_CIPHER_CTX);
  Bytes in(16), out(16);
  for (const auto& r : routines) {
    SCOPED_TRACE(r.null_data);
    uint32_t n = 7;
    EXPECT_EQ(r.null_data, r.run(keyed.get(), nullptr, 16, out.data(), &n));
    EXPECT_EQ(0u, n);
    EXPECT_EQ(r.null_data, r.run(keyed.get(), in.data(), 16, out.data(), nullptr));
    EXPECT_EQ(r.no_key, r.run(fresh.get(), in.data(), 16, out.data(), &n));
    const int no_register = r.run == crypt_ECB ? BC_OK : r.run == crypt_CBC ? BC_ERR_CBC_NO_REGISTER : r.no_key;
    EXPECT_EQ(no_register, r.run(no_reg.get(), in.data(), 16, out.data(), &n));
  }
}

std::set<std::string> CpuFlags() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::set<std::string> flags;
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("flags", 0) != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    for (std::string flag; words >> flag;) flags.insert(flag);
    break;
  }
  return flags;
}

TEST(VariantSelection, FollowsTheCpuFlags) {
  const std::set<std::string> flags = CpuFlags();
  ASSERT_FALSE(flags.empty());
  const auto has = [&](const char* flag) { return flags.count(flag) != 0; };
  const bool sse = has("ssse3") && has("sse4_1");
  const bool aesni = has("aes") && sse;
  // The kernel lists avx only when it saves the YMM registers, and avx512*
  // only when it saves the opmask and ZMM registers.
  const bool vaes = aesni && has("avx") && has("avx2") && has("vaes");
  const bool shani = has("sha_ni") && sse;
  const bool avx2 = has("avx") && has("avx2") && has("bmi1") && has("bmi2");
  const bool avx512 = avx2 && has("avx512f") && has("avx512vl") && has("avx512bw");
  const auto NameOf = [](const auto* v) { return v != nullptr ? v->name : "none"; };

  // Each name, expected when the CPU has it. (That the fastest is the one in
  // use, the Aes fixture and the digest test assert as they pick a variant.)
  const struct { const char* got; const char* name; bool expected; } cases[] = {
      {NameOf(AesVariantNamed("portable")), "portable", true},
      {NameOf(AesVariantNamed("aesni")), "aesni", aesni},
      {NameOf(AesVariantNamed("vaes")), "vaes", vaes},
      {NameOf(DigestVariantNamed("portable")), "portable", true},
      {NameOf(DigestVariantNamed("shani")), "shani", shani},
      {NameOf(Sha512VariantNamed("portable")), "portable", true},
      {NameOf(Sha512VariantNamed("avx2")), "avx2", avx2},
      {NameOf(Sha512VariantNamed("avx512")), "avx512", avx512},
      {NameOf(AesVariantNamed("AESNI")), "AESNI", false},
      {NameOf(DigestVariantNamed(nullptr)), "null", false}};
  for (const auto& c : cases) EXPECT_STREQ(c.got, c.expected ? c.name : "none") << c.name;
}

}  // namespace
