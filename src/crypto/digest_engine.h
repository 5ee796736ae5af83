// The init/update/final calls shared by the MD5 and SHA digests, and the
// block bookkeeping beneath them: collecting input into whole blocks, and
// padding and length-encoding the last block(s).
//
// What differs between the digests is a traits type D (see md5.cpp):
//   Context                  the exported context structure
//   kBlockSize               bytes per block
//   kLengthFieldSize         bytes of the length field closing the padding
//   kInitial                 the initial chaining state
//   CompressBlocks           compresses n consecutive blocks
//   StoreBitCount, StoreWord byte order of the length field and the digest
//   kChecksDigest            final refuses a null output pointer
//   kIndexCheckedOnEntry     final checks the block index before moving the
//                            waiting input, not only after
//   kArgs, kUpdateBlockIndex, kZeroLength, kInputCount, kFinalBlockIndex
//                            the status codes, each digest's own
//
// Every compression call is a direct call to a template argument, which the
// optimiser can inline, just as in a hand-written loop.
#ifndef TESSMAR_SRC_CRYPTO_DIGEST_ENGINE_H
#define TESSMAR_SRC_CRYPTO_DIGEST_ENGINE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tessmar::crypto {

// Feeds `length` bytes (at least one): a partly filled input buffer is
// completed and compressed first, whole blocks are then compressed straight
// from the caller's buffer, and the rest waits in the input buffer. Each
// compressed block adds its bits to the bit count. The context ends exactly
// as if every byte had passed through the input buffer: it holds the last
// whole block with the waiting bytes over its start. CompressBlocks(state,
// data, n) compresses n consecutive blocks. The caller has checked that
// input_count is at most kBlockSize. The block index and the block buffer
// are not touched.
template <uint32_t kBlockSize, auto CompressBlocks, typename Context>
inline void FeedInput(Context* ctx, const unsigned char* data,
                      uint32_t length) {
  static_assert(sizeof ctx->input == kBlockSize);
  if (ctx->input_count > 0) {
    const uint32_t room = kBlockSize - ctx->input_count;
    const uint32_t chunk = length < room ? length : room;
    std::memcpy(ctx->input + ctx->input_count, data, chunk);
    ctx->input_count = static_cast<uint8_t>(ctx->input_count + chunk);
    data += chunk;
    length -= chunk;
    if (ctx->input_count < kBlockSize) return;
    CompressBlocks(ctx->state, ctx->input, 1);
    ctx->bit_count += kBlockSize * 8;
    ctx->input_count = 0;
  }
  const uint32_t blocks = length / kBlockSize;
  if (blocks > 0) {
    CompressBlocks(ctx->state, data, blocks);
    ctx->bit_count += uint64_t{blocks} * kBlockSize * 8;
    std::memcpy(ctx->input, data + (blocks - 1) * kBlockSize, kBlockSize);
    data += blocks * kBlockSize;
    length -= blocks * kBlockSize;
  }
  if (length > 0) {
    std::memcpy(ctx->input, data, length);
    ctx->input_count = static_cast<uint8_t>(length);
  }
}

// First step of final: moves the bytes waiting in the input buffer into the
// block buffer at the block index. Should that fill the block buffer, it is
// compressed and counted and the index restarts at 0; only a corrupt context
// gets there, since a proper one arrives with index 0 and fewer than
// kBlockSize pending bytes. An index at or beyond the end of the block leaves
// no room, so nothing is copied and the caller's index check rejects it
// without any access outside the buffer.
template <uint32_t kBlockSize, auto CompressBlocks, typename Context>
inline void MovePendingInput(Context* ctx) {
  static_assert(sizeof ctx->block == kBlockSize);
  if (ctx->input_count == 0) return;
  const uint32_t room =
      ctx->block_index < kBlockSize ? kBlockSize - ctx->block_index : 0;
  const uint32_t n = ctx->input_count < room ? ctx->input_count : room;
  if (n > 0) {
    std::memcpy(ctx->block + ctx->block_index, ctx->input, n);
    ctx->block_index += n;
  }
  if (ctx->block_index == kBlockSize) {
    CompressBlocks(ctx->state, ctx->block, 1);
    ctx->bit_count += kBlockSize * 8;
    ctx->block_index = 0;
  }
}

