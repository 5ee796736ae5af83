// Writing the files the tools leave for the library and the browsers to
// read (module files, config.json, signature files, native-messaging
// manifests), all one way.
#ifndef TESSMAR_TOOLS_COMMON_FILE_WRITE_H_
#define TESSMAR_TOOLS_COMMON_FILE_WRITE_H_

#include <string>

namespace tessmar::tools {

// Replaces the file at `path` by `data` so that readers see either the old
// or the new content, never a mix: the data goes to a temporary file made
// with mkstemp in the same directory, which is written whole, synced and
// renamed over `path`. An existing file keeps its permission mode; a new
// one gets 0666 less the umask. A `path` that is a symbolic link or not a
// regular file is refused: in a shared directory a planted link must not
// redirect the write. On failure the old file is untouched, the temporary
// file removed, and `error` says "<path>: <reason>".
bool WriteFileAtomically(const std::string& path, const std::string& data,
                         std::string* error);

}  // namespace tessmar::tools

#endif  // TESSMAR_TOOLS_COMMON_FILE_WRITE_H_
