// Test support: a framework installation and client modules inside a
// TempHome, signed at test time as the installer signs them; and a sandbox
// that adds the log the fixture modules append to (TESSMAR_FIXTURE_LOG, one
// tab-separated line per call).
#ifndef TESSMAR_TESTS_SUPPORT_SIGNED_INSTALLATION_H
#define TESSMAR_TESTS_SUPPORT_SIGNED_INSTALLATION_H

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace tessmar::testing {

// Writes beside `path` and renames over it, so a library mapped from the old
// file keeps its pages.
inline bool ReplaceFile(const std::string& path, const std::string& data) {
  WriteFile(path + ".new", data);
  return std::rename((path + ".new").c_str(), path.c_str()) == 0;
}

// A module file's text; the values are copied unescaped.
inline std::string ModuleJson(const std::string& name, const std::string& path,
                              const std::string& sig, const std::string& version = "1.0.0.1") {
  return "{\"Name\":\"" + name + "\",\"Path\":\"" + path + "\",\"Sig\":\"" + sig +
         "\",\"Version\":\"" + version + "\"}";
}

class SignedInstallation {
 public:
  explicit SignedInstallation(const TempHome& home)
      : home_(home), install_dir_(home.path() + "/opt/tessmar") {
    MakeDirectories(install_dir_);
    for (const char* name : {"libnpTessmarPlugin.so", "libTessmarFirefox.so", "TessmarChrome"}) {
      WriteFile(install_dir_ + "/" + name, std::string("covered:") + name);
    }
    Sign();
  }

  const std::string& install_dir() const { return install_dir_; }

  // Rewrites config.json (not itself covered) to match the files as they are.
  void Sign() const {
    WriteConfigJson("");  // makeSig reads its header from the existing file
    std::string header;
    WriteConfigJson(MakeBase64Encode(makeSig("morrowhost", "pelmora", "", header)));
  }

  void Tamper() const { WriteFile(install_dir_ + "/libTessmarFirefox.so", "changed"); }

  static std::string ModuleSignature(const std::string& path) {
    return MakeBase64Encode(makeClientSig("morrowhost", "pelmora", path));
  }

  void WriteModuleFile(const std::string& name, const std::string& path,
                       const std::string& sig) const {
    home_.WriteConfig(name + ".json", ModuleJson(name, path, sig));
  }

  // Registers `library` as module `name`, signed as it is now.
  void AddModule(const std::string& name, const std::string& library) const {
    WriteModuleFile(name, library, ModuleSignature(library));
  }

  // Registers a copy of `library` below HOME (for the test to change later).
  std::string AddModuleCopy(const std::string& name, const std::string& library) const {
    const std::string copy = home_.WriteHomeFile("modules/lib" + name + ".so", ReadFile(library));
    AddModule(name, copy);
    return copy;
  }

 private:
  void WriteConfigJson(const std::string& sig) const {
    home_.WriteConfig("config.json", "{\"Tessmar\":\"" + install_dir_ +
                                         "\",\"Version\":\"2.5.0.1\",\"Sig\":\"" + sig + "\"}");
  }

  const TempHome& home_;
  std::string install_dir_;
};

using Lines = std::vector<std::string>;

// Create it before RunIsolated, so that the parent removes the directory.
struct ModuleSandbox {
  ModuleSandbox() { setenv("TESSMAR_FIXTURE_LOG", (home.path() + "/fixture.log").c_str(), 1); }
  ~ModuleSandbox() { unsetenv("TESSMAR_FIXTURE_LOG"); }
  Lines Log() const {
    std::istringstream in(ReadFile(home.path() + "/fixture.log"));
    Lines lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  TempHome home;
  SignedInstallation install{home};
};

inline std::string LogLine(const Lines& fields) {
  std::string line;
  for (const std::string& field : fields) line += field + "\t";
  return line.substr(0, line.size() - 1);
}

// The recording fixture's SetHostFuncs line for host table `host`.
inline std::string SetHostFuncsLine(const char* tag, const void* host) {
  char pointer[32];
  std::snprintf(pointer, sizeof pointer, "%p", host);
  return LogLine({tag, "SetHostFuncs", "1", "48", "2", pointer});
}

}  // namespace tessmar::testing

#endif  // TESSMAR_TESTS_SUPPORT_SIGNED_INSTALLATION_H
