#include "signature/stretched_digest.h"

#include "tessmar/digest.h"
#include "tessmar/signature.h"

namespace tessmar {
namespace {

// The SHA-256 digest of what `state` has absorbed followed by `more`.
std::string FinishSha256(sha256_state_structure state, const std::string& more) {
  if (!more.empty()) {
    update_SHA256(&state, reinterpret_cast<const unsigned char*>(more.data()),
                  static_cast<unsigned>(more.size()));
  }
  unsigned char digest[SHA256_DIGEST_SIZE];
  final_SHA256(&state, digest);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

}  // namespace

std::string MakeStretchedDigest(const std::string& seed) {
  // Every digest of an empty text is "", so an empty seed stretches to "".
  if (seed.empty()) return std::string();
  // The accumulator is the seed followed by the blocks appended so far. Its
  // digest continues from the state after the seed's whole 64-byte blocks,
  // which are hashed once, with the seed's tail and the appended blocks: the
  // file is read by the hash once, not eleven times, and never copied.
  sha256_state_structure head;
  init_SHA256(&head);
  const std::size_t whole = seed.size() - seed.size() % 64;
  if (whole > 0) {
    update_SHA256(&head, reinterpret_cast<const unsigned char*>(seed.data()),
                  static_cast<unsigned>(whole));
  }
  std::string rest = seed.substr(whole);
  rest.reserve(rest.size() + 10 * 32);
  for (int round = 0; round < 10; ++round) {
    const std::string h = FinishSha256(head, rest);
    const std::string first = MakeDigestMD5(h.substr(0, 16));
    const std::string second = MakeDigestMD5(h.substr(16));
    // The digest of the second half deliberately comes first.
    rest += MakeDigestSHA256(second + first);
  }
  return FinishSha256(head, rest);
}

}  // namespace tessmar
