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

// Beside "Sig", config.json keeps one digest per covered file, in members
// "SigFile:<file name>". The library reads only "Sig"; these let
// verify-install name the files that changed since signing, which the one
// combined signature cannot tell.
constexpr char kPartPrefix[] = "SigFile:";

std::string BaseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string PartDigest(const std::string& file) {
  // An absent file counts as empty, as in the library's signature.
  return MakeBase64Encode(MakeDigestSHA256(BaseName(file) + ReadFileData(file)));
}

std::vector<StringMember> PartMembers() {
  std::vector<StringMember> parts;
  for (const std::string& file : CoveredFiles(std::string())) {
    parts.push_back({kPartPrefix + BaseName(file), PartDigest(file)});
  }
  return parts;
}

// "the files in DIR" narrowed down to the changed ones, when config.json
// holds their digests.
std::string ChangedFiles(const json_value& config, const std::string& install) {
  std::string changed;
  for (const std::string& file : CoveredFiles(std::string())) {
    const std::string stored =
        StringValue(config, (kPartPrefix + BaseName(file)).c_str());
    if (stored.empty()) {
      return "the files in " + install +
             " (sign it with tessmar-sign install to have changed files named)";
    }
    if (stored != PartDigest(file)) {
      changed += (changed.empty() ? "" : ", ") + file;
    }
  }
  if (changed.empty()) return "the files in " + install;
  return "the files in " + install + "; changed since signing: " + changed;
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
  std::vector<StringMember> updates = PartMembers();
  updates.push_back({"Sig", MakeBase64Encode(digest)});
  if (!UpdateJsonFile(header, updates, /*create=*/false, &error)) {
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

// Why the library refuses the installation, with `absent` files listed on
// stdout when asked; Success() when it accepts it.
Outcome CheckInstalled(bool list_absent) {
  const std::string config = _GetConfigPath();
  if (config.empty()) {
    return Failure("no config.json in " + SearchedDirectories());
  }
  // The verdict is the library's own check; the rest explains a failure.
  if (CheckModuleSignature()) {
    if (list_absent) ReportAbsentFiles(std::string(), true);
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
  if (list_absent) ReportAbsentFiles(std::string(), true);
  const std::string install = StringValue(*tree.root(), "Tessmar");
  if (install.empty()) {
    return Invalid(config + " has no \"Tessmar\" string naming the installation");
  }
  const std::string stored = StringValue(*tree.root(), "Sig");
  if (stored.empty()) return Invalid(config + " holds no \"Sig\" signature");
  std::string digest;
  std::string header;
  if (!ComputeSignature(std::string(), &digest, &header, &error)) {
    return Failure(error);
  }
  if (MakeBase64Decode(stored).size() != 32) {
    return Invalid("\"Sig\" of " + config + " does not hold a valid signature text");
  }
  return Invalid("installation signature in \"Sig\" of " + config +
                 " does not match " + ChangedFiles(*tree.root(), install));
}

Outcome VerifyInstalled() {
  Outcome outcome = CheckInstalled(true);
  if (outcome.status == kExitOk) {
    std::printf("installation %s: signature valid\n",
                GetTessmarInstallPath().c_str());
  }
  return outcome;
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

Outcome InstallationProblem() { return CheckInstalled(false); }

Outcome SignInstallation(const std::string& dir) {
  return dir.empty() ? SignInstalled() : SignDirectory(dir);
}

Outcome VerifyInstallation(const std::string& dir) {
  return dir.empty() ? VerifyInstalled() : VerifyDirectory(dir);
}

}  // namespace tessmar::sign