// Counts the bytes in the block buffer, appends the 0x80 marker and zeros,
// and the length field filling the last kLengthFieldSize bytes, then
// compresses. When the marker leaves no room for the length field, the block
// is compressed first and the field goes into a fresh block of zeros. The bit
// count is written by StoreBitCount into the last 8 bytes; a 16-byte field
// keeps its upper half as padding zeros. Requires block_index < kBlockSize.
template <uint32_t kBlockSize, uint32_t kLengthFieldSize, auto StoreBitCount,
          auto CompressBlocks, typename Context>
inline void PadAndCompress(Context* ctx) {
  static_assert(sizeof ctx->block == kBlockSize);
  static_assert(kLengthFieldSize >= 8 && kLengthFieldSize < kBlockSize);
  constexpr uint32_t kFieldStart = kBlockSize - kLengthFieldSize;
  constexpr uint32_t kCountStart = kBlockSize - 8;

  const uint32_t index = ctx->block_index;
  ctx->bit_count += uint64_t{index} * 8;
  ctx->block[index] = 0x80;
  if (index >= kFieldStart) {
    std::memset(ctx->block + index + 1, 0, kBlockSize - index - 1);
    CompressBlocks(ctx->state, ctx->block, 1);
    std::memset(ctx->block, 0, kCountStart);
  } else {
    std::memset(ctx->block + index + 1, 0, kCountStart - index - 1);
  }
  StoreBitCount(ctx->block + kCountStart, ctx->bit_count);
  CompressBlocks(ctx->state, ctx->block, 1);
}

// Last step of final, after the digest has been written: the buffered
// message bytes are wiped, while the chaining state, the bit count and the
// block index intentionally keep their values.
template <typename Context>
inline void WipeMessageBuffers(Context* ctx) {
  ctx->input_count = 0;
  std::memset(ctx->input, 0, sizeof ctx->input);
  std::memset(ctx->block, 0, sizeof ctx->block);
}

template <typename D>
int InitDigest(typename D::Context* ctx) {
  if (ctx == nullptr) return D::kArgs;
  ctx->bit_count = 0;
  ctx->block_index = 0;
  static_assert(sizeof ctx->state == sizeof D::kInitial);
  std::memcpy(ctx->state, D::kInitial, sizeof ctx->state);
  std::memset(ctx->block, 0, sizeof ctx->block);
  std::memset(ctx->input, 0, sizeof ctx->input);
  ctx->input_count = 0;
  return 0;
}

// A rejected update leaves the context untouched; zero length is rejected on
// purpose. With the input count checked, the first chunk is at most the free
// room, so no check of the chunk size is needed.
template <typename D>
int UpdateDigest(typename D::Context* ctx, const unsigned char* data,
                 unsigned int length) {
  if (ctx == nullptr || data == nullptr) return D::kArgs;
  if (ctx->block_index > D::kBlockSize) return D::kUpdateBlockIndex;
  if (length == 0) return D::kZeroLength;
  if (ctx->input_count > D::kBlockSize) return D::kInputCount;
  FeedInput<D::kBlockSize, D::CompressBlocks>(ctx, data, length);
  return 0;
}

// After a check on entry the index cannot be past the block once the input
// is moved; the second check then never fails.
template <typename D>
int FinalDigest(typename D::Context* ctx, unsigned char* digest) {
  constexpr uint32_t B = D::kBlockSize;
  if (ctx == nullptr || (D::kChecksDigest && digest == nullptr)) return D::kArgs;
  if (D::kIndexCheckedOnEntry && ctx->block_index > B - 1) return D::kArgs;
  MovePendingInput<B, D::CompressBlocks>(ctx);
  if (ctx->block_index > B - 1) return D::kFinalBlockIndex;
  PadAndCompress<B, D::kLengthFieldSize, D::StoreBitCount, D::CompressBlocks>(
      ctx);
  constexpr std::size_t kWord = sizeof ctx->state[0];
  for (std::size_t i = 0; i < sizeof ctx->state / kWord; ++i) {
    D::StoreWord(digest + kWord * i, ctx->state[i]);
  }
  WipeMessageBuffers(ctx);
  return 0;
}

}  // namespace tessmar::crypto

#endif  // TESSMAR_SRC_CRYPTO_DIGEST_ENGINE_H
