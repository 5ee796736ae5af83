#include "framed_pipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include "posix_io.h"

namespace tessmar::host {
namespace {

// One write call, repeated only when it was interrupted before writing
// anything (then nothing reached the pipe and the frame is still intact).
bool WriteOnce(int fd, const void* data, size_t size, const char* pipe_name,
               const char* part) {
  ssize_t wrote;
  do {
    wrote = write(fd, data, size);
  } while (wrote < 0 && errno == EINTR);
  if (wrote < 0) {
    std::fprintf(stderr, "TessmarFirefox: cannot write %s to the %s pipe: %s\n",
                 part, pipe_name, std::strerror(errno));
    return false;
  }
  if (static_cast<size_t>(wrote) != size) {
    std::fprintf(stderr,
                 "TessmarFirefox: short write of %s to the %s pipe: %zd of "
                 "%zu bytes\n",
                 part, pipe_name, wrote, size);
    return false;
  }
  return true;
}

// The largest pipe an unprivileged process may ask for; 1 MiB by default.
std::size_t PipeMaxSize() {
  std::size_t limit = 1 << 20;
  if (FILE* file = std::fopen("/proc/sys/fs/pipe-max-size", "r")) {
    unsigned long value = 0;
    if (std::fscanf(file, "%lu", &value) == 1 && value > 0) limit = value;
    std::fclose(file);
  }
  return limit;
}

}  // namespace

bool MakeRoomForMessage(int fd, std::size_t body_size) {
  int queued = 0;
  if (ioctl(fd, FIONREAD, &queued) != 0 || queued < 0) queued = 0;
  const std::size_t needed =
      sizeof(uint32_t) + body_size + static_cast<std::size_t>(queued);
  const int capacity = fcntl(fd, F_GETPIPE_SZ);
  if (capacity > 0 && needed <= static_cast<std::size_t>(capacity)) return true;
  // Checked here rather than left to the kernel: a privileged host could
  // otherwise grow the pipe beyond the limit every other host lives with.
  if (needed > PipeMaxSize()) return false;
  return fcntl(fd, F_SETPIPE_SZ, static_cast<int>(needed)) >= 0;
}

ReadResult ReadMessage(int fd, std::string& body, const char* pipe_name) {
  uint32_t length = 0;
  const ssize_t got =
      tools::ReadFully(fd, &length, sizeof length);
  if (got == 0) return ReadResult::kEndOfFile;
  if (got != static_cast<ssize_t>(sizeof length)) {
    if (got < 0) {
      std::fprintf(stderr, "TessmarFirefox: cannot read the %s pipe: %s\n",
                   pipe_name, std::strerror(errno));
    } else {
      std::fprintf(stderr,
                   "TessmarFirefox: the %s pipe ended inside a length field\n",
                   pipe_name);
    }
    return ReadResult::kError;
  }

  body.assign(length, '\0');
  if (length == 0) return ReadResult::kMessage;
  const ssize_t body_got = tools::ReadFully(fd, &body[0], length);
  if (body_got != static_cast<ssize_t>(length)) {
    if (body_got < 0) {
      std::fprintf(stderr, "TessmarFirefox: cannot read the %s pipe: %s\n",
                   pipe_name, std::strerror(errno));
    } else {
      std::fprintf(stderr,
                   "TessmarFirefox: the %s pipe ended after %zd of %u body "
                   "bytes\n",
                   pipe_name, body_got, length);
    }
    return ReadResult::kError;
  }
  return ReadResult::kMessage;
}

bool WriteMessage(int fd, const std::string& body, const char* pipe_name) {
  if (body.size() > std::numeric_limits<uint32_t>::max()) {
    std::fprintf(stderr,
                 "TessmarFirefox: a %zu-byte message does not fit the %s "
                 "pipe's 32-bit length\n",
                 body.size(), pipe_name);
    return false;
  }
  const uint32_t length = static_cast<uint32_t>(body.size());
  if (!WriteOnce(fd, &length, sizeof length, pipe_name, "a length")) {
    return false;
  }
  // A zero length is the whole message: there is no body to write.
  if (length == 0) return true;
  return WriteOnce(fd, body.data(), body.size(), pipe_name, "a body");
}

}  // namespace tessmar::host
