// The streaming block-cipher context: SP 800-38A vectors, each deliberate
// departure from the textbook modes, and the status codes, on every variant
// of the AES core this CPU runs. Buffers handed over are exact-size heap
// vectors, for ASan.
#include "tessmar/block_cipher.h"

#include <gtest/gtest.h>

#include <memory>

#include "crypto/aes_variants.h"
#include "crypto/block_cipher_modes.h"

namespace {

using namespace tessmar::crypto::testing_support;
using Chunks = std::vector<uint32_t>;

Bytes Cat(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
Bytes Sub(const Bytes& b, size_t from, size_t n) { return Bytes(b.begin() + from, b.begin() + from + n); }
Bytes Xor(Bytes a, const Bytes& b) {
  for (size_t i = 0; i < a.size(); ++i) a[i] ^= b[i];
  return a;
}

// SP 800-38A appendix F: the IV and the initial counter (the rest in aes_variants.h).
const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");
const Bytes kCounter = FromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");

// AES-128 in every mode (F.1.1, F.2.1, F.3.13, F.4.1, F.5.1), AES-192 and
// -256 in ECB (F.1.3, F.1.5): the key length is picked by the algorithm alone,
// the same way for every mode, and each variant's round counts are checked
// against the portable code in aes_test.
const struct { uint8_t mode; uint32_t algorithm; const char* cipher; } kVectors[] = {
    {BC_MODE_ECB, BC_ALG_AES128, kEcb128},
    {BC_MODE_CBC, BC_ALG_AES128, "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                                 "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
    {BC_MODE_CFB, BC_ALG_AES128, "3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
                                 "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6"},
    {BC_MODE_OFB, BC_ALG_AES128, "3b3fd92eb72dad20333449f8e83cfb4a7789508d16918f03f53c52dac54ed825"
                                 "9740051e9c5fecf64344f7a82260edcc304c6528f659c77866a510d9c1d6ae5e"},
    {BC_MODE_CTR, BC_ALG_AES128, "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
                                 "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"},
    {BC_MODE_ECB, BC_ALG_AES192, kEcb192}, {BC_MODE_ECB, BC_ALG_AES256, kEcb256}};
const Bytes kCbc128 = FromHex(kVectors[1].cipher), kCfb128 = FromHex(kVectors[2].cipher);

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

struct CtxDeleter {
  void operator()(BLOCK_CIPHER_CTX* ctx) const { free_BLOCK_CIPHER_CTX(ctx); }
};
using CtxPtr = std::unique_ptr<BLOCK_CIPHER_CTX, CtxDeleter>;

CtxPtr Keyed(const CipherSetup& s) {
  CtxPtr ctx(new_BLOCK_CIPHER_CTX());
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

struct Result {
  int status = BC_OK;
  Bytes data;
};

// init, one update per chunk, final; stops at the first failure.
Result Transform(const CipherSetup& s, const Bytes& in, const Chunks& chunks) {
  CtxPtr ctx = Keyed(s);
  Result r;
  size_t at = 0;
  for (uint32_t c : chunks) {
    if ((r.status = Update(ctx.get(), Sub(in, at, c), &r.data)) != BC_OK) return r;
    at += c;
  }
  r.status = Final(ctx.get(), &r.data);
  return r;
}
Bytes Ok(const Result& r) {
  EXPECT_EQ(BC_OK, r.status);
  return r.data;
}

class BlockCipher : public AesVariantTest {};
TESSMAR_AES_VARIANT_SUITE(BlockCipher);

TEST_P(BlockCipher, PublishedVectorsWholeAndBlockwiseBothDirections) {
  for (const auto& v : kVectors) {
    SCOPED_TRACE(testing::Message() << "mode " << int{v.mode} << " algorithm " << v.algorithm);
    const Bytes& key = v.algorithm == BC_ALG_AES128 ? kKey128 : v.algorithm == BC_ALG_AES192 ? kKey192 : kKey256;
    const Bytes iv = v.mode == BC_MODE_ECB ? Bytes() : v.mode == BC_MODE_CTR ? kCounter : kIv;
    const Bytes cipher = FromHex(v.cipher);
    for (const Chunks& chunks : {Chunks{64}, Chunks{16, 16, 16, 16}}) {
      EXPECT_EQ(cipher, Ok(Transform({v.algorithm, v.mode, 1, key, iv, 1}, kPlain, chunks)));
      EXPECT_EQ(kPlain, Ok(Transform({v.algorithm, v.mode, 1, key, iv, 0}, cipher, chunks)));
    }
  }
}

// Encrypting the plaintext in pieces gives the first `same` bytes of the
// published AES-128 ciphertext, then `tail`:
//   - PKCS#7 adds a whole block to whole blocks and pads a partial one however
//     the input was split;
//   - when an update consumes its rest exactly, the pending count keeps its
//     stale value: final pads from position 10 of the block already sent, and
//     without padding reports a partial block;
//   - each update of a stream mode acts as if its input were zero-padded to
//     whole blocks (a fresh keystream block per update);
//   - mode 0x46 encrypts like CFB.
TEST_P(BlockCipher, ChunkedEncryption) {
  const struct { uint8_t mode, no_padding; Chunks chunks; size_t same; const char* tail; int status; } cases[] = {
      {BC_MODE_CBC, 0, {64}, 64, "8cb82807230e1321d3fae00d18cc2012", BC_OK},
      {BC_MODE_CBC, 0, {7, 30, 3}, 32, "5caca76145cffc65f7483608c531aef1", BC_OK},
      {BC_MODE_CBC, 0, {10, 22}, 32, "bd251a58a285795ca8a49152b35ab037", BC_OK},
      {BC_MODE_ECB, 1, {10, 22}, 32, "", BC_ERR_FINAL_UNPADDED_PARTIAL},
      {BC_MODE_OFB, 1, {5, 27, 3}, 0, "3b3fd92eb7993b4c3335ec32ecf89c17d8ad6b016aa42485c6886ca4a2093167f61b5d", BC_OK},
      {BC_MODE_CFB, 1, {5, 27, 3}, 0, "3b3fd92eb74f29550c64e6c86be7a16ce4d697195245dbae5ca4af8b5f2f2fa4ef4f72", BC_OK},
      {BC_MODE_CTR, 1, {5, 27, 3}, 0, "3b3fd92eb7efbe18a7ba9d82d94926614a567df44195461317b2ec3c071640d1eb029d", BC_OK},
      {BC_MODE_CFB_DIRECTIONAL, 1, {64}, 64, "", BC_OK}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << int{c.mode} << " first chunk " << c.chunks[0]);
    size_t total = 0;
    for (uint32_t n : c.chunks) total += n;
    const Bytes plain = Sub(kPlain, 0, total);
    const Bytes published = c.mode == BC_MODE_ECB ? FromHex(kEcb128) : c.mode == BC_MODE_CBC ? kCbc128 : kCfb128;
    const Result r = Transform(Aes128(c.mode, 1, c.no_padding, c.mode == BC_MODE_ECB ? Bytes() : kIv), plain, c.chunks);
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(Cat(Sub(published, 0, c.same), FromHex(c.tail)), r.data);
  }
}

// Padded decryption holds back the last block of each update for final to
// check and strip; a later update overwrites it.
TEST_P(BlockCipher, PaddedDecryption) {
  const struct { const char* tail; size_t kept; } cases[] = {  // kept 0: rejected
      {"00", 0}, {"11", 0}, {"020303", 0}, {"030303", 29}, {"10101010101010101010101010101010", 16}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tail);
    const Bytes tail = FromHex(c.tail), plain = Cat(Bytes(32 - tail.size(), 0x42), tail);
    const Result r = Transform(Aes128(BC_MODE_CBC, 0, 0), Ok(Transform(Aes128(BC_MODE_CBC, 1), plain, {32})), {32});
    EXPECT_EQ(c.kept ? BC_OK : BC_ERR_FINAL_BAD_PADDING, r.status);
    EXPECT_EQ(Sub(plain, 0, c.kept), c.kept ? r.data : Bytes());
  }

  const Bytes plain = Sub(kPlain, 0, 40);
  const Bytes cipher = Cat(Sub(kCbc128, 0, 32), FromHex("5caca76145cffc65f7483608c531aef1"));
  EXPECT_EQ(Cat(Sub(plain, 0, 16), Sub(plain, 32, 8)), Ok(Transform(Aes128(BC_MODE_CBC, 0, 0), cipher, {32, 16})));
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
TEST_P(BlockCipher, CounterIncrementsAsOneBigEndian128BitNumber) {
  for (const char* hex : {"ffffffffffffffffffffffffffffffff", "000102030405060708090a0bfffffffe",
                          "00ffffffffffffffffffffffffffffe0", "0102030405060708fffffffffffffff3"}) {
    SCOPED_TRACE(hex);
    Bytes counters, counter = FromHex(hex);
    for (int i = 0; i <= 40; ++i) {
      counters = Cat(counters, counter);
      for (size_t k = 16; k-- > 0 && ++counter[k] == 0;) {
      }
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
TEST_P(BlockCipher, DirectionalCfbDecryptsWithTheInverseCipher) {
  EXPECT_EQ(Xor(kCfb128, Ecb(kKey128, 0, false, Cat(kIv, Sub(kCfb128, 0, 48)))),
            Ok(Transform(Aes128(BC_MODE_CFB_DIRECTIONAL, 0), kCfb128, {64})));
}

// Keying again, by init_BlockCipher or by init_AES alone, replaces the key
// material (LeakSanitizer sees any schedule or register not released), as
// does a rejected init, which leaves an unkeyed context.
TEST_P(BlockCipher, RekeyingReplacesTheKeyMaterial) {
  CtxPtr ctx = Keyed({BC_ALG_AES256, BC_MODE_OFB, 0, kKey256, kIv, 0});
  EXPECT_EQ(1, ctx->no_padding);  // stream modes never pad
  ASSERT_EQ(BC_OK, init_BlockCipher(ctx.get(), BC_ALG_AES128, BC_MODE_CBC, 1, kKey256.data(),
                                    kCounter.data(), 1));
  ASSERT_EQ(BC_OK, init_AES(ctx.get(), kKey128.data(), kIv.data(), 1));
  Bytes out;
  ASSERT_EQ(BC_OK, Update(ctx.get(), kPlain, &out));
  EXPECT_EQ(kCbc128, out);
  // A key alone keeps the register where the chain left it.
  ASSERT_EQ(BC_OK, init_AES(ctx.get(), kKey128.data(), nullptr, 1));
  ASSERT_EQ(BC_OK, Update(ctx.get(), Sub(kPlain, 0, 16), &out));
  EXPECT_EQ(Ecb(kKey128, 1, true, Xor(Sub(kPlain, 0, 16), Sub(out, 48, 16))), Sub(out, 64, 16));

  EXPECT_EQ(BC_ERR_INIT_UNKNOWN,
            init_BlockCipher(ctx.get(), 0x30004, BC_MODE_CBC, 0, kKey128.data(), kIv.data(), 1));
  EXPECT_EQ(nullptr, ctx->reg);
  EXPECT_EQ(nullptr, ctx->key_schedule);
  ASSERT_EQ(BC_OK, init_BlockCipher(ctx.get(), BC_ALG_AES128, BC_MODE_ECB, 1, kKey128.data(), nullptr, 1));
  EXPECT_EQ(BC_ERR_INIT_UNKNOWN,
            init_BlockCipher(ctx.get(), BC_ALG_AES128, 0x60, 0, kKey128.data(), kIv.data(), 1));
  EXPECT_EQ(nullptr, ctx->key_schedule);

  // Only the low 16 bits of the direction count, and only 1 encrypts.
  EXPECT_EQ(kCbc128, Ok(Transform(Aes128(BC_MODE_CBC, 0x10001), kPlain, {64})));
  EXPECT_EQ(kPlain, Ok(Transform(Aes128(BC_MODE_CBC, 2), kCbc128, {64})));
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
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(ctx.get(), nullptr, 16, o, &n));
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(ctx.get(), i, 0, o, &n));
  EXPECT_EQ(BC_ERR_FINAL_ARGS, final_BlockCipher(nullptr, o, &n));
  EXPECT_EQ(BC_ERR_FINAL_ARGS, final_BlockCipher(ctx.get(), nullptr, &n));
  ctx->block_size = 33;
  EXPECT_EQ(BC_ERR_FINAL_BLOCK_SIZE, final_BlockCipher(ctx.get(), o, &n));
  ctx->block_size = 1;
  n = 7;
  EXPECT_EQ(BC_OK, final_BlockCipher(ctx.get(), o, &n));
  EXPECT_EQ(0u, n);

  // Unkeyed contexts and missing registers fail in the mode routine; a null
  // IV in a stream mode is refused rather than dereferenced.
  CtxPtr fresh(new_BLOCK_CIPHER_CTX());  // direction 0: padded decryption
  EXPECT_EQ(BC_ERR_UPDATE_PADDED, update_BlockCipher(fresh.get(), i, 16, o, &n));
  fresh->direction = 1;
  n = 7;
  EXPECT_EQ(BC_ERR_UPDATE_MODE, update_BlockCipher(fresh.get(), i, 16, o, &n));
  EXPECT_EQ(0u, n);
  // (Each routine's own refusal of a missing register is checked below.)
  EXPECT_EQ(BC_ERR_UPDATE_MODE, Transform(Aes128(BC_MODE_CBC, 1, 1, {}), in, {16}).status);
  EXPECT_EQ(BC_ERR_FINAL_MODE, Transform(Aes128(BC_MODE_CFB_DIRECTIONAL, 1, 1, {}), {}, {}).status);

  const Bytes partial(20, 1);
  EXPECT_EQ(BC_ERR_FINAL_DECRYPT_PARTIAL, Transform(Aes128(BC_MODE_CBC, 0, 1), partial, {20}).status);
  EXPECT_EQ(BC_ERR_FINAL_DECRYPT_PARTIAL, Transform(Aes128(BC_MODE_CBC, 0, 0), {}, {}).status);
}

// Each mode routine, callable through the context, refuses missing data, an
// unkeyed context and a missing register with its own status, reporting 0 bytes.
TEST(BlockCipherStatus, ModeRoutinesRefuseWhatTheyCannotRun) {
  using namespace tessmar::crypto;
  const struct { bc_mode_routine run; int null_data, no_key; } routines[] = {
      {crypt_ECB, BC_ERR_ECB_NULL_DATA, BC_ERR_ECB_NO_KEY},
      {crypt_CBC, BC_ERR_CBC_NULL_DATA, BC_ERR_CBC_NO_KEY},
      {crypt_OFB, BC_ERR_OFB_NULL_DATA, BC_ERR_OFB_NO_KEY},
      {crypt_CFB, BC_ERR_CFB_NULL_DATA, BC_ERR_CFB_NO_KEY},
      {crypt_CTR, BC_ERR_CTR_NULL_DATA, BC_ERR_CTR_NO_KEY}};
  CtxPtr keyed = Keyed(Aes128(BC_MODE_CBC, 1)), no_reg = Keyed(Aes128(BC_MODE_CBC, 1, 1, {}));
  CtxPtr fresh(new_BLOCK_CIPHER_CTX());
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

}  // namespace
