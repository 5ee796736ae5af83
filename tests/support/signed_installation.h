// Test support: a signed framework installation and signed client modules
// inside a TempHome, so that the module host will load modules.
//
// Every signature is computed at test time with the library's own functions,
// the way the framework's installer produces them:
//   - installation: config.json's "Sig" is MakeBase64Encode(makeSig(
//     "morrowhost", "pelmora", "", header)) over the covered files
//     libnpTessmarPlugin.so, libTessmarFirefox.so and TessmarChrome in the
//     install directory (plus the browser manifest in the system directory,
//     which test machines do not have and which then counts as empty);
//   - module: NAME.json's "Sig" is MakeBase64Encode(makeClientSig(
//     "morrowhost", "pelmora", Path)).
#ifndef TESSMAR_TESTS_SUPPORT_SIGNED_INSTALLATION_H
#define TESSMAR_TESTS_SUPPORT_SIGNED_INSTALLATION_H

#include <cstdio>
#include <string>

#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace tessmar::testing {

// Replaces the file at `path` by a new file holding `data`: written beside it
// and renamed over it, so a library that is mapped from the old file keeps
// its pages (rewriting a mapped file in place could crash the process).
inline bool ReplaceFile(const std::string& path, const std::string& data) {
  const std::string fresh = path + ".new";
  WriteFile(fresh, data);
  return std::rename(fresh.c_str(), path.c_str()) == 0;
}

class SignedInstallation {
 public:
  static constexpr const char* kVersion = "2.5.0.1";

  // Lays out the install directory and a signed config.json.
  explicit SignedInstallation(const TempHome& home)
      : home_(home), install_dir_(home.path() + "/opt/tessmar") {
    MakeDirectories(install_dir_);
    for (const char* name :
         {"libnpTessmarPlugin.so", "libTessmarFirefox.so", "TessmarChrome"}) {
      WriteFile(install_dir_ + "/" + name, std::string("covered:") + name);
    }
    Sign();
  }

  const std::string& install_dir() const { return install_dir_; }

  // Rewrites config.json with the signature of the covered files as they
  // are now. config.json itself is not covered, so it can be rewritten.
  void Sign() const {
    WriteConfigJson("");  // makeSig takes its header from the existing file
    std::string header;
    const std::string digest = makeSig("morrowhost", "pelmora", "", header);
    WriteConfigJson(MakeBase64Encode(digest));
  }

  // Changes one covered file, so the stored signature no longer matches.
  void Tamper() const {
    WriteFile(install_dir_ + "/libTessmarFirefox.so", "changed after signing");
  }

  // The module signature text of the file at `path`, as it is now.
  static std::string ModuleSignature(const std::string& path) {
    return MakeBase64Encode(makeClientSig("morrowhost", "pelmora", path));
  }

  // Writes the module file NAME.json with the given members as they stand.
  void WriteModuleFile(const std::string& name, const std::string& path,
                       const std::string& sig,
                       const std::string& version = "1.0.0.1") const {
    home_.WriteConfig(name + ".json", "{\"Name\":\"" + name + "\",\"Path\":\"" +
                                          path + "\",\"Sig\":\"" + sig +
                                          "\",\"Version\":\"" + version +
                                          "\"}");
  }

  // Registers the library at `library` as module `name`, signed as it is now.
  void AddModule(const std::string& name, const std::string& library) const {
    WriteModuleFile(name, library, ModuleSignature(library));
  }

  // Copies `library` below HOME (so that the test may change the copy later),
  // registers the copy as module `name` and returns its path.
  std::string AddModuleCopy(const std::string& name,
                            const std::string& library) const {
    const std::string copy =
        home_.WriteHomeFile("modules/lib" + name + ".so", ReadFile(library));
    AddModule(name, copy);
    return copy;
  }

 private:
  void WriteConfigJson(const std::string& sig) const {
    home_.WriteConfig("config.json", "{\"Tessmar\":\"" + install_dir_ +
                                         "\",\"Version\":\"" + kVersion +
                                         "\",\"Sig\":\"" + sig + "\"}");
  }

  const TempHome& home_;
  std::string install_dir_;
};

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_SIGNED_INSTALLATION_H
