// Mode routines of the block-cipher context. See block_cipher_modes.h.
#include "crypto/block_cipher_modes.h"

#include "crypto/aes_generic_modes.h"
#include "crypto/aes_variant.h"

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

// Which cipher the context's block function is: one of ours, whose bulk
// functions can stand in for it, or something else, called block by block.
enum class Core { kEncrypt, kDecrypt, kOther };

Core CoreOf(const BLOCK_CIPHER_CTX* ctx) {
  if (ctx->block_function == AES_encrypt_block) return Core::kEncrypt;
  if (ctx->block_function == AES_decrypt_block) return Core::kDecrypt;
  return Core::kOther;
}

// The context's block function as a callable for the generic loops.
struct BlockFunction {
  const BLOCK_CIPHER_CTX* ctx;
  void operator()(const unsigned char* in, unsigned char* out) const {
    ctx->block_function(in, out, ctx->key_schedule);
  }
};

}  // namespace

int crypt_ECB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_ECB_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_ECB_NULL_DATA;
  if (!HasKey(ctx)) return BC_ERR_ECB_NO_KEY;
  const uint32_t blocks = in_length / kBlock;
  if (blocks == 0) return BC_OK;
  switch (CoreOf(ctx)) {
    case Core::kEncrypt:
      ActiveAes().ecb_encrypt(ctx->key_schedule, in, out, blocks);
      break;
    case Core::kDecrypt:
      ActiveAes().ecb_decrypt(ctx->key_schedule, in, out, blocks);
      break;
    case Core::kOther:
      generic::Ecb(BlockFunction{ctx}, in, out, blocks);
      break;
  }
  *out_length = blocks * kBlock;
  return BC_OK;
}

int crypt_CBC(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_CBC_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_CBC_NULL_DATA;
  if (!HasKey(ctx)) return BC_ERR_CBC_NO_KEY;
  if (ctx->reg == nullptr) return BC_ERR_CBC_NO_REGISTER;
  const uint32_t blocks = in_length / kBlock;
  if (blocks == 0) return BC_OK;

  // The register ends as the last ciphertext block either way; decrypting
  // in place keeps the ciphertext needed for chaining.
  const Core core = CoreOf(ctx);
  if (ctx->direction == AES_DIRECTION_ENCRYPT) {
    if (core == Core::kEncrypt) {
      ActiveAes().cbc_encrypt(ctx->key_schedule, ctx->reg, in, out, blocks);
    } else {
      generic::CbcEncrypt(BlockFunction{ctx}, ctx->reg, in, out, blocks);
    }
  } else {
    if (core == Core::kDecrypt) {
      ActiveAes().cbc_decrypt(ctx->key_schedule, ctx->reg, in, out, blocks);
    } else {
      generic::CbcDecrypt(BlockFunction{ctx}, ctx->reg, in, out, blocks);
    }
  }
  *out_length = blocks * kBlock;
  return BC_OK;
}

// The stream modes run in three stretches: the rest of the block a stored
// position points into (only a tampered context has one), whole blocks, and
// the first bytes of one fresh block.

int crypt_OFB(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
              uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  if (out_length == nullptr) return BC_ERR_OFB_NULL_DATA;
  *out_length = 0;
  if (in == nullptr || out == nullptr) return BC_ERR_OFB_NULL_DATA;
  if (!HasKeyAndRegister(ctx)) return BC_ERR_OFB_NO_KEY;
  if (in_length == 0) return BC_OK;

  unsigned char* reg = ctx->reg;
  uint32_t i = 0;
  for (uint32_t pos = StartPosition(ctx); pos != 0 && i < in_length;
       ++i, pos = (pos + 1) % kBlock) {
    out[i] = static_cast<unsigned char>(reg[pos] ^ in[i]);
  }
  const uint32_t blocks = (in_length - i) / kBlock;
  if (blocks > 0) {
    if (CoreOf(ctx) == Core::kEncrypt) {
      ActiveAes().ofb(ctx->key_schedule, reg, in + i, out + i, blocks);
    } else {
      generic::Ofb(BlockFunction{ctx}, reg, in + i, out + i, blocks);
    }
    i += blocks * kBlock;
  }
  if (i < in_length) {
    ctx->block_function(reg, reg, ctx->key_schedule);
    for (uint32_t pos = 0; i < in_length; ++i, ++pos) {
      out[i] = static_cast<unsigned char>(reg[pos] ^ in[i]);
    }
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
  unsigned char* reg = ctx->reg;
  auto feed_byte = [&](uint32_t i, uint32_t pos) {
    const unsigned char input = in[i];
    const unsigned char output = static_cast<unsigned char>(reg[pos] ^ input);
    out[i] = output;
    reg[pos] = encrypting ? output : input;
  };

  uint32_t i = 0;
  for (uint32_t pos = StartPosition(ctx); pos != 0 && i < in_length;
       ++i, pos = (pos + 1) % kBlock) {
    feed_byte(i, pos);
  }
  const uint32_t blocks = (in_length - i) / kBlock;
  if (blocks > 0) {
    const AesChainFn bulk =
        CoreOf(ctx) != Core::kEncrypt ? nullptr
        : encrypting                  ? ActiveAes().cfb_encrypt
                                      : ActiveAes().cfb_decrypt;
    if (bulk != nullptr) {
      bulk(ctx->key_schedule, reg, in + i, out + i, blocks);
    } else if (encrypting) {
      generic::CfbEncrypt(BlockFunction{ctx}, reg, in + i, out + i, blocks);
    } else {
      generic::CfbDecrypt(BlockFunction{ctx}, reg, in + i, out + i, blocks);
    }
    i += blocks * kBlock;
  }
  if (i < in_length) {
    ctx->block_function(reg, reg, ctx->key_schedule);
    for (uint32_t pos = 0; i < in_length; ++i, ++pos) feed_byte(i, pos);
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

  unsigned char* keystream = ctx->keystream;
  uint32_t i = 0;
  for (uint32_t pos = StartPosition(ctx); pos != 0 && i < in_length;
       ++i, pos = (pos + 1) % kBlock) {
    out[i] = static_cast<unsigned char>(keystream[pos] ^ in[i]);
  }
  const uint32_t blocks = (in_length - i) / kBlock;
  if (blocks > 0) {
    if (CoreOf(ctx) == Core::kEncrypt) {
      ActiveAes().ctr(ctx->key_schedule, ctx->reg, in + i, out + i, blocks,
                      keystream);
    } else {
      generic::Ctr(BlockFunction{ctx}, ctx->reg, in + i, out + i, blocks,
                   keystream);
    }
    i += blocks * kBlock;
  }
  if (i < in_length) {
    ctx->block_function(ctx->reg, keystream, ctx->key_schedule);
    generic::IncrementCounter(ctx->reg);
    for (uint32_t pos = 0; i < in_length; ++i, ++pos) {
      out[i] = static_cast<unsigned char>(keystream[pos] ^ in[i]);
    }
  }
  *out_length = in_length;
  return BC_OK;
}

}  // namespace tessmar::crypto
