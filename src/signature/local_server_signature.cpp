// Local server signatures: the strengthened SHA-256 of the program's bytes
// alone (no salt, no path), stored as Base64 in the program's path + ".sig".
#include <string>

#include "signature/stretched_digest.h"
#include "tessmar/signature.h"

std::string makeLocalServerSig(std::string path) {
  if (path.empty()) return std::string();
  return tessmar::MakeStretchedDigestOfFile(std::string(), path);
}

bool CheckLocalServerSig(std::string path) {
  const std::string sig = makeLocalServerSig(path);
  if (sig.empty()) return false;
  return MakeBase64Decode(ReadFileData(path + ".sig")) == sig;
}

bool CheckLocalServerSignature(const char* path) {
  return CheckLocalServerSig(path != nullptr ? path : "");
}
