// The portable AES variant: 32-bit table formulation. The state is kept as
// four big-endian column words; each full round is four table lookups and
// XORs per column. It is the reference the hardware variants are tested
// against and the fallback on CPUs without AES instructions. Its table
// lookups are indexed by key and data, so its timing depends on both.
#include <cstdint>

#include "crypto/aes_generic_modes.h"
#include "crypto/aes_tables.h"
#include "crypto/aes_variant.h"
#include "crypto/byte_order.h"

namespace tessmar::crypto {
namespace {

inline unsigned byte0(uint32_t w) { return w >> 24; }
inline unsigned byte1(uint32_t w) { return (w >> 16) & 0xff; }
inline unsigned byte2(uint32_t w) { return (w >> 8) & 0xff; }
inline unsigned byte3(uint32_t w) { return w & 0xff; }

// SubWord(RotWord(w)): the S-box bytes are picked out of the encryption
// tables, where each Te word carries S[x] at a known byte position.
inline uint32_t sub_rot_word(uint32_t w) {
  return (Te2[byte1(w)] & 0xff000000u) ^ (Te3[byte2(w)] & 0x00ff0000u) ^
         (Te0[byte3(w)] & 0x0000ff00u) ^ (Te1[byte0(w)] & 0x000000ffu);
}

// SubWord(w), used for the extra step of 256-bit keys.
inline uint32_t sub_word(uint32_t w) {
  return (Te2[byte0(w)] & 0xff000000u) ^ (Te3[byte1(w)] & 0x00ff0000u) ^
         (Te0[byte2(w)] & 0x0000ff00u) ^ (Te1[byte3(w)] & 0x000000ffu);
}

// InvMixColumns of one round-key word. Td tables include InvSubBytes, so the
// bytes go through the S-box first to cancel it.
inline uint32_t inv_mix_column(uint32_t w) {
  return Td0[Sbox[byte0(w)]] ^ Td1[Sbox[byte1(w)]] ^ Td2[Sbox[byte2(w)]] ^
         Td3[Sbox[byte3(w)]];
}

void ExpandKey(const unsigned char* key, unsigned nk,
               aes_key_schedule* schedule, bool encrypt) {
  const unsigned nr = nk + 6;  // rounds: 10, 12 or 14
  const unsigned total = 4 * (nr + 1);
  uint32_t* rk = schedule->round_keys;

  for (unsigned i = 0; i < nk; ++i) rk[i] = load_be32(key + 4 * i);
  for (unsigned i = nk; i < total; ++i) {
    uint32_t temp = rk[i - 1];
    if (i % nk == 0) {
      temp = sub_rot_word(temp) ^ Rcon[i / nk - 1];
    } else if (nk > 6 && i % nk == 4) {
      temp = sub_word(temp);
    }
    rk[i] = rk[i - nk] ^ temp;
  }

  if (!encrypt) {
    // Equivalent inverse cipher: round keys in reverse order, and
    // InvMixColumns on all but the first and last so that decryption rounds
    // have the same shape as encryption rounds.
    for (unsigned i = 0, j = 4 * nr; i < j; i += 4, j -= 4) {
      for (unsigned k = 0; k < 4; ++k) {
        const uint32_t t = rk[i + k];
        rk[i + k] = rk[j + k];
        rk[j + k] = t;
      }
    }
    for (unsigned i = 4; i < 4 * nr; ++i) rk[i] = inv_mix_column(rk[i]);
  }

  schedule->rounds = static_cast<uint16_t>(nr);
}

void EncryptBlock(const unsigned char* in, unsigned char* out,
                  const aes_key_schedule* schedule) {
  const unsigned nr = AesRoundsToRead(schedule);
  const uint32_t* rk = schedule->round_keys;

  // The whole block is read before anything is written, so in == out works.
  uint32_t s0 = load_be32(in) ^ rk[0];
  uint32_t s1 = load_be32(in + 4) ^ rk[1];
  uint32_t s2 = load_be32(in + 8) ^ rk[2];
  uint32_t s3 = load_be32(in + 12) ^ rk[3];

  for (unsigned r = 1; r < nr; ++r) {
    rk += 4;
    const uint32_t t0 = Te0[byte0(s0)] ^ Te1[byte1(s1)] ^ Te2[byte2(s2)] ^
                        Te3[byte3(s3)] ^ rk[0];
    const uint32_t t1 = Te0[byte0(s1)] ^ Te1[byte1(s2)] ^ Te2[byte2(s3)] ^
                        Te3[byte3(s0)] ^ rk[1];
    const uint32_t t2 = Te0[byte0(s2)] ^ Te1[byte1(s3)] ^ Te2[byte2(s0)] ^
                        Te3[byte3(s1)] ^ rk[2];
    const uint32_t t3 = Te0[byte0(s3)] ^ Te1[byte1(s0)] ^ Te2[byte2(s1)] ^
                        Te3[byte3(s2)] ^ rk[3];
    s0 = t0;
    s1 = t1;
    s2 = t2;
    s3 = t3;
  }

  // Final round: SubBytes and ShiftRows only.
  rk = schedule->round_keys + 4 * nr;
  auto last = [](uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return (uint32_t(Sbox[byte0(a)]) << 24) | (uint32_t(Sbox[byte1(b)]) << 16) |
           (uint32_t(Sbox[byte2(c)]) << 8) | uint32_t(Sbox[byte3(d)]);
  };
  store_be32(out, last(s0, s1, s2, s3) ^ rk[0]);
  store_be32(out + 4, last(s1, s2, s3, s0) ^ rk[1]);
  store_be32(out + 8, last(s2, s3, s0, s1) ^ rk[2]);
  store_be32(out + 12, last(s3, s0, s1, s2) ^ rk[3]);
}

void DecryptBlock(const unsigned char* in, unsigned char* out,
                  const aes_key_schedule* schedule) {
  const unsigned nr = AesRoundsToRead(schedule);
  const uint32_t* rk = schedule->round_keys;

  uint32_t s0 = load_be32(in) ^ rk[0];
  uint32_t s1 = load_be32(in + 4) ^ rk[1];
  uint32_t s2 = load_be32(in + 8) ^ rk[2];
  uint32_t s3 = load_be32(in + 12) ^ rk[3];

  // InvShiftRows moves row r of column c to column c + r, so the byte for
  // row r of output column c comes from column c - r.
  for (unsigned r = 1; r < nr; ++r) {
    rk += 4;
    const uint32_t t0 = Td0[byte0(s0)] ^ Td1[byte1(s3)] ^ Td2[byte2(s2)] ^
                        Td3[byte3(s1)] ^ rk[0];
    const uint32_t t1 = Td0[byte0(s1)] ^ Td1[byte1(s0)] ^ Td2[byte2(s3)] ^
                        Td3[byte3(s2)] ^ rk[1];
    const uint32_t t2 = Td0[byte0(s2)] ^ Td1[byte1(s1)] ^ Td2[byte2(s0)] ^
                        Td3[byte3(s3)] ^ rk[2];
    const uint32_t t3 = Td0[byte0(s3)] ^ Td1[byte1(s2)] ^ Td2[byte2(s1)] ^
                        Td3[byte3(s0)] ^ rk[3];
    s0 = t0;
    s1 = t1;
    s2 = t2;
    s3 = t3;
  }

  // Final round: InvSubBytes and InvShiftRows only.
  rk = schedule->round_keys + 4 * nr;
  auto last = [](uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return (uint32_t(InvSbox[byte0(a)]) << 24) |
           (uint32_t(InvSbox[byte1(b)]) << 16) |
           (uint32_t(InvSbox[byte2(c)]) << 8) | uint32_t(InvSbox[byte3(d)]);
  };
  store_be32(out, last(s0, s3, s2, s1) ^ rk[0]);
  store_be32(out + 4, last(s1, s0, s3, s2) ^ rk[1]);
  store_be32(out + 8, last(s2, s1, s0, s3) ^ rk[2]);
  store_be32(out + 12, last(s3, s2, s1, s0) ^ rk[3]);
}

// The chaining loops of aes_generic_modes.h over the table functions.
struct Encrypt {
  const aes_key_schedule* schedule;
  void operator()(const unsigned char* in, unsigned char* out) const {
    EncryptBlock(in, out, schedule);
  }
};
struct Decrypt {
  const aes_key_schedule* schedule;
  void operator()(const unsigned char* in, unsigned char* out) const {
    DecryptBlock(in, out, schedule);
  }
};

void EcbEncrypt(const aes_key_schedule* ks, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  generic::Ecb(Encrypt{ks}, in, out, blocks);
}
void EcbDecrypt(const aes_key_schedule* ks, const unsigned char* in,
                unsigned char* out, size_t blocks) {
  generic::Ecb(Decrypt{ks}, in, out, blocks);
}
void CbcEncrypt(const aes_key_schedule* ks, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  generic::CbcEncrypt(Encrypt{ks}, reg, in, out, blocks);
}
void CbcDecrypt(const aes_key_schedule* ks, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  generic::CbcDecrypt(Decrypt{ks}, reg, in, out, blocks);
}
void Ofb(const aes_key_schedule* ks, unsigned char* reg,
         const unsigned char* in, unsigned char* out, size_t blocks) {
  generic::Ofb(Encrypt{ks}, reg, in, out, blocks);
}
void CfbEncrypt(const aes_key_schedule* ks, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  generic::CfbEncrypt(Encrypt{ks}, reg, in, out, blocks);
}
void CfbDecrypt(const aes_key_schedule* ks, unsigned char* reg,
                const unsigned char* in, unsigned char* out, size_t blocks) {
  generic::CfbDecrypt(Encrypt{ks}, reg, in, out, blocks);
}
void Ctr(const aes_key_schedule* ks, unsigned char* counter,
         const unsigned char* in, unsigned char* out, size_t blocks,
         unsigned char* keystream) {
  generic::Ctr(Encrypt{ks}, counter, in, out, blocks, keystream);
}

}  // namespace

const AesVariant kAesPortable = {
    "portable", 0,          ExpandKey,  EncryptBlock, DecryptBlock, EcbEncrypt,
    EcbDecrypt, CbcEncrypt, CbcDecrypt, Ofb,          CfbEncrypt,   CfbDecrypt,
    Ctr,
};

}  // namespace tessmar::crypto
