// Mode routines of the block-cipher context. See block_cipher_modes.h.
#include "crypto/block_cipher_modes.h"

#include <cstring>

namespace tessmar::crypto {
namespace {

constexpr uint32_t kBlock = AES_BLOCK_SIZE;

bool HasKey(const BLOCK_CIPHER_CTX* ctx) {
  return ctx != nullptr && ctx->key_schedule != nullptr &&
         ctx->block_function != nullptr;
}

// A stream mode keyed without an IV has no register; it is refused like a
// context without a key rather than dereferenced.
bool HasKeyAndRegister(const BLOCK_CIPHER_CTX* ctx) {
  return HasKey(ctx) && ctx->reg != nullptr;
}

// The stored position is always 0 (it is never written back); the modulo
// only keeps a tampered context from indexing past the 16-byte register.
uint32_t StartPosition(const BLOCK_CIPHER_CTX* ctx) {
  return ctx->keystream_pos % kBlock;
}

// Adds one to the 16-byte big-endian counter; all 0xff wraps to all zeros.
void IncrementCounter(unsigned char* counter) {
  for (int i = static_cast<int>(kBlock) - 1; i >= 0; --i) {
    if (++counter[i] != 0) return;
  }
}

}  // namespace

int crypt_ECB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_ECB_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_ECB_NULL_DATA;
  if (!HasKey(ctx)) return BC_ERR_ECB_NO_KEY;
  for (uint32_t done = 0; in_length - done >= kBlock; done += kBlock) {
    ctx->block_function(in + done, out + done, ctx->key_schedule);
    *out_length += kBlock;
  }
  return BC_OK;
}

int crypt_CBC(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_CBC_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_CBC_NULL_DATA;
  if (!HasKey(ctx)) return BC_ERR_CBC_NO_KEY;
  if (ctx->reg == nullptr) return BC_ERR_CBC_NO_REGISTER;
  if (in_length < kBlock) return BC_OK;

  const aes_key_schedule* schedule = ctx->key_schedule;
  if (ctx->direction == AES_DIRECTION_ENCRYPT) {
    const unsigned char* previous = ctx->reg;
    uint32_t done = 0;
    for (; in_length - done >= kBlock; done += kBlock) {
      unsigned char* block = out + done;
      for (uint32_t j = 0; j < kBlock; ++j) {
        block[j] = in[done + j] ^ previous[j];
      }
      ctx->block_function(block, block, schedule);
      previous = block;
    }
    std::memcpy(ctx->reg, previous, kBlock);
    *out_length = done;
  } else {
    // The ciphertext block is copied before it is decrypted so that the
    // chaining value survives when the caller decrypts in place.
    unsigned char chain[kBlock];
    unsigned char cipher[kBlock];
    std::memcpy(chain, ctx->reg, kBlock);
    uint32_t done = 0;
    for (; in_length - done >= kBlock; done += kBlock) {
      unsigned char* block = out + done;
      std::memcpy(cipher, in + done, kBlock);
      ctx->block_function(cipher, block, schedule);
      for (uint32_t j = 0; j < kBlock; ++j) block[j] ^= chain[j];
      std::memcpy(chain, cipher, kBlock);
    }
    std::memcpy(ctx->reg, chain, kBlock);
    *out_length = done;
  }
  return BC_OK;
}

int crypt_OFB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_OFB_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_OFB_NULL_DATA;
  if (!HasKeyAndRegister(ctx)) return BC_ERR_OFB_NO_KEY;
  if (in_length == 0) return BC_OK;

  uint32_t pos = StartPosition(ctx);
  for (uint32_t i = 0; i < in_length; ++i) {
    if (pos == 0) ctx->block_function(ctx->reg, ctx->reg, ctx->key_schedule);
    out[i] = static_cast<unsigned char>(ctx->reg[pos] ^ in[i]);
    pos = (pos + 1) % kBlock;
  }
  *out_length = in_length;
  return BC_OK;
}

int crypt_CFB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_CFB_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_CFB_NULL_DATA;
  if (!HasKeyAndRegister(ctx)) return BC_ERR_CFB_NO_KEY;
  if (in_length == 0) return BC_OK;

  // Feedback is always the ciphertext byte: what we produce when
  // encrypting, what we were given when decrypting. For mode 0x46 the block
  // function is the caller's direction, so decryption runs the register
  // through the inverse cipher; that is intended and why 0x46 does not
  // interoperate with 0x40.
  const bool encrypting = ctx->direction == AES_DIRECTION_ENCRYPT;
  uint32_t pos = StartPosition(ctx);
  for (uint32_t i = 0; i < in_length; ++i) {
    if (pos == 0) ctx->block_function(ctx->reg, ctx->reg, ctx->key_schedule);
    const unsigned char input = in[i];
    const unsigned char output =
        static_cast<unsigned char>(ctx->reg[pos] ^ input);
    out[i] = output;
    ctx->reg[pos] = encrypting ? output : input;
    pos = (pos + 1) % kBlock;
  }
  *out_length = in_length;
  return BC_OK;
}

int crypt_CTR(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_CTR_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_CTR_NULL_DATA;
  if (!HasKeyAndRegister(ctx)) return BC_ERR_CTR_NO_KEY;
  if (in_length == 0) return BC_OK;

  uint32_t pos = StartPosition(ctx);
  for (uint32_t i = 0; i < in_length; ++i) {
    if (pos == 0) {
      ctx->block_function(ctx->reg, ctx->keystream, ctx->key_schedule);
      IncrementCounter(ctx->reg);
    }
    out[i] = static_cast<unsigned char>(ctx->keystream[pos] ^ in[i]);
    pos = (pos + 1) % kBlock;
  }
  *out_length = in_length;
  return BC_OK;
}

}  // namespace tessmar::crypto
