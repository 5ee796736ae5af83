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

// SP 800-38A appendix F: plaintext, keys, IV and initial counter.
const Bytes kPlain = FromHex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const Bytes kKey128 = FromHex("2b7e151628aed2a6abf7158809cf4f3c");
const Bytes kKey192 = FromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
const Bytes kKey256 = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");
const Bytes kCounter = FromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");

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

// F.1.1/F.1.3/F.1.5 ECB, F.2.1/F.2.3/F.2.5 CBC, F.3.13/F.3.15/F.3.17 CFB128,
// F.4.1/F.4.3/F.4.5 OFB, F.5.1/F.5.3/F.5.5 CTR, each for AES-128, -192, -256.
const struct { uint8_t mode; const char* cipher[3]; } kVectors[] = {
    {BC_MODE_ECB, {"3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
                   "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4",
                   "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
                   "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e",
                   "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
                   "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7"}},
    {BC_MODE_CBC, {"7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                   "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7",
                   "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
                   "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd",
                   "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                   "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"}},
    {BC_MODE_CFB, {"3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
                   "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6",
                   "cdc80d6fddf18cab34c25909c99a417467ce7f7f81173621961a2b70171d3d7a"
                   "2e1e8a1dd59b88b1c8e60fed1efac4c9c05f9f9ca9834fa042ae8fba584b09ff",
                   "dc7e84bfda79164b7ecd8486985d386039ffed143b28b1c832113c6331e5407b"
                   "df10132415e54b92a13ed0a8267ae2f975a385741ab9cef82031623d55b1e471"}},
    {BC_MODE_OFB, {"3b3fd92eb72dad20333449f8e83cfb4a7789508d16918f03f53c52dac54ed825"
                   "9740051e9c5fecf64344f7a82260edcc304c6528f659c77866a510d9c1d6ae5e",
                   "cdc80d6fddf18cab34c25909c99a4174fcc28b8d4c63837c09e81700c1100401"
                   "8d9a9aeac0f6596f559c6d4daf59a5f26d9f200857ca6c3e9cac524bd9acc92a",
                   "dc7e84bfda79164b7ecd8486985d38604febdc6740d20b3ac88f6ad82a4fb08d"
                   "71ab47a086e86eedf39d1c5bba97c4080126141d67f37be8538f5a8be740e484"}},
    {BC_MODE_CTR, {"874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
                   "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee",
                   "1abc932417521ca24f2b0459fe7e6e0b090339ec0aa6faefd5ccc2c6f4ce8e94"
                   "1e36b26bd1ebc670d1bd1d665620abf74f78a7f6d29809585a97daec58c6b050",
                   "601ec313775789a5b7a7f504bbf3d228f443e3ca4d62b59aca84e990cacaf5c5"
                   "2b0930daa23de94ce87017ba2d84988ddfc9c58db67aada613c2dd08457941a6"}}};
const Bytes kCbc128 = FromHex(kVectors[1].cipher[0]);

class BlockCipher : public AesVariantTest {};
TESSMAR_AES_VARIANT_SUITE(BlockCipher);

TEST_P(BlockCipher, PublishedVectorsWholeAndBlockwiseBothDirections) {
  const Bytes* const keys[] = {&kKey128, &kKey192, &kKey256};
  for (const auto& v : kVectors) {
    for (uint32_t k = 0; k < 3; ++k) {
      SCOPED_TRACE(testing::Message() << "mode " << int{v.mode} << " AES-" << 128 + 64 * k);
      const CipherSetup s = {BC_ALG_AES128 + k, v.mode, 1, *keys[k],
                       v.mode == BC_MODE_ECB ? Bytes() : v.mode == BC_MODE_CTR ? kCounter : kIv, 1};
      const Bytes cipher = FromHex(v.cipher[k]);
      for (const Chunks& chunks : {Chunks{64}, Chunks{16, 16, 16, 16}}) {
        CipherSetup d = s;
        d.direction = 0;
        const Result enc = Transform(s, kPlain, chunks), dec = Transform(d, cipher, chunks);
        EXPECT_EQ(BC_OK, enc.status);
        EXPECT_EQ(cipher, enc.data);
        EXPECT_EQ(BC_OK, dec.status);
        EXPECT_EQ(kPlain, dec.data);
      }
    }
  }
}

// PKCS#7 adds a whole block to whole blocks, and pads a partial one however
// the input was split (splits never ending on a block boundary, see the
// stale pending count below).
TEST_P(BlockCipher, PaddedEncryption) {
  const struct { uint8_t mode; Chunks chunks; const char* tail; } cases[] = {
      {BC_MODE_ECB, {64}, "a254be88e037ddd9d79fb6411c3f9df8"},
      {BC_MODE_CBC, {64}, "8cb82807230e1321d3fae00d18cc2012"},
      {BC_MODE_CBC, {7, 30, 3}, "5caca76145cffc65f7483608c531aef1"}};
  for (const auto& c : cases) {
    uint32_t total = 0;
    for (uint32_t n : c.chunks) total += n;
    const Bytes vector = FromHex(kVectors[c.mode == BC_MODE_CBC].cipher[0]);
    const Result r = Transform(Aes128(c.mode, 1, 0, c.mode == BC_MODE_ECB ? Bytes() : kIv), kPlain, c.chunks);
    EXPECT_EQ(BC_OK, r.status);
    EXPECT_EQ(Cat(Sub(vector, 0, total / 16 * 16), FromHex(c.tail)), r.data) << total;
  }
}

// Encrypting, each update acts as if its input were zero-padded to whole
// blocks: the textbook result over the padded chunks, cut back to size.
TEST_P(BlockCipher, EveryStreamUpdateStartsAFreshKeystreamBlock) {
  const struct { uint8_t mode; Chunks chunks; const char* cipher; } cases[] = {
      {BC_MODE_OFB, {10, 6}, "3b3fd92eb72dad203334a7b5a9491fb8"},
      {BC_MODE_OFB, {5, 27, 3}, "3b3fd92eb7993b4c3335ec32ecf89c17d8ad6b016aa42485c6886ca4a2093167f61b5d"},
      {BC_MODE_CFB, {10, 6}, "3b3fd92eb72dad2033346709a9ffb534"},
      {BC_MODE_CFB, {5, 27, 3}, "3b3fd92eb74f29550c64e6c86be7a16ce4d697195245dbae5ca4af8b5f2f2fa4ef4f72"},
      {BC_MODE_CTR, {10, 6}, "3b3fd92eb72dad203334d130fddd90c9"},
      {BC_MODE_CTR, {5, 27, 3}, "3b3fd92eb7efbe18a7ba9d82d94926614a567df44195461317b2ec3c071640d1eb029d"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << int{c.mode} << " first chunk " << c.chunks[0]);
    const Bytes cipher = FromHex(c.cipher), plain = Sub(kPlain, 0, cipher.size());
    const Result enc = Transform(Aes128(c.mode, 1), plain, c.chunks);
    EXPECT_EQ(BC_OK, enc.status);
    EXPECT_EQ(cipher, enc.data);
    if (c.mode != BC_MODE_CFB) {  // the keystream does not depend on the data
      EXPECT_EQ(plain, Transform(Aes128(c.mode, 0), cipher, c.chunks).data);
    }
  }
}

TEST_P(BlockCipher, ExactlyConsumedRestKeepsTheStalePendingCount) {
  const Bytes p = Sub(kPlain, 0, 32);
  CtxPtr ctx = Keyed(Aes128(BC_MODE_CBC, 1, 0));
  Bytes out, last;
  ASSERT_EQ(BC_OK, Update(ctx.get(), Sub(p, 0, 10), &out));
  ASSERT_EQ(BC_OK, Update(ctx.get(), Sub(p, 10, 22), &out));
  EXPECT_EQ(Sub(kCbc128, 0, 32), out);
  // Final pads from position 10 of the block that was already sent.
  ASSERT_EQ(BC_OK, Final(ctx.get(), &last));
  EXPECT_EQ(FromHex("bd251a58a285795ca8a49152b35ab037"), last);
  // Without padding the stale count makes final report a partial block.
  EXPECT_EQ(BC_ERR_FINAL_UNPADDED_PARTIAL, Transform(Aes128(BC_MODE_ECB, 1, 1, {}), p, {10, 22}).status);
}

TEST_P(BlockCipher, PaddedDecryptionHoldsBackOnlyTheLastUpdatesBlock) {
  const Bytes plain = Sub(kPlain, 0, 40);
  const Bytes cipher = Cat(Sub(kCbc128, 0, 32), FromHex("5caca76145cffc65f7483608c531aef1"));
  const Result r = Transform(Aes128(BC_MODE_CBC, 0, 0), cipher, {32, 16});
  EXPECT_EQ(BC_OK, r.status);
  EXPECT_EQ(Cat(Sub(plain, 0, 16), Sub(plain, 32, 8)), r.data);  // 2nd lost

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

TEST_P(BlockCipher, PaddedDecryptionRejectsBadPadding) {
  const struct { const char* tail; size_t kept; } cases[] = {  // kept 0: rejected
      {"00", 0}, {"11", 0}, {"0303", 0}, {"020303", 0},
      {"01", 31}, {"030303", 29}, {"10101010101010101010101010101010", 16}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tail);
    const Bytes tail = FromHex(c.tail), plain = Cat(Bytes(32 - tail.size(), 0x42), tail);
    const Bytes cipher = Transform(Aes128(BC_MODE_CBC, 1), plain, {32}).data;
    const Result r = Transform(Aes128(BC_MODE_CBC, 0, 0), cipher, {32});
    EXPECT_EQ(c.kept ? BC_OK : BC_ERR_FINAL_BAD_PADDING, r.status);
    EXPECT_EQ(Sub(plain, 0, c.kept), c.kept ? r.data : Bytes());
  }
}

// Carries across a byte, a word, the 64-bit halves and the whole block,
// inside runs longer than any batch of blocks kept in flight; the context
// keeps the last keystream block and the next counter.
TEST_P(BlockCipher, CounterIncrementsAsOneBigEndian128BitNumber) {
  for (const char* hex : {"ffffffffffffffffffffffffffffffff", "000102030405060708090a0bfffffffe",
                          "00ffffffffffffffffffffffffffffe0", "0102030405060708fffffffffffffff3"}) {
    SCOPED_TRACE(hex);
    Bytes counters, counter = FromHex(hex);
    std::vector<Bytes> after;
    for (int i = 0; i < 40; ++i) {
      counters = Cat(counters, counter);
      for (size_t k = 16; k-- > 0 && ++counter[k] == 0;) {
      }
      after.push_back(counter);
    }
    const Bytes keystream = Ecb(kKey256, true, counters);
    CtxPtr ctx = Keyed({BC_ALG_AES256, BC_MODE_CTR, 1, kKey256, FromHex(hex), 1});
    Bytes out;
    for (uint32_t n : {39u * 16, 11u}) {
      ASSERT_EQ(BC_OK, Update(ctx.get(), Bytes(n), &out));
      const size_t blocks = (out.size() + 15) / 16;
      EXPECT_EQ(Sub(keystream, 0, out.size()), out);
      EXPECT_EQ(Sub(keystream, 16 * (blocks - 1), 16), Bytes(ctx->keystream, ctx->keystream + 16));
      EXPECT_EQ(after[blocks - 1], Bytes(ctx->reg, ctx->reg + 16));
    }
  }
}

void EncryptThroughCaller(const unsigned char* in, unsigned char* out, const aes_key_schedule* ks) {
  AES_encrypt_block(in, out, ks);
}
void DecryptThroughCaller(const unsigned char* in, unsigned char* out, const aes_key_schedule* ks) {
  AES_decrypt_block(in, out, ks);
}

// A block function other than the library's runs the modes block by block.
TEST_P(BlockCipher, ABlockFunctionOfTheCallersGivesTheSameResults) {
  for (uint8_t mode : {BC_MODE_ECB, BC_MODE_CBC, BC_MODE_OFB, BC_MODE_CFB, BC_MODE_CFB_DIRECTIONAL,
                       BC_MODE_CTR}) {
    for (int direction : {1, 0}) {
      SCOPED_TRACE(testing::Message() << "mode " << int{mode} << " direction " << direction);
      const auto s = Aes128(mode, direction, 1, mode == BC_MODE_ECB ? Bytes() : kIv);
      CtxPtr ours = Keyed(s), callers = Keyed(s);
      callers->block_function =
          callers->block_function == AES_encrypt_block ? EncryptThroughCaller : DecryptThroughCaller;
      Bytes expected, out;
      for (const Bytes& chunk : {Sub(kPlain, 0, 53), Sub(kPlain, 53, 11)}) {
        ASSERT_EQ(BC_OK, Update(ours.get(), chunk, &expected));
        ASSERT_EQ(BC_OK, Update(callers.get(), chunk, &out));
      }
      EXPECT_EQ(expected, out);
      EXPECT_EQ(Bytes(ours->keystream, ours->keystream + 16), Bytes(callers->keystream, callers->keystream + 16));
      if (mode == BC_MODE_ECB) continue;
      EXPECT_EQ(Bytes(ours->reg, ours->reg + 16), Bytes(callers->reg, callers->reg + 16));
    }
  }
}

TEST_P(BlockCipher, DirectionalCfbEncryptsLikeCfbButDecryptsWithInverseCipher) {
  const Bytes cfb = FromHex(kVectors[2].cipher[0]);
  EXPECT_EQ(cfb, Transform(Aes128(BC_MODE_CFB_DIRECTIONAL, 1), kPlain, {64}).data);
  // Block i decrypts to C[i] XOR D(C[i-1]), with C[-1] the IV.
  const Result r = Transform(Aes128(BC_MODE_CFB_DIRECTIONAL, 0), cfb, {64});
  EXPECT_EQ(BC_OK, r.status);
  EXPECT_EQ(Xor(cfb, Ecb(kKey128, false, Cat(kIv, Sub(cfb, 0, 48)))), r.data);
}

// Keying again, by init_BlockCipher or by init_AES alone, replaces the key
// material (LeakSanitizer sees any schedule or register not released), as
// does a rejected init, which leaves an unkeyed context.
TEST_P(BlockCipher, RekeyingReplacesTheKeyMaterial) {
  CtxPtr ctx = Keyed({BC_ALG_AES256, BC_MODE_OFB, 0, kKey256, kIv, 0});
  EXPECT_EQ(1, ctx->no_padding);  // stream modes never pad
  EXPECT_EQ(32u, ctx->key_length);
  EXPECT_TRUE(ctx->block_function == AES_encrypt_block);  // OFB encrypts only
  ASSERT_EQ(BC_OK, init_BlockCipher(ctx.get(), BC_ALG_AES128, BC_MODE_CBC, 1, kKey256.data(),
                                    kCounter.data(), 1));
  ASSERT_EQ(BC_OK, init_AES(ctx.get(), kKey128.data(), kIv.data(), 1));
  Bytes out;
  ASSERT_EQ(BC_OK, Update(ctx.get(), kPlain, &out));
  EXPECT_EQ(kCbc128, out);
  // A key alone keeps the register where the chain left it.
  ASSERT_EQ(BC_OK, init_AES(ctx.get(), kKey128.data(), nullptr, 1));
  ASSERT_EQ(BC_OK, Update(ctx.get(), Sub(kPlain, 0, 16), &out));
  EXPECT_EQ(Ecb(kKey128, true, Xor(Sub(kPlain, 0, 16), Sub(out, 48, 16))), Sub(out, 64, 16));

  EXPECT_EQ(BC_ERR_INIT_UNKNOWN,
            init_BlockCipher(ctx.get(), 0x30004, BC_MODE_CBC, 0, kKey128.data(), kIv.data(), 1));
  EXPECT_EQ(nullptr, ctx->reg);
  EXPECT_EQ(nullptr, ctx->key_schedule);
  ASSERT_EQ(BC_OK, init_BlockCipher(ctx.get(), BC_ALG_AES128, BC_MODE_ECB, 1, kKey128.data(), nullptr, 1));
  EXPECT_EQ(BC_ERR_INIT_UNKNOWN,
            init_BlockCipher(ctx.get(), BC_ALG_AES128, 0x60, 0, kKey128.data(), kIv.data(), 1));
  EXPECT_EQ(nullptr, ctx->key_schedule);

  // Only the low 16 bits of the direction count, and only 1 encrypts.
  EXPECT_EQ(kCbc128, Transform(Aes128(BC_MODE_CBC, 0x10001), kPlain, {64}).data);
  EXPECT_EQ(kPlain, Transform(Aes128(BC_MODE_CBC, 2), kCbc128, {64}).data);
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
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(ctx.get(), i, 16, nullptr, &n));
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(ctx.get(), i, 16, o, nullptr));
  EXPECT_EQ(BC_ERR_UPDATE_ARGS, update_BlockCipher(ctx.get(), i, 0, o, &n));
  EXPECT_EQ(BC_ERR_FINAL_ARGS, final_BlockCipher(nullptr, o, &n));
  EXPECT_EQ(BC_ERR_FINAL_ARGS, final_BlockCipher(ctx.get(), nullptr, &n));
  EXPECT_EQ(BC_ERR_FINAL_ARGS, final_BlockCipher(ctx.get(), o, nullptr));
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
  for (uint8_t mode : {BC_MODE_CBC, BC_MODE_OFB, BC_MODE_CFB, BC_MODE_CFB_DIRECTIONAL, BC_MODE_CTR}) {
    SCOPED_TRACE(static_cast<int>(mode));
    EXPECT_EQ(BC_ERR_UPDATE_MODE, Transform(Aes128(mode, 1, 1, {}), in, {16}).status);
    EXPECT_EQ(mode == BC_MODE_CBC ? BC_ERR_UPDATE_PADDED : BC_ERR_UPDATE_MODE,
              Transform(Aes128(mode, 0, 0, {}), in, {16}).status);
    if (mode != BC_MODE_CBC) {
      EXPECT_EQ(BC_ERR_FINAL_MODE, Transform(Aes128(mode, 1, 1, {}), {}, {}).status);
    }
  }

  const Bytes partial(20, 1);
  EXPECT_EQ(BC_ERR_FINAL_UNPADDED_PARTIAL, Transform(Aes128(BC_MODE_ECB, 1, 1, {}), partial, {20}).status);
  EXPECT_EQ(BC_ERR_FINAL_DECRYPT_PARTIAL, Transform(Aes128(BC_MODE_CBC, 0, 1), partial, {20}).status);
  EXPECT_EQ(BC_ERR_FINAL_DECRYPT_PARTIAL, Transform(Aes128(BC_MODE_CBC, 0, 0), partial, {20}).status);
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
    EXPECT_EQ(r.null_data, r.run(keyed.get(), in.data(), 16, nullptr, &n));
    EXPECT_EQ(r.null_data, r.run(keyed.get(), in.data(), 16, out.data(), nullptr));
    EXPECT_EQ(r.no_key, r.run(fresh.get(), in.data(), 16, out.data(), &n));
    const int no_register = r.run == crypt_ECB ? BC_OK : r.run == crypt_CBC ? BC_ERR_CBC_NO_REGISTER : r.no_key;
    EXPECT_EQ(no_register, r.run(no_reg.get(), in.data(), 16, out.data(), &n));
  }
}

}  // namespace
