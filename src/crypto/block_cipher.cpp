// The streaming block-cipher context: keying, the buffering of partial
// blocks between updates, PKCS#7 padding and its removal. The chaining
// itself lives in block_cipher_modes.cpp.
#include "tessmar/block_cipher.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "crypto/block_cipher_modes.h"

namespace {

using tessmar::crypto::crypt_CBC;
using tessmar::crypto::crypt_CFB;
using tessmar::crypto::crypt_CTR;
using tessmar::crypto::crypt_ECB;
using tessmar::crypto::crypt_OFB;

// Zero fill that the compiler may not drop even when the memory is freed
// right after.
void Wipe(void* p, size_t n) {
  volatile unsigned char* v = static_cast<volatile unsigned char*>(p);
  while (n-- > 0) *v++ = 0;
}

void ReleaseKeySchedule(BLOCK_CIPHER_CTX* ctx) {
  if (ctx->key_schedule == nullptr) return;
  Wipe(ctx->key_schedule, ctx->key_schedule_size);
  std::free(ctx->key_schedule);
  ctx->key_schedule = nullptr;
}

void ReleaseRegister(BLOCK_CIPHER_CTX* ctx) {
  if (ctx->reg == nullptr) return;
  Wipe(ctx->reg, ctx->iv_length);
  std::free(ctx->reg);
  ctx->reg = nullptr;
}

// Wipes and frees the key material, then zeroes every field (pending and
// held-back blocks hold plaintext).
void ResetContext(BLOCK_CIPHER_CTX* ctx) {
  ReleaseKeySchedule(ctx);
  ReleaseRegister(ctx);
  Wipe(ctx, sizeof *ctx);
}

bool IsEncrypting(const BLOCK_CIPHER_CTX* ctx) {
  return ctx->direction == AES_DIRECTION_ENCRYPT;
}

bool IsStreamMode(uint8_t mode) {
  return mode == BC_MODE_OFB || mode == BC_MODE_CFB ||
         mode == BC_MODE_CFB_DIRECTIONAL || mode == BC_MODE_CTR;
}

bc_mode_routine SelectModeRoutine(uint8_t mode) {
  switch (mode) {
    case BC_MODE_ECB:
      return crypt_ECB;
    case BC_MODE_CBC:
      return crypt_CBC;
    case BC_MODE_OFB:
      return crypt_OFB;
    case BC_MODE_CFB:
    case BC_MODE_CFB_DIRECTIONAL:
      return crypt_CFB;
    case BC_MODE_CTR:
      return crypt_CTR;
    default:
      return nullptr;
  }
}

uint32_t KeyLengthOf(uint32_t algorithm) {
  switch (algorithm) {
    case BC_ALG_AES128:
      return 16;
    case BC_ALG_AES192:
      return 24;
    case BC_ALG_AES256:
      return 32;
    default:
      return 0;
  }
}

// Runs the mode routine over `in`, completing a pending partial block first
// and keeping any new partial block for the next call. *out_length is left
// untouched when the input only joins the pending buffer.
int RunBuffered(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
                uint32_t in_length, unsigned char* out, uint32_t* out_length) {
  const bc_mode_routine run = ctx->mode_routine;
  const uint32_t block = ctx->block_size;
  // An unkeyed context has no routine; the size checks keep the pending
  // buffer indexing in bounds whatever the context holds.
  if (run == nullptr || block == 0 || block > sizeof ctx->pending ||
      ctx->pending_count >= block) {
    *out_length = 0;
    return BC_ERR_UPDATE_MODE;
  }

  if (ctx->pending_count == 0) {
    uint32_t produced = 0;
    if (run(ctx, in, in_length, out, &produced) != BC_OK) {
      *out_length = 0;
      return BC_ERR_UPDATE_MODE;
    }
    const uint32_t left = in_length - produced;
    std::memcpy(ctx->pending, in + produced, left);
    ctx->pending_count = left;
    *out_length = produced;
    return BC_OK;
  }

  if (in_length < block - ctx->pending_count) {
    std::memcpy(ctx->pending + ctx->pending_count, in, in_length);
    ctx->pending_count += in_length;
    return BC_OK;
  }

  const uint32_t fill = block - ctx->pending_count;
  std::memcpy(ctx->pending + ctx->pending_count, in, fill);
  uint32_t first = 0;
  if (run(ctx, ctx->pending, block, out, &first) != BC_OK) {
    *out_length = 0;
    return BC_ERR_UPDATE_MODE;
  }
  const unsigned char* rest = in + fill;
  const uint32_t rest_length = in_length - fill;
  uint32_t second = 0;
  if (run(ctx, rest, rest_length, out + first, &second) != BC_OK) {
    *out_length = 0;
    return BC_ERR_UPDATE_MODE;
  }
  const uint32_t left = rest_length - second;
  if (left > 0) {
    std::memcpy(ctx->pending, rest + second, left);
    ctx->pending_count = left;
  }
  // With nothing left over the pending count deliberately keeps its earlier
  // value, so a following final pads from that position of the block that
  // was just sent. Intended: existing ciphertexts depend on it.
  *out_length = first + second;
  return BC_OK;
}

int FinalEncrypt(BLOCK_CIPHER_CTX* ctx, unsigned char* out,
                 uint32_t* out_length) {
  const uint32_t block = ctx->block_size;
  if (block > sizeof ctx->pending) return BC_ERR_FINAL_BLOCK_SIZE;
  if (block <= 1) return BC_OK;

  const bool stream = IsStreamMode(ctx->mode);
  if (!stream) {
    if (ctx->no_padding == 1) {
      return ctx->pending_count != 0 ? BC_ERR_FINAL_UNPADDED_PARTIAL : BC_OK;
    }
    if (ctx->pending_count >= block) return BC_ERR_FINAL_MODE;
    const uint32_t pad = block - ctx->pending_count;
    std::memset(ctx->pending + ctx->pending_count, static_cast<int>(pad), pad);
  }

  // Stream modes also run one block here although nothing is pending; it
  // advances the register and emits nothing.
  if (ctx->mode_routine == nullptr) return BC_ERR_FINAL_MODE;
  unsigned char scratch[32];
  uint32_t produced = 0;
  if (ctx->mode_routine(ctx, ctx->pending, block, scratch, &produced) !=
      BC_OK) {
    return BC_ERR_FINAL_MODE;
  }
  ctx->pending_count = 0;
  std::memset(ctx->pending, 0, sizeof ctx->pending);
  if (!stream) {
    std::memcpy(out, scratch, produced);
    *out_length = produced;
  }
  Wipe(scratch, sizeof scratch);
  return BC_OK;
}

int FinalDecrypt(BLOCK_CIPHER_CTX* ctx, unsigned char* out,
                 uint32_t* out_length) {
  const uint32_t block = ctx->block_size;

  if (IsStreamMode(ctx->mode)) {
    // Stream routines consume all their input, so through this interface
    // nothing is ever pending here; the branch stays for completeness.
    if (ctx->pending_count == 0) return BC_OK;
    if (ctx->mode_routine == nullptr || block > sizeof ctx->pending ||
        ctx->pending_count > block) {
      return BC_ERR_FINAL_MODE;
    }
    unsigned char scratch[32];
    uint32_t produced = 0;
    if (ctx->mode_routine(ctx, ctx->pending, block, scratch, &produced) !=
        BC_OK) {
      return BC_ERR_FINAL_MODE;
    }
    std::memcpy(out, scratch, ctx->pending_count);
    *out_length = ctx->pending_count;
    ctx->pending_count = 0;
    Wipe(ctx->pending, sizeof ctx->pending);
    Wipe(scratch, sizeof scratch);
    return BC_OK;
  }

  if (ctx->no_padding == 1) {
    return ctx->pending_count != 0 ? BC_ERR_FINAL_DECRYPT_PARTIAL : BC_OK;
  }

  if (ctx->pending_count != 0 || ctx->held_back_count == 0 ||
      ctx->held_back_count < block || block < 2 ||
      block > sizeof ctx->held_back) {
    return BC_ERR_FINAL_DECRYPT_PARTIAL;
  }
  const uint32_t pad = ctx->held_back[block - 1];
  if (pad == 0 || pad > block) return BC_ERR_FINAL_BAD_PADDING;
  for (uint32_t i = block - pad; i < block - 1; ++i) {
    if (ctx->held_back[i] != pad) return BC_ERR_FINAL_BAD_PADDING;
  }
  std::memcpy(out, ctx->held_back, block - pad);
  *out_length = block - pad;
  ctx->held_back_count = 0;
  Wipe(ctx->held_back, sizeof ctx->held_back);
  return BC_OK;
}

}  // namespace

