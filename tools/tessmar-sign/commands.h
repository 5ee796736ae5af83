// The subcommands of tessmar-sign. Each one computes or checks a signature
// with the library's own exported functions, prints what it produced or
// found on stdout, and returns its exit status with a one-line reason.
#ifndef TESSMAR_TOOLS_SIGN_COMMANDS_H
#define TESSMAR_TOOLS_SIGN_COMMANDS_H

#include <string>

#include "outcome.h"

namespace tessmar::sign {

// The build identity the library was built with; it salts the installation
// and client module signatures (product word first, maker word second).
inline constexpr char kProduct[] = TESSMAR_SIGN_PRODUCT;
inline constexpr char kMaker[] = TESSMAR_SIGN_MAKER;

// The configuration directories the library searches, for messages: the
// user's and the system one, or the system one alone when HOME is unset
// (as with --system).
std::string SearchedDirectories();

// --- Client modules (client_commands.cpp) --------------------------------

struct ModuleRequest {
  std::string name;        // the module name; the file is name + ".json"
  std::string file;        // the module's shared library
  std::string version;     // stored as "Version" when non-empty
  std::string config_dir;  // "" selects the user configuration directory
};

// Prints the Base64 client signature text of `file`.
Outcome SignClient(const std::string& file);
// Writes or updates the module file with "Name", "Path", "Sig", "Version".
Outcome SignModule(const ModuleRequest& request);
// Checks `file` against the Base64 signature text `signature`.
Outcome VerifyClient(const std::string& file, const std::string& signature);
// Checks module `name` the way the library does before loading it.
Outcome VerifyModule(const std::string& name);

// --- Installation (install_commands.cpp) ---------------------------------

// Signs the installed files into "Sig" of config.json (`dir` empty), or the
// files in `dir` into dir/Tessmar.sig.
Outcome SignInstallation(const std::string& dir);
Outcome VerifyInstallation(const std::string& dir);
// Why the library refuses the installed files, or Success(); prints nothing.
Outcome InstallationProblem();

// --- Local server (server_commands.cpp) ----------------------------------

// Writes file + ".sig".
Outcome SignServer(const std::string& file);
Outcome VerifyServer(const std::string& file);

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_COMMANDS_H
