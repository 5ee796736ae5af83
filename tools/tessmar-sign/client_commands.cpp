// Client module signatures: the "client", "module", "verify-client" and
// "verify-module" commands.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "config_directory.h"
#include "file_io.h"
#include "json_file.h"
#include "tessmar/config.h"
#include "tessmar/signature.h"
#include "trial_load.h"

namespace tessmar::sign {

using tools::kSystemConfigDirectory;
namespace {

// The library hands out this text instead of a path when a verified lookup
// fails.
constexpr char kBlockClient[] = "BLOCK:CLIENT";

// The module name becomes a file name in the configuration directory.
std::string ModuleNameProblem(const std::string& name) {
  if (name.empty()) return "the module name is empty";
  if (name == "." || name == ".." || name.find('/') != std::string::npos) {
    return "module name '" + name + "' is not a plain file name";
  }
  return std::string();
}

std::string Quoted(const std::string& name) { return "module '" + name + "'"; }

bool UserConfigDirectory(std::string* directory, std::string* error) {
  // HOME is the only variable the library reads, and the only one used here.
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') {
    *error = "HOME is not set; give the directory with --config-dir DIR";
    return false;
  }
  *directory = std::string(home) + kUserConfigSubdirectory;
  return true;
}

}  // namespace

std::string SearchedDirectories() {
  std::string user;
  std::string ignored;
  if (!UserConfigDirectory(&user, &ignored)) return kSystemConfigDirectory;
  return user + " or " + kSystemConfigDirectory;
}

namespace {

// The Base64 client signature text of `file`, as stored in "Sig".
bool ClientSignatureText(const std::string& file, std::string* text,
                         std::string* error) {
  *error = SigningProblem(file);
  if (!error->empty()) return false;
  *text = MakeBase64Encode(makeClientSig(kProduct, kMaker, file));
  if (text->empty()) {
    *error = file + ": could not compute the client signature";
    return false;
  }
  return true;
}

// Why a signature text that failed the check failed.
Outcome Mismatch(const std::string& subject, const std::string& signature,
                 const std::string& where, const std::string& file) {
  // Every valid text decodes to the 32 bytes of a SHA-256 digest.
  if (MakeBase64Decode(signature).size() != 32) {
    return Invalid(subject + where + " is not a valid signature text");
  }
  return Invalid(subject + "signature does not match " + file);
}

}  // namespace

Outcome SignClient(const std::string& file) {
  std::string text;
  std::string error;
  if (!ClientSignatureText(file, &text, &error)) return Failure(error);
  std::printf("%s\n", text.c_str());
  return Success();
}

Outcome SignModule(const ModuleRequest& request) {
  std::string problem = ModuleNameProblem(request.name);
  if (!problem.empty()) return Failure(problem);

  // "Path" is what the library will load and check, so it must not depend
  // on the directory the installer happened to run in.
  std::string path;
  std::string error;
  problem = SigningProblem(request.file);
  if (!problem.empty()) return Failure(problem);
  if (!AbsolutePath(request.file, &path, &error)) return Failure(error);
  std::string text;
  if (!ClientSignatureText(path, &text, &error)) return Failure(error);

  std::string directory = request.config_dir;
  if (directory.empty() && !UserConfigDirectory(&directory, &error)) {
    return Failure(error);
  }
  if (!MakeDirectories(directory, &error)) return Failure(error);

  std::vector<StringMember> updates = {
      {"Name", request.name}, {"Path", path}, {"Sig", text}};
  if (!request.version.empty()) updates.push_back({"Version", request.version});
  const std::string config = directory + "/" + request.name + ".json";
  if (!UpdateJsonFile(config, updates, /*create=*/true, &error)) {
    return Failure(error);
  }
  std::printf("%s: signed %s in %s\n", Quoted(request.name).c_str(),
              path.c_str(), config.c_str());
  return Success();
}

Outcome VerifyClient(const std::string& file, const std::string& signature) {
  const std::string problem = SigningProblem(file);
  if (!problem.empty()) return Failure(problem);
  if (!CheckQXClientModuleSignature(file.c_str(), signature.c_str())) {
    return Mismatch("", signature, "the given signature", file);
  }
  std::printf("%s: client signature valid\n", file.c_str());
  return Success();
}

namespace {

// How long the trial load may take before it counts as hanging.
constexpr int kTrialLoadTimeoutMs = 10000;

// Why module `name`'s file gives the loader no path (the status word FALSE).
Outcome NoModulePath(const std::string& name, const std::string& config) {
  const std::string subject = Quoted(name) + ": ";
  if (config.empty()) {
    return Failure(subject + "no " + name + ".json in " + SearchedDirectories() +
                   "; pages get FALSE");
  }
  JsonTree tree;
  std::string error;
  if (!LoadJsonObject(config, &tree, &error)) {
    return Failure(subject + error + "; pages get FALSE");
  }
  for (const char* key : {"Name", "Path"}) {
    if (StringValue(*tree.root(), key).empty()) {
      return Failure(subject + config + " has no \"" + key +
                     "\" string, so the library ignores it; pages get FALSE");
    }
  }
  // The library could not use a file that reads fine here: it changed
  // between the two reads.
  return Failure(subject + config + " changed while it was being checked");
}

// Why the module file's signature fails (BLOCK:CLIENT).
Outcome BadModuleSignature(const std::string& name, const std::string& config) {
  const std::string subject = Quoted(name) + ": ";
  const std::string suffix = "; pages get BLOCK:CLIENT";
  JsonTree tree;
  std::string error;
  if (!LoadJsonObject(config, &tree, &error)) return Failure(subject + error);
  const std::string module_file = StringValue(*tree.root(), "Path");
  const std::string signature = StringValue(*tree.root(), "Sig");
  if (signature.empty()) {
    return Invalid(subject + config + " holds no \"Sig\" signature" + suffix);
  }
  const std::string file_problem = SigningProblem(module_file);
  if (!file_problem.empty()) return Invalid(subject + file_problem + suffix);
  Outcome mismatch =
      Mismatch(subject, signature, "\"Sig\" in " + config, module_file);
  mismatch.reason += suffix;
  return mismatch;
}

}  // namespace

Outcome VerifyModule(const std::string& name) {
  const std::string problem = ModuleNameProblem(name);
  if (!problem.empty()) return Failure(problem);
  const std::string subject = Quoted(name) + ": ";
  const std::string config = _GetModuleConfigPath(name.c_str());

  // The loader's checks, in LoadQxClient's order; the first failing one is
  // the page's answer.
  // 1. The module file's client signature, through the library's own lookup.
  const std::string path = GetClientInstallPathModule(name.c_str(), true);
  if (path == kBlockClient) return BadModuleSignature(name, config);
  // 2. The installation signature.
  Outcome installation = InstallationProblem();
  if (installation.status != kExitOk) {
    installation.reason =
        subject + installation.reason + "; pages get BLOCK:QX";
    return installation;
  }
  // 3. A module file naming a library.
  if (path.empty()) return NoModulePath(name, config);
  // 4. A regular file dlopen() can read.
  const std::string file_problem = SigningProblem(path);
  if (!file_problem.empty()) {
    return Invalid(subject + file_problem + "; pages get FALSE");
  }
  // 5. dlopen, Initialize and its return value.
  const std::string load_problem = TrialLoadProblem(path, kTrialLoadTimeoutMs);
  if (!load_problem.empty()) {
    return Invalid(subject + path + ": " + load_problem + "; pages get FALSE");
  }
  std::printf("%ssignature valid for %s; loads and initializes\n",
              subject.c_str(), path.c_str());
  return Success();
}

}  // namespace tessmar::sign
