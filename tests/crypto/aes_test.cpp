// Tests of the AES key schedule and block functions: published known-answer
// vectors, the calling conventions of the exported functions, and a
// fixed-seed comparison with OpenSSL over random keys and blocks.
#include "tessmar/aes.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Block = std::array<unsigned char, AES_BLOCK_SIZE>;

constexpr int kDecrypt = 0;

Bytes FromHex(const std::string& hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(
        static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

Block ToBlock(const Bytes& b) {
  Block out{};
  std::memcpy(out.data(), b.data(), out.size());
  return out;
}

aes_key_schedule Schedule(const Bytes& key, int direction) {
  aes_key_schedule ks;
  std::memset(&ks, 0, sizeof ks);
  AES_round_key(key.data(), static_cast<uint32_t>(key.size()), &ks, direction);
  return ks;
}

Block Encrypt(const Bytes& key, const Block& in,
              int direction = AES_DIRECTION_ENCRYPT) {
  const aes_key_schedule ks = Schedule(key, direction);
  Block out{};
  AES_encrypt_block(in.data(), out.data(), &ks);
  return out;
}

Block Decrypt(const Bytes& key, const Block& in, int direction = kDecrypt) {
  const aes_key_schedule ks = Schedule(key, direction);
  Block out{};
  AES_decrypt_block(in.data(), out.data(), &ks);
  return out;
}

struct KnownAnswer {
  const char* name;
  const char* key;
  const char* plaintext;
  const char* ciphertext;
};

// FIPS 197, Appendix C (example vectors for each key length) and the
// cipher example of Appendix B.
const KnownAnswer kFips197Vectors[] = {
    {"C.1 AES-128", "000102030405060708090a0b0c0d0e0f",
     "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"C.2 AES-192", "000102030405060708090a0b0c0d0e0f1011121314151617",
     "00112233445566778899aabbccddeeff", "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"C.3 AES-256",
     "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
     "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
    {"B AES-128", "2b7e151628aed2a6abf7158809cf4f3c",
     "3243f6a8885a308d313198a2e0370734", "3925841d02dc09fbdc118597196a0b32"},
};

TEST(AesTest, Fips197VectorsEncryptAndDecrypt) {
  for (const auto& v : kFips197Vectors) {
    SCOPED_TRACE(v.name);
    const Bytes key = FromHex(v.key);
    const Block pt = ToBlock(FromHex(v.plaintext));
    const Block ct = ToBlock(FromHex(v.ciphertext));
    EXPECT_EQ(Encrypt(key, pt), ct);
    EXPECT_EQ(Decrypt(key, ct), pt);
    EXPECT_EQ(Schedule(key, AES_DIRECTION_ENCRYPT).rounds, key.size() / 4 + 6);
    EXPECT_EQ(Schedule(key, kDecrypt).rounds, key.size() / 4 + 6);
  }
}

// FIPS 197, Appendix A: key expansion examples.
TEST(AesTest, KeyExpansionMatchesFips197AppendixA) {
  {
    SCOPED_TRACE("A.1 AES-128");
    const aes_key_schedule ks = Schedule(
        FromHex("2b7e151628aed2a6abf7158809cf4f3c"), AES_DIRECTION_ENCRYPT);
    EXPECT_EQ(ks.round_keys[0], 0x2b7e1516u);
    EXPECT_EQ(ks.round_keys[3], 0x09cf4f3cu);
    EXPECT_EQ(ks.round_keys[4], 0xa0fafe17u);
    EXPECT_EQ(ks.round_keys[5], 0x88542cb1u);
    EXPECT_EQ(ks.round_keys[6], 0x23a33939u);
    EXPECT_EQ(ks.round_keys[7], 0x2a6c7605u);
    EXPECT_EQ(ks.round_keys[40], 0xd014f9a8u);
    EXPECT_EQ(ks.round_keys[43], 0xb6630ca6u);
  }
  {
    SCOPED_TRACE("A.2 AES-192");
    const aes_key_schedule ks =
        Schedule(FromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b"),
                 AES_DIRECTION_ENCRYPT);
    EXPECT_EQ(ks.round_keys[6], 0xfe0c91f7u);
    EXPECT_EQ(ks.round_keys[51], 0x01002202u);
  }
  {
    SCOPED_TRACE("A.3 AES-256");
    const aes_key_schedule ks = Schedule(
        FromHex(
            "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"),
        AES_DIRECTION_ENCRYPT);
    EXPECT_EQ(ks.round_keys[8], 0x9ba35411u);
    EXPECT_EQ(ks.round_keys[59], 0x706c631eu);
  }
}

TEST(AesTest, OnlyLowSixteenBitsOfDirectionCount) {
  const Bytes key = FromHex("000102030405060708090a0b0c0d0e0f");
  const Block pt = ToBlock(FromHex("00112233445566778899aabbccddeeff"));
  const Block ct = ToBlock(FromHex("69c4e0d86a7b0430d8cdb78070b4c55a"));
  for (int direction : {0x10001, 0x20001, static_cast<int>(0xffff0001u)}) {
    SCOPED_TRACE(direction);
    EXPECT_EQ(Encrypt(key, pt, direction), ct);
  }
  for (int direction : {0, 2, -1, 0x10000, 0x10002}) {
    SCOPED_TRACE(direction);
    EXPECT_EQ(Decrypt(key, ct, direction), pt);
  }
}

TEST(AesTest, InPlaceBlocksGiveSameResult) {
  for (const auto& v : kFips197Vectors) {
    SCOPED_TRACE(v.name);
    const Bytes key = FromHex(v.key);
    const aes_key_schedule enc = Schedule(key, AES_DIRECTION_ENCRYPT);
    const aes_key_schedule dec = Schedule(key, kDecrypt);
    Block block = ToBlock(FromHex(v.plaintext));
    AES_encrypt_block(block.data(), block.data(), &enc);
    EXPECT_EQ(block, ToBlock(FromHex(v.ciphertext)));
    AES_decrypt_block(block.data(), block.data(), &dec);
    EXPECT_EQ(block, ToBlock(FromHex(v.plaintext)));
  }
}

TEST(AesTest, NullPointersDoNothing) {
  const Bytes key = FromHex("000102030405060708090a0b0c0d0e0f");
  const aes_key_schedule ks = Schedule(key, AES_DIRECTION_ENCRYPT);
  const Block in = ToBlock(FromHex("00112233445566778899aabbccddeeff"));
  Block out;
  out.fill(0x5a);
  const Block untouched = out;

  AES_encrypt_block(nullptr, out.data(), &ks);
  AES_encrypt_block(in.data(), out.data(), nullptr);
  AES_encrypt_block(in.data(), nullptr, &ks);
  AES_decrypt_block(nullptr, out.data(), &ks);
  AES_decrypt_block(in.data(), out.data(), nullptr);
  AES_decrypt_block(in.data(), nullptr, &ks);
  EXPECT_EQ(out, untouched);

  aes_key_schedule area;
  std::memset(&area, 0xa5, sizeof area);
  AES_round_key(nullptr, 16, &area, AES_DIRECTION_ENCRYPT);
  AES_round_key(key.data(), 16, nullptr, AES_DIRECTION_ENCRYPT);
  aes_key_schedule expected;
  std::memset(&expected, 0xa5, sizeof expected);
  EXPECT_EQ(std::memcmp(&area, &expected, sizeof area), 0);
}

TEST(AesTest, BadKeyLengthLeavesAreaUntouched) {
  const Bytes key(64, 0x42);
  aes_key_schedule expected;
  std::memset(&expected, 0xa5, sizeof expected);
  for (uint32_t length : {0u, 1u, 8u, 15u, 17u, 23u, 25u, 31u, 33u, 64u}) {
    for (int direction : {AES_DIRECTION_ENCRYPT, kDecrypt}) {
      SCOPED_TRACE(testing::Message()
                   << "length " << length << " direction " << direction);
      aes_key_schedule area;
      std::memset(&area, 0xa5, sizeof area);
      AES_round_key(key.data(), length, &area, direction);
      EXPECT_EQ(std::memcmp(&area, &expected, sizeof area), 0);
    }
  }
}

// A cleared schedule (what a context holds after a rejected key length) or
// one with a round count the expansion never writes must still be processed
// within the 260-byte area. Heap allocation lets the address sanitizer see
// any read beyond it.
TEST(AesTest, InvalidRoundCountStaysInsideScheduleArea) {
  auto ks = std::make_unique<aes_key_schedule>();
  std::memset(ks.get(), 0, sizeof *ks);
  const Block in = ToBlock(FromHex("00112233445566778899aabbccddeeff"));
  for (uint16_t rounds : {0, 1, 15, 16, 0xffff}) {
    SCOPED_TRACE(rounds);
    ks->rounds = rounds;
    Block a{}, b{};
    AES_encrypt_block(in.data(), a.data(), ks.get());
    AES_decrypt_block(in.data(), b.data(), ks.get());
  }
}

// Runs one block-sized ECB operation through OpenSSL as the oracle.
Bytes OpenSslEcb(const Bytes& key, const Bytes& in, bool encrypt) {
  const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_ecb()
                             : key.size() == 24 ? EVP_aes_192_ecb()
                                                : EVP_aes_256_ecb();
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(
      EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  Bytes out(in.size());
  int len = 0;
  if (!ctx ||
      EVP_CipherInit_ex(ctx.get(), cipher, nullptr, key.data(), nullptr,
                        encrypt ? 1 : 0) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
      EVP_CipherUpdate(ctx.get(), out.data(), &len, in.data(),
                       static_cast<int>(in.size())) != 1 ||
      static_cast<size_t>(len) != in.size()) {
    ADD_FAILURE() << "OpenSSL ECB failed";
    return {};
  }
  return out;
}

TEST(AesTest, MatchesOpenSslOnRandomKeysAndBlocks) {
  std::mt19937 rng(0x5eed1234u);
  std::uniform_int_distribution<int> byte(0, 255);
  constexpr int kKeysPerLength = 100;
  constexpr size_t kBlocksPerKey = 4;
  for (size_t key_length : {16u, 24u, 32u}) {
    for (int n = 0; n < kKeysPerLength; ++n) {
      SCOPED_TRACE(testing::Message()
                   << "key length " << key_length << " case " << n);
      Bytes key(key_length);
      Bytes plain(kBlocksPerKey * AES_BLOCK_SIZE);
      for (auto& b : key) b = static_cast<unsigned char>(byte(rng));
      for (auto& b : plain) b = static_cast<unsigned char>(byte(rng));

      const aes_key_schedule enc = Schedule(key, AES_DIRECTION_ENCRYPT);
      const aes_key_schedule dec = Schedule(key, kDecrypt);
      Bytes cipher(plain.size()), back(plain.size());
      for (size_t off = 0; off < plain.size(); off += AES_BLOCK_SIZE) {
        AES_encrypt_block(plain.data() + off, cipher.data() + off, &enc);
        // Decrypt OpenSSL's decryption input (the plaintext as ciphertext)
        // too, so decryption is checked independently of encryption.
        AES_decrypt_block(plain.data() + off, back.data() + off, &dec);
      }
      ASSERT_EQ(cipher, OpenSslEcb(key, plain, true));
      ASSERT_EQ(back, OpenSslEcb(key, plain, false));
    }
  }
}

}  // namespace