extern "C" {

int init_AES(BLOCK_CIPHER_CTX* ctx, const unsigned char* key,
             const unsigned char* iv, int direction) {
  if (ctx == nullptr) return BC_ERR_AES_NULL_CTX;
  const bool encrypt =
      static_cast<uint16_t>(direction) == AES_DIRECTION_ENCRYPT;

  if (key != nullptr) {
    ReleaseKeySchedule(ctx);
    ctx->key_length = KeyLengthOf(ctx->algorithm);
    ctx->key_schedule_size = sizeof(aes_key_schedule);
    // calloc clears the area, round count included, so an unknown key
    // length leaves an all-zero schedule. A failed allocation leaves the
    // context without a schedule; its routines then refuse to run.
    ctx->key_schedule = static_cast<aes_key_schedule*>(
        std::calloc(1, sizeof(aes_key_schedule)));
    if (ctx->key_schedule != nullptr) {
      AES_round_key(key, ctx->key_length, ctx->key_schedule,
                    encrypt ? AES_DIRECTION_ENCRYPT : 0);
    }
  }

  if (iv != nullptr) {
    ReleaseRegister(ctx);
    ctx->iv_length = AES_BLOCK_SIZE;
    ctx->reg = static_cast<unsigned char*>(std::malloc(AES_BLOCK_SIZE));
    if (ctx->reg != nullptr) std::memcpy(ctx->reg, iv, AES_BLOCK_SIZE);
  }

  ctx->block_size = AES_BLOCK_SIZE;
  ctx->block_function = encrypt ? AES_encrypt_block : AES_decrypt_block;
  return BC_OK;
}

BLOCK_CIPHER_CTX* new_BLOCK_CIPHER_CTX(void) {
  return static_cast<BLOCK_CIPHER_CTX*>(
      std::calloc(1, sizeof(BLOCK_CIPHER_CTX)));
}

void free_BLOCK_CIPHER_CTX(BLOCK_CIPHER_CTX* ctx) {
  if (ctx == nullptr) return;
  ResetContext(ctx);
  std::free(ctx);
}

int init_BlockCipher(BLOCK_CIPHER_CTX* ctx, uint32_t algorithm, uint8_t mode,
                     uint8_t no_padding, const unsigned char* key,
                     const unsigned char* iv, int direction) {
  if (ctx == nullptr) return BC_ERR_INIT_NULL_CTX;
  ResetContext(ctx);

  if (KeyLengthOf(algorithm) == 0) return BC_ERR_INIT_UNKNOWN;
  ctx->algorithm = algorithm;
  ctx->mode = mode;
  ctx->no_padding = no_padding;
  ctx->algorithm_init = init_AES;

  ctx->mode_routine = SelectModeRoutine(mode);
  if (ctx->mode_routine == nullptr) return BC_ERR_INIT_UNKNOWN;
  if (IsStreamMode(mode)) ctx->no_padding = 1;

  // Keystream position, pending and held-back state are already zero from
  // the reset.
  ctx->direction = static_cast<uint16_t>(direction);

  // OFB, CFB and CTR only ever encrypt the register; 0x46 is the exception
  // and keys the caller's direction.
  const bool encrypt_only =
      mode == BC_MODE_OFB || mode == BC_MODE_CFB || mode == BC_MODE_CTR;
  return ctx->algorithm_init(ctx, key, iv,
                             encrypt_only ? AES_DIRECTION_ENCRYPT : direction);
}

int update_BlockCipher(BLOCK_CIPHER_CTX* ctx, const unsigned char* in,
                       uint32_t in_length, unsigned char* out,
                       uint32_t* out_length) {
  if (in == nullptr || ctx == nullptr || out == nullptr ||
      out_length == nullptr || in_length == 0) {
    return BC_ERR_UPDATE_ARGS;
  }
  if (IsEncrypting(ctx) || ctx->no_padding == 1) {
    return RunBuffered(ctx, in, in_length, out, out_length);
  }

  // Padded decryption holds back the last block emitted by this call for
  // final to strip; a block held back by an earlier call is overwritten, so
  // padded ciphertext is meant to arrive in one update. A call that emits
  // less than one block (its input only joined the pending buffer) holds
  // nothing back: the earlier held-back block stays and the output length
  // is 0, since holding back would reach before the start of the output.
  uint32_t produced = 0;
  if (RunBuffered(ctx, in, in_length, out, &produced) != BC_OK) {
    *out_length = 0;
    return BC_ERR_UPDATE_PADDED;
  }
  const uint32_t block = ctx->block_size;
  if (block >= 2 && produced >= block) {
    std::memcpy(ctx->held_back, out + produced - block, block);
    ctx->held_back_count = block;
    produced -= block;
  }
  *out_length = produced;
  return BC_OK;
}

int final_BlockCipher(BLOCK_CIPHER_CTX* ctx, unsigned char* out,
                      uint32_t* out_length) {
  if (out == nullptr || ctx == nullptr || out_length == nullptr) {
    return BC_ERR_FINAL_ARGS;
  }
  *out_length = 0;
  return IsEncrypting(ctx) ? FinalEncrypt(ctx, out, out_length)
                           : FinalDecrypt(ctx, out, out_length);
}

}  // extern "C"
