// The local server signature: the "server" and "verify-server" commands.
// The signature of a program at P lives in P followed by ".sig" and holds
// only the Base64 text, which is how the library reads it back.
#include <cstdio>
#include <string>

#include "commands.h"
#include "file_io.h"
#include "tessmar/signature.h"

namespace tessmar::sign {
namespace {

std::string SignatureFileOf(const std::string& file) { return file + ".sig"; }

}  // namespace

Outcome SignServer(const std::string& file) {
  const std::string problem = SigningProblem(file);
  if (!problem.empty()) return Failure(problem);
  const std::string text = MakeBase64Encode(makeLocalServerSig(file));
  if (text.empty()) return Failure(file + ": could not compute the signature");
  const std::string sig_file = SignatureFileOf(file);
  std::string error;
  if (!WriteFileAtomically(sig_file, text, &error)) return Failure(error);
  std::printf("wrote %s\n", sig_file.c_str());
  return Success();
}

Outcome VerifyServer(const std::string& file) {
  const std::string problem = SigningProblem(file);
  if (!problem.empty()) return Failure(problem);
  // The verdict is the library's; the rest explains a failure.
  if (CheckLocalServerSignature(file.c_str())) {
    std::printf("%s: signature valid\n", file.c_str());
    return Success();
  }
  const std::string sig_file = SignatureFileOf(file);
  std::string stored;
  std::string error;
  bool missing = false;
  if (!ReadWholeFile(sig_file, &stored, &error, &missing)) {
    if (missing) return Invalid("no signature file " + sig_file);
    return Failure(error);
  }
  if (MakeBase64Decode(stored).size() != 32) {
    return Invalid(sig_file + " does not hold a valid signature text");
  }
  return Invalid("signature in " + sig_file + " does not match " + file);
}

}  // namespace tessmar::sign
