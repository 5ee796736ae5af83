// Test support: a temporary HOME with a signed installation, and the log the
// fixture modules append to (TESSMAR_FIXTURE_LOG; one tab-separated line per
// call). Create it before RunIsolated so the parent removes the directory.
#ifndef TESSMAR_TESTS_SUPPORT_MODULE_SANDBOX_H
#define TESSMAR_TESTS_SUPPORT_MODULE_SANDBOX_H

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/signed_installation.h"
#include "support/temp_home.h"

namespace tessmar::testing {

using Lines = std::vector<std::string>;

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

#endif  // TESSMAR_TESTS_SUPPORT_MODULE_SANDBOX_H
