// A program built out of tree against an installed Tessmar: calls exported
// digest, Base64 and signature functions and prints what they give.
#include <cstdio>
#include <string>

#include "tessmar/base64.h"
#include "tessmar/digest.h"
#include "tessmar/signature.h"

int main(int, char** argv) {
  // A client signature of this program, checked against itself.
  const std::string sig = MakeBase64Encode(makeClientSig("morrowhost", "pelmora", argv[0]));
  const bool ok = CheckQXClientModuleSignature(argv[0], sig.c_str());
  std::printf("%s\n%s\n", MakeBase64Encode(MakeDigestSHA256("abc")).c_str(),
              ok ? "signature ok" : "signature bad");
}
