// The installation signature: the "install" and "verify-install" commands.
//
// Without a directory the signature covers the installed files and is stored
// as "Sig" in the config.json that the library itself reads (the header of
// the library's signature file list); with a directory it covers the files
// in that directory and goes to DIR/Tessmar.sig.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "file_io.h"
#include "json_file.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"

namespace tessmar::sign {
namespace {

// Separators of the library's signature file list; they are not escaped, so
// a path holding one cannot be signed.
constexpr char kHeaderSeparator[] = "_SS_";
constexpr char kEntrySeparator[] = "_FS_";
constexpr char kPathSeparator[] = "_PS_";

std::string SeparatorProblem(const std::string& path) {
  for (const char* separator :
       {kHeaderSeparator, kEntrySeparator, kPathSeparator}) {
    if (path.find(separator) != std::string::npos) {
      return path + ": contains \"" + separator +
             "\", which the signature file list cannot hold";
    }
  }
  return std::string();
}

// The covered files, as the library lists them for `dir`.
std::vector<std::string> CoveredFiles(const std::string& dir) {
  std::vector<std::string> files;
  const std::vector<std::string> halves =
      SpilteFileData(GetTessmarSigFileList(dir), kHeaderSeparator);
  if (halves.size() != 2) return files;
  for (const std::string& entry : SpilteFileData(halves[1], kEntrySeparator)) {
    const std::vector<std::string> parts =
        SpilteFileData(entry, kPathSeparator);
    if (parts.size() == 2) files.push_back(parts[0]);
  }
  return files;
}

// A covered file that is missing is signed as absent. That is expected
// (not every installation has every file), so signing says nothing about it
// and verifying lists it on standard output. A file present but unusable (empty, not a
// regular file, unreadable) is signed as absent too, with a warning. False
// when no covered file is present at all: that signs nothing and is almost
// certainly the wrong directory.
bool ReportAbsentFiles(const std::string& dir, bool mention_missing) {
  bool any_present = false;
  for (const std::string& file : CoveredFiles(dir)) {
    const std::string problem = SigningProblem(file);
    if (problem.empty()) {
      any_present = true;
    } else if (access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
      if (mention_missing) {
        std::printf("absent: %s\n", file.c_str());
      }
    } else {
      std::fprintf(stderr, "tessmar-sign: warning: %s; signed as absent\n",
                   problem.c_str());
    }
  }
  return any_present;
}

// The installation digest and where the library expects it.
bool ComputeSignature(const std::string& dir, std::string* digest,
                      std::string* header, std::string* error) {
  *digest = makeSig(kProduct, kMaker, dir, *header);
  if (digest->empty() || header->empty()) {
    *error = "could not compute the installation signature";
    return false;
  }
  return true;
}

// The library takes a header containing ".sig" anywhere for a plain
// signature file, even when it names config.json.
bool ReadAsSignatureFile(const std::string& header) {
  return header.find(".sig") != std::string::npos;
}

Outcome SignInstalled() {
  const std::string config = _GetConfigPath();
  if (config.empty()) {
    return Failure("no config.json in " + SearchedDirectories() +
                   " to store the signature in");
  }
  if (ReadAsSignatureFile(config)) {
    return Failure(
        config +
        ": the library reads this path as a plain signature file "
        "(it contains \".sig\"), so a \"Sig\" member would not count");
  }
  // Refuse a broken file before anything is computed or written.
  JsonTree tree;
  std::string error;
  if (!LoadJsonObject(config, &tree, &error)) return Failure(error);
  const std::string install = GetTessmarInstallPath();
  if (install.empty()) {
    return Failure(config +
                   ": no \"Tessmar\" string naming the installation directory");
  }
  for (const std::string* path : {&config, &install}) {
    const std::string problem = SeparatorProblem(*path);
    if (!problem.empty()) return Failure(problem);
  }
  if (!ReportAbsentFiles(std::string(), false)) {
    return Failure("none of the covered files exists in " + install);
  }

  std::string digest;
  std::string header;
  if (!ComputeSignature(std::string(), &digest, &header, &error)) {
    return Failure(error);
  }
  if (!UpdateJsonFile(header, {{"Sig", MakeBase64Encode(digest)}},
                      /*create=*/false, &error)) {
    return Failure(error);
  }
  std::printf("installation %s: signature stored in %s\n", install.c_str(),
              header.c_str());
  return Success();
}

Outcome SignDirectory(const std::string& dir) {
  std::string error;
  if (!IsDirectory(dir, &error)) return Failure(error);
  const std::string problem = SeparatorProblem(dir);
  if (!problem.empty()) return Failure(problem);
  if (!ReportAbsentFiles(dir, false)) {
    return Failure("none of the covered files exists in " + dir);
  }
  std::string digest;
  std::string header;
  if (!ComputeSignature(dir, &digest, &header, &error)) return Failure(error);
  if (!WriteFileAtomically(header, MakeBase64Encode(digest), &error)) {
    return Failure(error);
  }
  std::printf("wrote %s\n", header.c_str());
  return Success();
}

// Why a stored text does not vouch for `digest`.
Outcome Mismatch(const std::string& stored, const std::string& where,
                 const std::string& files) {
  if (MakeBase64Decode(stored).size() != 32) {
    return Invalid(where + " does not hold a valid signature text");
  }
  return Invalid("installation signature in " + where +
                 " does not match the files in " + files);
}

Outcome VerifyInstalled() {
  const std::string config = _GetConfigPath();
  if (config.empty()) {
    return Failure("no config.json in " + SearchedDirectories());
  }
  // The verdict is the library's own check; the rest explains a failure.
  if (CheckModuleSignature()) {
    ReportAbsentFiles(std::string(), true);
    std::printf("installation %s: signature valid\n",
                GetTessmarInstallPath().c_str());
    return Success();
  }
  if (ReadAsSignatureFile(config)) {
    return Invalid(config +
                   ": the library reads this path as a plain signature file "
                   "(it contains \".sig\")");
  }
  JsonTree tree;
  std::string error;
  if (!LoadJsonObject(config, &tree, &error)) return Failure(error);
  ReportAbsentFiles(std::string(), true);
  const std::string stored = StringValue(*tree.root(), "Sig");
  if (stored.empty()) return Invalid(config + " holds no \"Sig\" signature");
  std::string digest;
  std::string header;
  if (!ComputeSignature(std::string(), &digest, &header, &error)) {
    return Failure(error);
  }
  return Mismatch(stored, "\"Sig\" of " + config,
                  StringValue(*tree.root(), "Tessmar"));
}

Outcome VerifyDirectory(const std::string& dir) {
  std::string error;
  if (!IsDirectory(dir, &error)) return Failure(error);
  ReportAbsentFiles(dir, true);
  std::string digest;
  std::string header;
  if (!ComputeSignature(dir, &digest, &header, &error)) return Failure(error);
  std::string stored;
  bool missing = false;
  if (!ReadWholeFile(header, &stored, &error, &missing)) {
    if (missing) return Invalid("no signature file " + header);
    return Failure(error);
  }
  // The same comparison as the library's check of the installed files.
  if (MakeBase64Decode(stored) != digest) return Mismatch(stored, header, dir);
  std::printf("%s: signature valid\n", header.c_str());
  return Success();
}

}  // namespace

Outcome SignInstallation(const std::string& dir) {
  return dir.empty() ? SignInstalled() : SignDirectory(dir);
}

Outcome VerifyInstallation(const std::string& dir) {
  return dir.empty() ? VerifyInstalled() : VerifyDirectory(dir);
}

}  // namespace tessmar::sign
