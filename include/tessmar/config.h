// Installation configuration: where the framework and its client modules
// are installed, which versions they have, and version comparison.
//
// The framework keeps its facts in small JSON files in one configuration
// directory: "config.json" (keys "Tessmar", "TessmarClient", "Version", "Sig")
// and one file per client module, named by the module name followed by
// ".json" (keys "Name", "Path", "Sig", "Version"). Two directories are
// searched, the user's first:
//     $HOME/.config/Pelmora/Tessmar/morrowhost
//     /usr/share/Pelmora/Tessmar/morrowhost
// A file in the user directory hides the system one completely. Every call
// reads its files again; nothing is cached. A key is looked up in the root
// object only; the first member of that exact name counts, and a value that
// is not a string counts as absent.
//
// Every function returns its text by value; the empty string is the one
// signal of a value that is not available.
#ifndef TESSMAR_CONFIG_H
#define TESSMAR_CONFIG_H

#include <string>
#include <vector>

#include "tessmar/export.h"

// Full path of the existing "config.json" (user directory first), or "".
TSMX_API std::string _GetConfigPath();

// Full path of the existing module file `module` + ".json", or "" (also for
// a null or empty name, without touching the file system).
TSMX_API std::string _GetModuleConfigPath(const char* module);

// "Tessmar" of config.json: the directory holding the host executable.
TSMX_API std::string GetTessmarInstallPath();

// "Version" of config.json. The argument is ignored.
TSMX_API std::string GetCurrentVersion(void* context);

// "Version" of the module file, or "" unless "Name", "Path", "Sig" and
// "Version" are all non-empty there.
TSMX_API std::string GetClientVersion(const char* module);

// A JSON array of {"name":..,"version":..} for the comma-separated module
// names in `list`, built without escaping. The caller's buffer is tokenized
// in place with strtok (its commas become NUL bytes): pass a buffer you own
// and no longer need, and do not call this while other code uses strtok.
// A null list gives "[]".
TSMX_API std::string GetClientVersions(const char* list);

// Appends every non-empty "."-separated token of `text` to `parts`. `text`
// is tokenized in place; pass a copy.
TSMX_API void SplitVersion(std::string& text, std::vector<std::string>& parts);

// 1 when version `a` is lower than or equal to `b`, or when either does not
// have exactly four parts; 0 when `a` is higher. Parts compare as numbers
// (strtol base 10, low 32 bits). Both must be non-null.
TSMX_API int CheckVersion(const char* a, const char* b);

// "Path" of the module file; "" when the file is unusable or "Name" or
// "Path" is empty. With `verify`, "BLOCK:CLIENT" when "Sig" is empty or the
// file at "Path" fails its client module signature check.
TSMX_API std::string GetClientInstallPathModule(const char* module,
                                                bool verify);

// The verified path of the "morrowhost" module ("BLOCK:CLIENT" included as
// it stands), else "TessmarClient" of config.json, else "".
TSMX_API std::string GetClientInstallPath();

#endif  // TESSMAR_CONFIG_H
