// The file-system work of tessmar-sign: whole-file reads with a reason on
// failure, atomic replacement of files, directory creation and the checks
// made on a file before it is signed. Files are opened without blocking
// and only regular files are read. Every function reports failure by
// returning false (or a non-empty reason) and never throws.
#ifndef TESSMAR_TOOLS_SIGN_FILE_IO_H
#define TESSMAR_TOOLS_SIGN_FILE_IO_H

#include <string>

#include "file_write.h"

namespace tessmar::sign {

// Reads the whole file at `path` into `data`: a regular file of at most
// 1 MiB, opened without blocking. On failure sets `error` to
// "<path>: <reason>" ("not a regular file", "too large (over 1 MiB)", ...). `missing` (optional) is set when the file does not
// exist, so callers can tell "absent" from "unreadable".
bool ReadWholeFile(const std::string& path, std::string* data,
                   std::string* error, bool* missing = nullptr);

// Files are written as every tool writes them (tools/common/file_write.h).
using tessmar::tools::WriteFileAtomically;

// Creates `path` and any missing parents (mode 0755 less the umask).
// An existing directory is fine; an existing non-directory is an error.
bool MakeDirectories(const std::string& path, std::string* error);

// True when `path` names an existing directory; otherwise sets `error`.
bool IsDirectory(const std::string& path, std::string* error);

// The absolute, symlink-free path of an existing file.
bool AbsolutePath(const std::string& path, std::string* absolute,
                  std::string* error);

// Why the file at `path` cannot be signed, or "" when it can: it must be an
// existing, readable, non-empty regular file that the library's whole-file
// reader accepts (under 2 GiB). The library yields no signature at all for
// the other cases, so they are caught here to give the user a reason.
std::string SigningProblem(const std::string& path);

}  // namespace tessmar::sign

#endif  // TESSMAR_TOOLS_SIGN_FILE_IO_H
