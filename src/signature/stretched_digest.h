// The ten-round strengthened SHA-256 shared by the client module and local
// server signatures.
#ifndef TESSMAR_SRC_SIGNATURE_STRETCHED_DIGEST_H
#define TESSMAR_SRC_SIGNATURE_STRETCHED_DIGEST_H

#include <string>

namespace tessmar {

// acc = seed; ten times: H = SHA-256(acc),
//   acc += SHA-256(MD5(second half of H) + MD5(first half of H));
// then SHA-256(acc). Returns 32 raw bytes ("" for an empty seed).
std::string MakeStretchedDigest(const std::string& seed);

// MakeStretchedDigest(prefix + ReadFileData(path)) for a file that reads
// whole and is not empty; "" otherwise, as ReadFileData's "" would give. The
// file is read in pieces straight into the hash, never held whole.
std::string MakeStretchedDigestOfFile(const std::string& prefix,
                                      const std::string& path);

}  // namespace tessmar

#endif  // TESSMAR_SRC_SIGNATURE_STRETCHED_DIGEST_H
