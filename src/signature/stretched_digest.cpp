#include "signature/stretched_digest.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "bytes/regular_file.h"
#include "tessmar/digest.h"
#include "tessmar/signature.h"

namespace tessmar {
namespace {

void Absorb(sha256_state_structure* state, const char* data, std::size_t size) {
  if (size > 0) {
    update_SHA256(state, reinterpret_cast<const unsigned char*>(data),
                  static_cast<unsigned>(size));
  }
}

// The SHA-256 digest of what `state` has absorbed followed by `more`.
std::string FinishSha256(sha256_state_structure state, const std::string& more) {
  Absorb(&state, more.data(), more.size());
  unsigned char digest[SHA256_DIGEST_SIZE];
  final_SHA256(&state, digest);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

// Builds the seed piece by piece: everything up to the last whole 64-byte
// block of the final seed goes into `head`, the rest into `tail`.
class SeedAbsorber {
 public:
  explicit SeedAbsorber(std::size_t seed_size)
      : to_absorb_(seed_size - seed_size % 64) {
    init_SHA256(&head_);
  }
  void Add(const char* data, std::size_t size) {
    const std::size_t now = size < to_absorb_ ? size : to_absorb_;
    Absorb(&head_, data, now);
    to_absorb_ -= now;
    tail_.append(data + now, size - now);
  }
  // The ten rounds over the seed added, as MakeStretchedDigest documents.
  std::string Stretch() {
    // The accumulator is the seed followed by the blocks appended so far;
    // each of its digests continues from the state after the seed's whole
    // blocks, so the seed is hashed once and never copied.
    tail_.reserve(tail_.size() + 10 * 32);
    for (int round = 0; round < 10; ++round) {
      const std::string h = FinishSha256(head_, tail_);
      const std::string first = MakeDigestMD5(h.substr(0, 16));
      const std::string second = MakeDigestMD5(h.substr(16));
      // The digest of the second half deliberately comes first.
      tail_ += MakeDigestSHA256(second + first);
    }
    return FinishSha256(head_, tail_);
  }

 private:
  sha256_state_structure head_;
  std::size_t to_absorb_;
  std::string tail_;
};

}  // namespace

std::string MakeStretchedDigest(const std::string& seed) {
  // Every digest of an empty text is "", so an empty seed stretches to "".
  if (seed.empty()) return std::string();
  SeedAbsorber absorber(seed.size());
  absorber.Add(seed.data(), seed.size());
  return absorber.Stretch();
}

std::string MakeStretchedDigestOfFile(const std::string& prefix,
                                      const std::string& path) {
  // Read as ReadFileData reads: a regular file under 2 GiB, whole or not at
  // all; but in pieces, straight into the hash, so a large module is never
  // held in memory.
  off_t end = 0;
  const int fd = OpenRegularFile(path, &end);
  if (fd < 0) return std::string();
  std::string result;
  if (end > 0 && end <= INT32_MAX) {
    const std::size_t size = static_cast<std::size_t>(end);
    SeedAbsorber absorber(prefix.size() + size);
    absorber.Add(prefix.data(), prefix.size());
    std::vector<char> buffer(std::size_t{1} << 20);
    std::size_t done = 0;
    while (done < size) {
      const std::size_t want = std::min(buffer.size(), size - done);
      const ssize_t got = read(fd, buffer.data(), want);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      absorber.Add(buffer.data(), static_cast<std::size_t>(got));
      done += static_cast<std::size_t>(got);
    }
    if (done == size) result = absorber.Stretch();
  }
  close(fd);
  return result;
}

}  // namespace tessmar
