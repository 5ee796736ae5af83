#include "signature/stretched_digest.h"

#include "tessmar/signature.h"

namespace tessmar {

std::string MakeStretchedDigest(const std::string& seed) {
  std::string acc = seed;
  acc.reserve(seed.size() + 10 * 32);
  for (int round = 0; round < 10; ++round) {
    const std::string h = MakeDigestSHA256(acc);
    const std::string first = MakeDigestMD5(h.substr(0, 16));
    const std::string second = MakeDigestMD5(h.substr(h.size() < 16 ? 0 : 16));
    // The digest of the second half deliberately comes first.
    acc += MakeDigestSHA256(second + first);
  }
  return MakeDigestSHA256(acc);
}

}  // namespace tessmar
