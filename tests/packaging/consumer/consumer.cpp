// A program built out of tree against an installed Tessmar: calls exported
// crypto and signature functions and prints what they give.
#include <cstdio>
#include <string>

#include "tessmar/base64.h"
#include "tessmar/digest.h"
#include "tessmar/signature.h"

int main(int argc, char** argv) {
  sha256_state_structure context;
  unsigned char digest[32];
  const unsigned char abc[] = {'a', 'b', 'c'};
  if (init_SHA256(&context) != 0 || update_SHA256(&context, abc, 3) != 0 ||
      final_SHA256(&context, digest) != 0) {
    return 1;
  }
  for (unsigned char byte : digest) std::printf("%02x", byte);
  // A client signature of this program, checked against itself.
  const std::string sig =
      MakeBase64Encode(makeClientSig("morrowhost", "pelmora", argv[0]));
  const bool ok = CheckQXClientModuleSignature(argv[0], sig.c_str());
  std::printf("\n%s\n%s\n", MakeBase64Encode(MakeDigestSHA256("abc")).c_str(),
              ok ? "signature ok" : "signature bad");
  return argc == 1 ? 0 : 1;
}
