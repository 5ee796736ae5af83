// Plain POSIX I/O for the tools, with EINTR handled in one place.
#ifndef TESSMAR_TOOLS_COMMON_POSIX_IO_H_
#define TESSMAR_TOOLS_COMMON_POSIX_IO_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace tessmar::tools {

// Reads up to `size` bytes, resuming after interruptions and short reads.
// Returns the count read (less than `size` only at end of input) or -1 on
// a read error.
ssize_t ReadFully(int fd, void* buffer, std::size_t size);

// Writes all `size` bytes, resuming likewise; false on an error.
bool WriteFully(int fd, const void* data, std::size_t size);

// open(2), repeated while interrupted.
int OpenRetrying(const char* path, int flags, mode_t mode = 0);

// Reads the regular file at `path` whole when it holds at most `max_size`
// bytes. It is opened without blocking and checked with fstat first, so a
// FIFO or a device never stalls the reader. False otherwise, with `reason`
// (when given) set to strerror's text, "not a regular file" or "too large".
bool ReadRegularFile(const std::string& path, std::size_t max_size,
                     std::string* data, std::string* reason = nullptr);

// mkdir -p with `mode` for the directories it makes; false, errno set, when
// one cannot be made.
bool MakeDirectories(const std::string& path, mode_t mode = 0755);

}  // namespace tessmar::tools

#endif  // TESSMAR_TOOLS_COMMON_POSIX_IO_H_
