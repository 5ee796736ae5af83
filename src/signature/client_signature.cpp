// Client module signatures: the strengthened SHA-256 of the module file,
// salted with the product and maker words, stored as the module file's "Sig".
#include <string>

#include "config/build_identity.h"
#include "signature/stretched_digest.h"
#include "tessmar/signature.h"

namespace {
std::string Text(const char* text) { return text != nullptr ? text : ""; }
}  // namespace

std::string makeClientSig(std::string product, std::string maker,
                          std::string path) {
  if (path.empty()) return std::string();
  // An empty module file yields no signature at all, so it can never pass.
  return tessmar::MakeStretchedDigestOfFile(
      product + maker + MakeDigestSHA256(product + maker), path);
}

bool CheckClientSig(std::string product, std::string maker, std::string path,
                    std::string sigText) {
  // Decided by the build's own identity, never by the words passed in.
  if (tessmar::BuildSkipsClientSignatureCheck()) return true;
  const std::string sig = makeClientSig(product, maker, path);
  if (sig.empty()) return false;
  return MakeBase64Decode(sigText) == sig;
}

bool CheckQXClientModuleSignature(const char* path, const char* sigText) {
  const tessmar::BuildIdentity& self = tessmar::ThisBuild();
  return CheckClientSig(self.product, self.maker, Text(path), Text(sigText));
}

bool CheckQXClientModuleSignature2(const char* product, const char* maker,
                                   const char* path, const char* sigText) {
  return CheckClientSig(Text(product), Text(maker), Text(path), Text(sigText));
}
