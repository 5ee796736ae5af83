// The exported AES calls. Argument checks live here; the work is done by the
// variant in use (aes_variant.h), so every caller gets the same core.
#include "tessmar/aes.h"

#include <cstdint>

#include "crypto/aes_variant.h"

using tessmar::crypto::ActiveAes;

extern "C" void AES_round_key(const unsigned char* key, uint32_t key_length,
                              aes_key_schedule* schedule, int direction) {
  if (key == nullptr || schedule == nullptr) return;
  if (key_length != 16 && key_length != 24 && key_length != 32) return;
  // Only the low 16 bits of the direction count.
  const bool encrypt =
      static_cast<uint16_t>(direction) == AES_DIRECTION_ENCRYPT;
  ActiveAes().expand_key(key, key_length / 4, schedule, encrypt);
}

extern "C" void AES_encrypt_block(const unsigned char* in, unsigned char* out,
                                  const aes_key_schedule* schedule) {
  if (in == nullptr || out == nullptr || schedule == nullptr) return;
  ActiveAes().encrypt_block(in, out, schedule);
}

extern "C" void AES_decrypt_block(const unsigned char* in, unsigned char* out,
                                  const aes_key_schedule* schedule) {
  if (in == nullptr || out == nullptr || schedule == nullptr) return;
  ActiveAes().decrypt_block(in, out, schedule);
}
