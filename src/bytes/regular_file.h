// Opening and reading the files the library depends on: configuration
// files, module files, module libraries and the installation's files.
// Only regular files are read, and never beyond their size, so a FIFO, a
// device or a link to one cannot block a request or feed it without end.
#ifndef TESSMAR_SRC_BYTES_REGULAR_FILE_H
#define TESSMAR_SRC_BYTES_REGULAR_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace tessmar {

// Configuration and module files (JSON) larger than this are unreadable.
constexpr std::size_t kMaxJsonFileSize = std::size_t{1} << 20;

// Opens `path` for reading without blocking (O_RDONLY | O_NONBLOCK |
// O_CLOEXEC) and returns the descriptor when it is a regular file, its size
// in `*size`; -1 otherwise (the descriptor is then closed).
int OpenRegularFile(const std::string& path, off_t* size);

// The whole regular file at `path` when it holds at most `max_size` bytes
// and reads in full; false otherwise, with `*data` untouched.
bool ReadRegularFile(const std::string& path, std::size_t max_size,
                     std::string* data);

// True when `path` is a regular file that can be opened for reading.
bool IsReadableRegularFile(const std::string& path);

}  // namespace tessmar

#endif  // TESSMAR_SRC_BYTES_REGULAR_FILE_H
